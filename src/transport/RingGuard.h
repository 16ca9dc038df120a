// The runtime's watch over the shared ring. Any process of the installation
// may write the ring's header and its lock, by mistake or by dying at the
// wrong moment; the archiver's drain, every 100 ms, goes through this guard,
// which notices a ring that stays broken and repairs it.
#pragma once

#include <semaphore.h>

namespace PF::Utils::LOG {

class RingHead;

class RingGuard {
  public:
    // Ticks (of 100 ms) a fault must last before it is repaired: about a
    // second. Long enough that a writer descheduled while it holds the lock,
    // or a burst that keeps the lock busy, is never taken for a fault (each
    // tick waits 1 ms for the lock, as a writer does); short enough that a
    // dead lock holder costs the installation a second of records.
    static constexpr int kRepairAfterTicks = 10;

    // One tick: takes the ring's lock (waiting as long as a writer would),
    // looks at the header, repairs what has stayed broken for
    // kRepairAfterTicks, and moves the published records into buf (which
    // holds the ring's capacity). Returns the bytes moved.
    unsigned Drain(RingHead* ring, char* buf, unsigned len);

  private:
    // Faults, each counted in consecutive ticks.
    int lockMissed_ = 0;   // the lock not had within the deadline
    int damaged_ = 0;      // geometry, indices or switches out of range
    int unpublished_ = 0;  // a reservation or a read left open, unchanged
    int extraPosts_ = 0;   // the lock free once more while held
    unsigned lastIndices_[4] = {};

    // With the lock held (or taken over from a dead holder): the header made
    // whole, the switches as the configuration says, one notice saying what.
    void Repair(RingHead* ring, const char* what);
    void Inspect(RingHead* ring, sem_t* lock);
};

}  // namespace PF::Utils::LOG
