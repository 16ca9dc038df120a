#include "lifecycle/ProcessRoles.h"

#include <dlfcn.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "archive/ShmArchiver.h"
#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/RingHead.h"
#include "log/WriteLog.h"
#include "transport/MEMManager.h"
#include "transport/SHMManager.h"
#include "transport/SemManager.h"

namespace PF::Utils::LOG {

namespace {

// True while this process owns the shared segment and the semaphores (it
// created them as the reader); only the owner ever unlinks them.
bool sOwnsSegment = false;

bool ConfigFileOpens(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) return false;
    std::fclose(file);
    return true;
}

// The configuration monitor is detached and may sleep in read() forever: once
// it runs, the library must stay mapped even if its loader calls dlclose.
void PinLibraryInMemory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&PinLibraryInMemory), &info) != 0 &&
        info.dli_fname != nullptr) {
        dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

void SleepMs100() {
    timespec remaining{0, 100000000};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

bool InitWriteProcess() {
    if (!SHMManager::InitSHM()) return false;
    // The header is used as the reader initialised it; a writer never
    // initialises, truncates, zeroes or unlinks anything.
    RingHead::instance = static_cast<RingHead*>(SHMManager::shmInfo.address);
    RingHead::sRing = static_cast<char*>(SHMManager::shmInfo.address) + 48;
    return SemManager::Init();
}

bool CloseWriteProcess() {
    // Atomic: a private log's archiver may still be reading it.
    __atomic_store_n(&RingHead::instance, nullptr, __ATOMIC_RELEASE);
    if (SHMManager::shmInfo.address != nullptr) RingHead::Retire(SHMManager::shmInfo.address);
    return SHMManager::DestroySHM();
}

bool InitReadThread() {
    void* base = nullptr;
    if (IsUPEnvironment()) {
        MEMManager::CreateMEM(kSegmentSize);
        base = MEMManager::memInfo.address;
    } else {
        SemManager::Create();  // a stale semaphore of a crashed reader is replaced
        if (!SHMManager::CreateSHM(kSegmentSize)) return false;
        sOwnsSegment = true;
        base = SHMManager::shmInfo.address;
    }
    RingHead::Init(base, static_cast<int>(kSegmentSize), RingHead::instance);
    if (RingHead* ring = RingHead::instance) {
        // Written directly: in the UP environment there is no semaphore.
        __atomic_store_n(&ring->active, ConfManager::logActive, __ATOMIC_RELAXED);
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
        __atomic_store_n(&ring->level, ConfManager::logLevel, __ATOMIC_RELAXED);
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
    }
    return true;
}

bool InitResourceAndReadThread() {
    CloseReadThreadAndResource();  // a second start begins from scratch
    const auto [confFile, logDir] = InitConfAndLogPath();
    if (ConfigFileOpens(confFile)) {
        ConfManager::outputMode = false;
        ConfManager::ReadConfigFile(confFile);
    }
    InitReadThread();
    std::string archiveDir;
    if (!IsUPEnvironment()) {
        PinLibraryInMemory();
        ConfManager::StartThread();
        archiveDir = logDir;
    }
    if (ConfManager::logActive != 0) {
        auto& archiver = ShmArchiver::GetInstancePtr();
        archiver->SetBaseLogDir(archiveDir);
        archiver->init();
        archiver->StartThread();
    }
    return true;
}

bool CloseReadThreadAndResource() {
    RingHead* ring = RingHead::instance;
    if (ring != nullptr && ring->LoadActive() == 1 && ring->LoadLevel() < 3) {
        static char notice[22] = " RingHead Set Nullptr";
        WriteLog<char[22]>("RingHead Deconstruction", notice, kInfo, "CloseReadThreadAndResource",
                           0, 0, 0, std::string());
    }
    SleepMs100();  // the archiver drains the notice and whatever came before it
    ConfManager::StopThread();
    if (ShmArchiver::sShmArch) ShmArchiver::sShmArch->StopThread();
    RingHead::instance = nullptr;

    if (IsUPEnvironment()) {
        if (MEMManager::memInfo.address != nullptr) RingHead::Retire(MEMManager::memInfo.address);
        return MEMManager::DeleteSHM();
    }
    if (SHMManager::shmInfo.address != nullptr) RingHead::Retire(SHMManager::shmInfo.address);
    sOwnsSegment = false;
    return SemManager::Destory() && SHMManager::DestroySHM() && SHMManager::DeleteSHM();
}

bool LogDoConfigure(std::string confFile, std::string logDir) {
    try {
        CloseWriteProcess();
        // A writer switching to a private log must not unlink the runtime's
        // segment and semaphores: only their owner does.
        if (!sOwnsSegment) ConfManager::outputMode = true;
        CloseReadThreadAndResource();
        ConfManager::outputMode = true;
        ConfManager::ReadConfigFile(confFile);
        InitReadThread();
        auto& archiver = ShmArchiver::GetInstancePtr();
        archiver->SetBaseLogDir(logDir);
        archiver->init();
        archiver->StartThread();
    } catch (...) {
        // An unusable log directory leaves the archiver stopped; the host runs on.
    }
    return true;
}

}  // namespace PF::Utils::LOG
