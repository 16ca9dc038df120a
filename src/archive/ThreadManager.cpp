#include "archive/ThreadManager.h"

#include <pthread.h>
#include <sched.h>

#include <cstdio>

namespace PF::Utils::LOG {

void ThreadManager::SetThreadAffinity(std::thread& thread, int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0 && cpu < CPU_SETSIZE) CPU_SET(cpu, &set);
    // No thread, no handle: the call would dereference a null handle.
    if (!thread.joinable() ||
        pthread_setaffinity_np(thread.native_handle(), sizeof set, &set) != 0) {
        std::fputs("pthread_setaffinity_np error\n", stderr);
        std::fflush(stderr);
    }
}

}  // namespace PF::Utils::LOG
