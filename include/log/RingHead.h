// The byte ring laid over the shared segment (or the private block of a
// process without an installation). Its 48-byte header also carries the live
// switches (active, level, component mask) that every process reads before it
// builds a record. The layout is shared across processes and must not change.
#pragma once

#include <cstddef>
#include <cstdint>

namespace PF::Utils::LOG {

class RingHead {
  public:
    virtual ~RingHead();

    // Lays a fresh header over base; refuses sizes 0..47.
    static bool Init(void* base, int size, RingHead*& out);
    // Any thread, at any moment: teardown clears the pointer while others log.
    static RingHead* GetInstance() { return __atomic_load_n(&instance, __ATOMIC_ACQUIRE); }

    bool CheckValid();
    unsigned Count();
    bool Empty();  // always false; drops every unread byte

    unsigned Enqueue(void* data, unsigned len);
    // The writers' Enqueue: a record that finds the ring full has notices of
    // the discard put in before it (sOnEmptied). Its own deadline for the
    // lock serves the record that met a runtime's restart, which waits for
    // the new ring (RuntimeFollower).
    unsigned EnqueueWithin(void* data, unsigned len, long lockTimeoutNs);
    unsigned Dequeue(void* buf, unsigned len);
    void EnqueueImp(void* data, unsigned len);
    unsigned DequeueImp(void* buf, unsigned len);

    bool SetActive(unsigned value);
    bool SetLevel(unsigned value);
    bool SetComponentMask(unsigned long value);

    // Lock-free reads of the switches, for the writers' filters.
    unsigned LoadActive() const { return __atomic_load_n(&active, __ATOMIC_RELAXED); }
    unsigned LoadLevel() const { return __atomic_load_n(&level, __ATOMIC_RELAXED); }
    unsigned long LoadComponentMask() const {
        return __atomic_load_n(&componentMask, __ATOMIC_RELAXED);
    }

    static RingHead* instance;  // this process's ring; null: every write is a no-op
    static char* sRing;         // the data area, instance + 48

    // The ring at base as this process mapped it: its size is the process's
    // own knowledge, never taken from the header, which any process of the
    // installation may write. Copies in and out stay within it; a header
    // whose geometry disagrees counts as damaged and moves no byte.
    static void Adopt(const void* base, unsigned long size);
    // The data area's size as this process knows the ring at this; 0 when
    // it does not know it (or it is no power of two).
    unsigned LocalCapacity() const;
    // The header's geometry and indices are within what this process mapped.
    bool Sane();

    // Marks the ring at base as about to be unmapped or freed and waits for a
    // writer that holds the lock; later Enqueue calls on it do nothing.
    static void Retire(const void* base);
    // A ring mapped at base again takes records again.
    static void Unretire(const void* base);
    bool Retired() const { return Retired(this); }
    static bool Retired(const void* base) {
        return base == __atomic_load_n(&sRetired, __ATOMIC_ACQUIRE);
    }
    // Called, with the lock held, when a record found the ring full and its
    // unread bytes were thrown away: the writer puts notices in first.
    static void (*sOnEmptied)(RingHead* ring, unsigned discardedBytes);

    // Offset 0 holds the vtable pointer of the initialising process; no other
    // process reads it.
    unsigned active;              // 8
    unsigned level;               // 12
    unsigned mask;                // 16
    unsigned capacity;            // 20, a power of two
    unsigned prodHead;            // 24, free-running reserve index
    unsigned prodTail;            // 28, publish index
    unsigned consHead;            // 32
    unsigned consTail;            // 36
    unsigned long componentMask;  // 40

  private:
    RingHead();
    static const void* sRetired;
    static const void* sLocalBase;
    static unsigned sLocalCapacity;
    // Enqueue, in named steps.
    bool Reserve(unsigned len, unsigned& head, bool noteEmptied);
    void Insert(void* data, unsigned len, bool noteEmptied);
    unsigned Put(void* data, unsigned len, long lockTimeoutNs, bool noteEmptied);
    void CopyIn(unsigned head, const void* data, unsigned len);
    void Publish(unsigned head, unsigned len);
    // Dequeue, in named steps.
    bool ReserveRead(unsigned& head, unsigned& n);
    void CopyOut(unsigned head, void* buf, unsigned n);
    void Release(unsigned head, unsigned n);
};

// RingHead is not standard-layout (it has a vtable); g++ lays it out like the
// plain struct it replaces, which these checks pin down.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(sizeof(RingHead) == 48, "ring header is 48 bytes");
static_assert(offsetof(RingHead, active) == 8);
static_assert(offsetof(RingHead, level) == 12);
static_assert(offsetof(RingHead, mask) == 16);
static_assert(offsetof(RingHead, capacity) == 20);
static_assert(offsetof(RingHead, prodHead) == 24);
static_assert(offsetof(RingHead, prodTail) == 28);
static_assert(offsetof(RingHead, consHead) == 32);
static_assert(offsetof(RingHead, consTail) == 36);
static_assert(offsetof(RingHead, componentMask) == 40);
#pragma GCC diagnostic pop
static_assert(sizeof(unsigned long) == 8, "x86-64 Linux only");

// Size of the segment the reader creates and of the private block.
constexpr unsigned long kSegmentSize = 0x800030;
// A writer waits this long for the ring's lock, and drops its record after.
constexpr long kLockTimeoutNs = 1000000;

}  // namespace PF::Utils::LOG
