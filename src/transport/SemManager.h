// The named semaphores "/WriteLOG" (the one lock of the ring and its
// switches) and "/ReadLOG" (created and opened, never waited on: kept so the
// set of names stays what every installation expects).
#pragma once

#include <semaphore.h>
#include <time.h>

namespace PF::Utils::LOG {

class SemManager {
  public:
    SemManager() = delete;

    static bool Create();   // reader: replace stale semaphores
    static bool Init();     // writer: open only
    static bool Destory();  // unlink both (spelled so: exported name)

    // Takes "/WriteLOG" within timeoutNs (measured from the first failed
    // attempt). Returns the handle taken, to be given back to Unlock, or null
    // on time-out or when it is not open.
    static sem_t* TimedLock(long timeoutNs);
    static void Unlock(sem_t* taken);

    // Lock time-outs of the calling thread so far: each one dropped a record
    // or a drain. Callers are never told; stress tests and diagnostics read it
    // to tell a dropped record from a lost one.
    static unsigned long ThreadLockTimeouts();

    static sem_t* sem;
    static sem_t* readsem;
};

// CLOCK_REALTIME now plus addNs (at most one second), normalised.
timespec DeadlineAfter(const timespec& now, long addNs);

constexpr long kLockTimeoutNs = 1000000;  // 1 ms: no writer ever waits longer

}  // namespace PF::Utils::LOG
