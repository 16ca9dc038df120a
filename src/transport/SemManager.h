// The named semaphores "/WriteLOG" (the one lock of the ring and its
// switches) and "/ReadLOG" (created and opened, never waited on: kept so the
// set of names stays what every installation expects).
#pragma once

#include <semaphore.h>
#include <time.h>

#include "log/RingHead.h"  // kLockTimeoutNs

namespace PF::Utils::LOG {

class SemManager {
  public:
    SemManager() = delete;

    // Reader: replaces stale semaphores. A starting runtime creates "/WriteLOG"
    // taken (initial 0) and gives it once the ring is ready, so that no
    // writer following it writes into a ring being read or zeroed.
    static bool Create(unsigned initial = 1);
    // Writer: open only. On a re-attach the handles it replaces are kept
    // for a while (a thread may have read one a moment ago and be about to
    // use it) and closed by CloseRetired.
    static bool Init();
    static bool Destory();  // unlink both (spelled so: exported name)
    // Init in two steps, for a re-attach that must know both names open
    // before it gives its ring up: Open the handles, then Publish them (or
    // Close them again).
    static bool Open(sem_t*& write, sem_t*& read);
    static void Publish(sem_t* write, sem_t* read);
    static void Close(sem_t* write, sem_t* read);
    // The identity (device and inode) of "/WriteLOG" as opened last, and as
    // it is now: every runtime start creates it anew, so a writer whose
    // lock differs from the current one is attached to a runtime that is gone.
    static bool OpenedLockIsCurrent();
    // Starting runtime: takes the lock of a runtime that ran before (if its
    // name is still there) within 100 ms and never gives it back, so that
    // writers still attached to that runtime stop writing into the object
    // about to be re-initialised: their next write times out and they
    // follow the new runtime.
    static void HoldPreviousLock();
    // Closes handles replaced by Init at least a second before nowUs.
    static void CloseRetired(long long nowUs);
    // The lock of the ring now; a thread that took another one (replaced
    // meanwhile) must not touch the ring.
    static sem_t* Current() { return __atomic_load_n(&sem, __ATOMIC_ACQUIRE); }

    // Takes "/WriteLOG" within timeoutNs (measured from the first failed
    // attempt). Returns the handle taken, to be given back to Unlock, or null
    // on time-out or when it is not open.
    static sem_t* TimedLock(long timeoutNs);
    static void Unlock(sem_t* taken);

    static sem_t* sem;
    static sem_t* readsem;
};

// CLOCK_REALTIME now plus addNs (at most one second), normalised.
timespec DeadlineAfter(const timespec& now, long addNs);

}  // namespace PF::Utils::LOG
