#include "transport/SemManager.h"

#include <fcntl.h>

#include <cerrno>

namespace PF::Utils::LOG {

namespace {
constexpr const char* kWriteSemName = "/WriteLOG";
constexpr const char* kReadSemName = "/ReadLOG";
constexpr long kNsPerSecond = 1000000000L;
// Attempts with sem_trywait before sleeping in the kernel: a holder keeps the
// lock for one copy, usually well under a microsecond, and waking a sleeper
// costs far more than that.
constexpr int kSpinAttempts = 64;

sem_t* OrNull(sem_t* s) {
    return s == SEM_FAILED ? nullptr : s;
}

// Counted on the failure path only: the hot path never touches it.
thread_local unsigned long tLockTimeouts = 0;
}  // namespace

sem_t* SemManager::sem = nullptr;
sem_t* SemManager::readsem = nullptr;

timespec DeadlineAfter(const timespec& now, long addNs) {
    timespec deadline = now;
    deadline.tv_nsec += addNs;
    if (deadline.tv_nsec > kNsPerSecond - 1) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNsPerSecond;
    }
    return deadline;
}

bool SemManager::Create() {
    sem_unlink(kWriteSemName);
    sem = OrNull(sem_open(kWriteSemName, O_CREAT | O_EXCL, 0644, 1));
    if (sem == nullptr) return false;
    sem_unlink(kReadSemName);
    readsem = OrNull(sem_open(kReadSemName, O_CREAT | O_EXCL, 0644, 1));
    return readsem != nullptr;
}

bool SemManager::Init() {
    sem = OrNull(sem_open(kWriteSemName, 0));
    if (sem == nullptr) return false;
    readsem = OrNull(sem_open(kReadSemName, 0));
    return readsem != nullptr;
}

// The handles are not closed: a writer thread may still be about to use one.
bool SemManager::Destory() {
    sem_unlink(kWriteSemName);
    sem_unlink(kReadSemName);
    sem = nullptr;
    readsem = nullptr;
    return true;
}

sem_t* SemManager::TimedLock(long timeoutNs) {
    sem_t* s = sem;
    if (s == nullptr) return nullptr;
    // A free lock needs no deadline and no clock read.
    if (sem_trywait(s) == 0) return s;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec deadline = DeadlineAfter(now, timeoutNs);
    for (int i = 0; i < kSpinAttempts; ++i) {
        __builtin_ia32_pause();
        if (sem_trywait(s) == 0) return s;
    }
    // A signal does not cost the record: the deadline is absolute.
    int rc;
    do {
        rc = sem_timedwait(s, &deadline);
    } while (rc == -1 && errno == EINTR);
    if (rc == 0) return s;
    ++tLockTimeouts;
    return nullptr;
}

unsigned long SemManager::ThreadLockTimeouts() {
    return tLockTimeouts;
}

void SemManager::Unlock(sem_t* taken) {
    sem_post(taken);
}

}  // namespace PF::Utils::LOG
