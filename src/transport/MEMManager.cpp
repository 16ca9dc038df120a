#include "transport/MEMManager.h"

namespace PF::Utils::LOG {

MemoryInfo MEMManager::memInfo = {nullptr, -1, 0};
std::mutex MEMManager::mMutex;

bool MEMManager::CreateMEM(unsigned long size) {
    memInfo.address = new char[size];
    memInfo.size = static_cast<std::uint32_t>(size);
    return true;
}

bool MEMManager::DeleteSHM() {
    if (memInfo.address != nullptr) delete[] static_cast<char*>(memInfo.address);
    memInfo.size = 0;
    // Cleared as well, so a second release after ReleaseRuntimeLog cannot free
    // the block twice.
    memInfo.address = nullptr;
    return true;
}

}  // namespace PF::Utils::LOG
