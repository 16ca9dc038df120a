// CPU pinning and scheduling of the library's own threads.
#pragma once

#include <thread>

namespace PF::Utils::LOG {

class ThreadManager {
  public:
    ThreadManager() = delete;

    // Pins thread to cpu; a cpu outside 0..1023 yields an empty set, which
    // the system refuses ("pthread_setaffinity_np error" on stderr).
    static void SetThreadAffinity(std::thread& thread, int cpu);

    // Remembers the process's own CPU set, at load: what the library's
    // threads run on unless pinned.
    static void RememberProcessAffinity();
    // First call of a thread the library starts: it runs on cpu (when not
    // -1) or on the process's CPU set, with the normal time-sharing policy,
    // never with the affinity or real-time priority of whichever thread
    // happened to start it (a control task, or the monitor pinned to core 0).
    static void StartedByTheLibrary(int cpu);
};

}  // namespace PF::Utils::LOG
