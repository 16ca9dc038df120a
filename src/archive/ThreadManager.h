// Pinning of the library's own threads to one CPU.
#pragma once

#include <thread>

namespace PF::Utils::LOG {

class ThreadManager {
  public:
    ThreadManager() = delete;

    // Pins thread to cpu; a cpu outside 0..1023 yields an empty set, which
    // the system refuses ("pthread_setaffinity_np error" on stderr).
    static void SetThreadAffinity(std::thread& thread, int cpu);
};

}  // namespace PF::Utils::LOG
