#include "transport/SHMManager.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "config/SharedAccess.h"
#include "transport/RingRegion.h"

namespace PF::Utils::LOG {

namespace {
constexpr const char* kShmName = "ZMLOG";
}

MemoryInfo SHMManager::shmInfo = {nullptr, -1, 0};

bool SHMManager::OpenSHM(bool create) {
    const bool restricted = create && detail::CurrentSharedAccess().restricted;
    shmInfo.descriptor =
        shm_open(kShmName, create ? (O_CREAT | O_RDWR) : O_RDWR, restricted ? 0660 : 0666);
    if (restricted) detail::Restrict(shmInfo.descriptor, 0660);
    return shmInfo.descriptor != -1;
}

bool SHMManager::GetSize() {
    struct stat st {};
    if (fstat(shmInfo.descriptor, &st) != 0) return false;
    shmInfo.size = static_cast<std::uint32_t>(st.st_size);
    return true;
}

bool SHMManager::Ftruncate() {
    return ftruncate(shmInfo.descriptor, shmInfo.size) != -1;
}

bool SHMManager::OpenMMAP() {
    shmInfo.address = RingRegion::MapShared(shmInfo.descriptor, shmInfo.size);
    if (shmInfo.descriptor != -1) {
        // The mapping stays valid without the descriptor.
        close(shmInfo.descriptor);
        shmInfo.descriptor = -1;
    }
    return shmInfo.address != MAP_FAILED;
}

bool SHMManager::InitSHM() {
    return OpenSHM(false) && GetSize() && OpenMMAP();
}

bool SHMManager::CreateSHM(unsigned long size) {
    if (!OpenSHM(true)) return false;
    shmInfo.size = static_cast<std::uint32_t>(size);
    if (!Ftruncate() || !OpenMMAP()) return false;
    if (shmInfo.address != nullptr) std::memset(shmInfo.address, 0, shmInfo.size);
    return true;
}

// Not unmapped: parked, so a thread still reading the header reads zeros.
bool SHMManager::DestroySHM() {
    RingRegion::Park(shmInfo.address, shmInfo.size);
    if (shmInfo.descriptor != -1) {
        close(shmInfo.descriptor);
        shmInfo.descriptor = -1;
    }
    shmInfo.address = nullptr;
    return true;
}

bool SHMManager::DeleteSHM() {
    return shm_unlink(kShmName) == 0;
}

// Inverted on purpose (true when msync fails); nothing in the library calls it.
bool SHMManager::Sync() {
    return msync(shmInfo.address, shmInfo.size, MS_SYNC) != 0;
}

}  // namespace PF::Utils::LOG
