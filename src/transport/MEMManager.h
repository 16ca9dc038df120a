// The process-private ring block of a process without an installation, and
// the mutex that serialises its writers and its archiver.
#pragma once

#include <mutex>

#include "transport/SHMManager.h"

namespace PF::Utils::LOG {

class MEMManager {
  public:
    MEMManager() = delete;

    static bool CreateMEM(unsigned long size);
    static bool DeleteSHM();

    static MemoryInfo memInfo;
    static std::mutex mMutex;
};

}  // namespace PF::Utils::LOG
