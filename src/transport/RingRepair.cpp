// Repair of a ring left locked or half-written by a writer that died, and the
// lock's state for diagnostics.
#include <semaphore.h>
#include <time.h>

#include "log/Control.h"
#include "log/RingHead.h"
#include "transport/SemManager.h"

namespace PF::Utils::LOG {

bool ResetShm() {
    sem_t* s = SemManager::sem;
    RingHead* ring = RingHead::instance;
    if (s == nullptr || ring == nullptr) return false;

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    timespec deadline = now;
    deadline.tv_sec += 1;
    if (sem_timedwait(s, &deadline) == 0) {
        sem_post(s);
        return false;  // nothing was stuck
    }
    int value = 0;
    if (sem_getvalue(s, &value) == 0 && value > 0) return true;

    // Drops what was reserved or published but not consumed, including a
    // half-finished enqueue, then releases the dead holder's lock.
    const unsigned consHead = __atomic_load_n(&ring->consHead, __ATOMIC_ACQUIRE);
    __atomic_store_n(&ring->prodHead, consHead, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    __atomic_store_n(&ring->prodTail, consHead, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    sem_post(s);
    return true;
}

int GetWriteSemStatus() {
    sem_t* s = SemManager::sem;
    int value = 0;
    if (s == nullptr || sem_getvalue(s, &value) != 0) return -1;
    return value;
}

}  // namespace PF::Utils::LOG
