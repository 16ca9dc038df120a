#include "lifecycle/ProcessRoles.h"

#include "lifecycle/RuntimeFollower.h"

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>

#include "archive/ShmArchiver.h"
#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/RingHead.h"
#include "log/WriteLog.h"
#include "transport/MEMManager.h"
#include "transport/RingRegion.h"
#include "transport/RingSalvage.h"
#include "transport/SHMManager.h"
#include "transport/SemManager.h"
#include "writer/CrashReport.h"

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

}  // namespace

// The configuration monitor is detached and may sleep in read() forever: once
// it runs, the library must stay mapped even if its loader calls dlclose.
void PinLibraryInMemory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&PinLibraryInMemory), &info) != 0 &&
        info.dli_fname != nullptr) {
        dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

namespace {

void SleepMs100() {
    timespec remaining{0, 100000000};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

namespace {

// A writer already attached moves to the ring of a runtime started since:
// only once the new runtime's names can be opened is the old ring given up
// (until then records go on into it, where the new runtime may find them),
// and no thread of this process is inside it then. The new ring is mapped
// where the old one was, so a thread holding the old header pointer finds
// the new header there.
bool Reattach() {
    sem_t* lock = nullptr;
    sem_t* readLock = nullptr;
    const std::uint32_t oldSize = SHMManager::shmInfo.size;
    if (!SemManager::Open(lock, readLock)) return false;
    if (!SHMManager::OpenSHM(false) || !SHMManager::GetSize()) {
        SemManager::Close(lock, readLock);
        if (SHMManager::shmInfo.descriptor != -1) close(SHMManager::shmInfo.descriptor);
        SHMManager::shmInfo.descriptor = -1;
        return false;
    }
    RingHead* const old = RingHead::instance;
    __atomic_store_n(&RingHead::instance, nullptr, __ATOMIC_RELEASE);
    RingHead::Retire(old);
    RingRegion::Park(old, oldSize);
    if (!SHMManager::OpenMMAP()) {
        SemManager::Close(lock, readLock);
        return false;
    }
    SemManager::Publish(lock, readLock);
    void* const base = SHMManager::shmInfo.address;
    RingHead::Adopt(base, SHMManager::shmInfo.size);
    RingHead::sRing = static_cast<char*>(base) + 48;
    RingHead::Unretire(base);
    __atomic_store_n(&RingHead::instance, static_cast<RingHead*>(base), __ATOMIC_RELEASE);
    return true;
}

}  // namespace

bool InitWriteProcess() {
    if (RingHead::instance != nullptr && !sOwnsSegment && !IsUPEnvironment()) return Reattach();
    if (!SHMManager::InitSHM()) return false;
    // A writer of the runtime (not the runtime itself, nor a private log)
    // follows the runtime's restarts from now on.
    if (!sOwnsSegment && !IsUPEnvironment()) FollowTheRuntime(true);
    // The header is used as the reader initialised it; a writer never
    // initialises, truncates, zeroes or unlinks anything.
    void* const base = SHMManager::shmInfo.address;
    RingHead::Adopt(base, SHMManager::shmInfo.size);
    RingHead::Unretire(base);
    __atomic_store_n(&RingHead::instance, static_cast<RingHead*>(base), __ATOMIC_RELEASE);
    RingHead::sRing = static_cast<char*>(base) + 48;
    return SemManager::Init();
}

bool CloseWriteProcess() {
    FollowTheRuntime(false);
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
        // Writers still on a runtime that died stop writing into the object
        // (their next write times out on its lock and they follow this
        // runtime, whose new lock stays taken until the ring is ready); what
        // they left unread is taken out before the object is zeroed.
        SemManager::HoldPreviousLock();
        SemManager::Create(0);  // a stale semaphore of a crashed reader is replaced
        ShmArchiver::GetInstancePtr()->SetSalvage(SalvageRing());
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
    if (!IsUPEnvironment() && SemManager::sem != nullptr) SemManager::Unlock(SemManager::sem);
    return true;
}

bool InitResourceAndReadThread() {
    CloseReadThreadAndResource();  // a second start begins from scratch
    const auto [confFile, logDir] = InitConfAndLogPath();
    if (ConfigFileOpens(confFile)) {
        ConfManager::outputMode = false;
        ConfManager::ReadConfigFile(confFile);
        detail::ApplyCrashReportKey();
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
    __atomic_store_n(&RingHead::instance, nullptr, __ATOMIC_RELEASE);

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
        detail::ApplyCrashReportKey();
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
