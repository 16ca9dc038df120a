#include "transport/MEMManager.h"

#include <new>

#include "transport/RingRegion.h"

namespace PF::Utils::LOG {

MemoryInfo MEMManager::memInfo = {nullptr, -1, 0};
std::mutex MEMManager::mMutex;

// Mapped rather than taken from the heap, so that releasing it never frees
// memory a thread still logging could read (see RingRegion).
bool MEMManager::CreateMEM(unsigned long size) {
    void* block = RingRegion::MapPrivate(size);
    if (block == nullptr) throw std::bad_alloc();
    memInfo.address = block;
    memInfo.size = static_cast<std::uint32_t>(size);
    return true;
}

bool MEMManager::DeleteSHM() {
    RingRegion::Park(memInfo.address, memInfo.size);
    memInfo.size = 0;
    // Cleared as well, so a second release after ReleaseRuntimeLog cannot
    // release the block twice.
    memInfo.address = nullptr;
    return true;
}

}  // namespace PF::Utils::LOG
