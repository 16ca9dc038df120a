#include "archive/ThreadManager.h"

#include <pthread.h>
#include <sched.h>

#include <cstdio>

namespace PF::Utils::LOG {

namespace {
cpu_set_t gProcessCpus;
bool gProcessCpusKnown = false;
}  // namespace

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

void ThreadManager::RememberProcessAffinity() {
    gProcessCpusKnown = sched_getaffinity(0, sizeof gProcessCpus, &gProcessCpus) == 0;
}

void ThreadManager::StartedByTheLibrary(int cpu) {
    const sched_param normal{};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0 && cpu < CPU_SETSIZE) {
        CPU_SET(cpu, &set);
    } else if (gProcessCpusKnown) {
        set = gProcessCpus;
    } else {
        for (int i = 0; i < CPU_SETSIZE; ++i) CPU_SET(i, &set);
    }
    // Errors are the pinning caller's to report (SetThreadAffinity).
    sched_setaffinity(0, sizeof set, &set);
}

}  // namespace PF::Utils::LOG
