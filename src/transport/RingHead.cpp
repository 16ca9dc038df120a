#include "log/RingHead.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

#include "log/ConfManager.h"
#include "log/Control.h"
#include "transport/MEMManager.h"
#include "transport/SemManager.h"

namespace PF::Utils::LOG {

RingHead* RingHead::instance = nullptr;
char* RingHead::sRing = nullptr;
const void* RingHead::sRetired = nullptr;
const void* RingHead::sLocalBase = nullptr;
void (*RingHead::sOnEmptied)(RingHead*, unsigned) = nullptr;
unsigned RingHead::sLocalCapacity = 0;

namespace {

constexpr unsigned kHeaderSize = 48;

// The fields live in memory shared with other processes: every access is an
// explicit atomic one.
inline unsigned Load(const unsigned& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
inline void Store(unsigned& field, unsigned value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}
inline void FullFence() {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
inline bool Cas(unsigned& field, unsigned expected, unsigned desired) {
    return __atomic_compare_exchange_n(&field, &expected, desired, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
}

}  // namespace

RingHead::RingHead()
    : active(0),
      level(0),
      mask(0),
      capacity(0),
      prodHead(0),
      prodTail(0),
      consHead(0),
      consTail(0),
      componentMask(~0UL) {}

RingHead::~RingHead() {
    if (instance == this) instance = nullptr;
}

void RingHead::Adopt(const void* base, unsigned long size) {
    const unsigned long capacity = size - kHeaderSize;
    const bool usable =
        size > kHeaderSize && capacity <= 0x80000000UL && (capacity & (capacity - 1)) == 0;
    sLocalBase = base;
    sLocalCapacity = usable ? static_cast<unsigned>(capacity) : 0;
}

unsigned RingHead::LocalCapacity() const {
    return this == sLocalBase ? sLocalCapacity : 0;
}

// The header's fields are another process's word: any of them may be wrong.
// Used bytes, a pending reservation and a pending release each fit in the
// ring, or the indices are not what any writer or reader left.
bool RingHead::Sane() {
    const unsigned cap = LocalCapacity();
    if (cap == 0 || Load(capacity) != cap || Load(mask) != cap - 1) return false;
    const unsigned consT = Load(consTail);
    const unsigned consH = Load(consHead);
    const unsigned prodT = Load(prodTail);
    return consH - consT <= cap && prodT - consH <= cap && Load(prodHead) - prodT <= cap &&
           Load(prodHead) - consT <= cap;
}

bool RingHead::Init(void* base, int size, RingHead*& out) {
    // Compared as unsigned on the sign-extended value: a negative size passes.
    if (static_cast<unsigned long>(static_cast<long>(size)) < kHeaderSize) return false;
    if (Retired(base)) __atomic_store_n(&sRetired, nullptr, __ATOMIC_RELEASE);
    Adopt(base, static_cast<unsigned long>(static_cast<long>(size)));
    std::memset(static_cast<char*>(base) + 8, 0, kHeaderSize - 8);
    auto* head = ::new (base) RingHead();  // cppcheck-suppress legacyUninitvar
    head->capacity = static_cast<unsigned>(size) - kHeaderSize;
    head->mask = static_cast<unsigned>(size) - kHeaderSize - 1;
    __atomic_store_n(&out, head, __ATOMIC_RELEASE);  // out may be the pointer others read
    sRing = static_cast<char*>(base) + kHeaderSize;
    FullFence();
    return true;
}

bool RingHead::CheckValid() {
    const unsigned a = Load(active);
    return (a == 0 || a == 1) && Load(level) <= 6 && Load(prodTail) == Load(prodHead) &&
           Load(consTail) == Load(consHead) && Load(capacity) - 1 == Load(mask);
}

unsigned RingHead::Count() {
    return Load(prodTail) - Load(consHead);
}

bool RingHead::Empty() {
    Store(consHead, Load(prodHead));
    FullFence();
    Store(consTail, Load(prodTail));
    FullFence();
    return false;
}

// Producer side: reserve, copy, publish.

bool RingHead::Reserve(unsigned len, unsigned& head, bool noteEmptied) {
    const unsigned m = LocalCapacity() - 1;
    for (int attempt = 0; attempt < 2; ++attempt) {
        head = Load(prodHead);
        unsigned freeBytes = Load(consTail) + m - head;
        if (len > freeBytes) {
            // Full: unread records are thrown away so that the newest win.
            const unsigned discarded = Load(prodTail) - Load(consHead);
            Empty();
            if (noteEmptied && sOnEmptied != nullptr && discarded != 0) sOnEmptied(this, discarded);
            freeBytes = Load(consTail) + m - Load(prodHead);
            if (len > freeBytes) return false;
            continue;
        }
        if (freeBytes > m) return false;  // corrupt indices
        if (Cas(prodHead, head, head + len)) return true;
    }
    return false;
}

// Positions and lengths within this process's own mapping, whatever the
// header says (EnqueueImp checked that len fits).
void RingHead::CopyIn(unsigned head, const void* data, unsigned len) {
    const unsigned cap = LocalCapacity();
    const unsigned pos = head & (cap - 1);
    const unsigned room = cap - pos;
    char* ring = reinterpret_cast<char*>(this) + kHeaderSize;
    const char* src = static_cast<const char*>(data);
    if (room < len) {
        std::memcpy(ring + pos, src, room);
        std::memcpy(ring, src + room, len - room);
    } else {
        std::memcpy(ring + pos, src, len);
    }
}

void RingHead::Publish(unsigned head, unsigned len) {
    // The copy is ordered before the publication by the release store, and
    // the reservation (a locked compare-and-swap) and the lock's own atomic
    // operations order everything else: no further fence is needed here.
    // A producer that lost the race publishes nothing rather than waiting;
    // the ring then stays invalid until ResetShm repairs it.
    if (Load(prodTail) != head) return;
    __atomic_store_n(&prodTail, head + len, __ATOMIC_RELEASE);
}

void RingHead::EnqueueImp(void* data, unsigned len) {
    Insert(data, len, false);
}

void RingHead::Insert(void* data, unsigned len, bool noteEmptied) {
    const unsigned m = Load(mask);
    const unsigned cap = Load(capacity);
    if (!CheckValid() || len > std::min(m, cap) || m + 1 != cap || !Sane()) return;
    unsigned head = 0;
    if (!Reserve(len, head, noteEmptied)) return;
    CopyIn(head, data, len);
    Publish(head, len);
}

unsigned RingHead::Enqueue(void* data, unsigned len) {
    return Put(data, len, kLockTimeoutNs, false);
}

unsigned RingHead::EnqueueWithin(void* data, unsigned len, long lockTimeoutNs) {
    return Put(data, len, lockTimeoutNs, true);
}

// The ring is looked at only under the lock, after checking that it is not
// being released: a host thread may still log while the library unloads.
unsigned RingHead::Put(void* data, unsigned len, long lockTimeoutNs, bool noteEmptied) {
    if (len == 0) return 0;
    if (ConfManager::outputMode) {  // UP environment: the process mutex is the lock
        std::lock_guard<std::mutex> lock(MEMManager::mMutex);
        if (Retired() || len > Load(mask)) return 0;
        Insert(data, len, noteEmptied);
        return len;
    }
    sem_t* taken = SemManager::TimedLock(lockTimeoutNs);
    if (taken == nullptr) return 0;  // dropped in silence
    unsigned accepted = 0;
    // Nothing into a ring being given up, nor under a lock that is no longer
    // the ring's (a re-attach replaced it meanwhile).
    if (!Retired() && taken == SemManager::Current() && len <= Load(mask)) {
        Insert(data, len, noteEmptied);
        // len even when the record was dropped: callers never learn of drops.
        accepted = len;
    }
    SemManager::Unlock(taken);
    return accepted;
}

void RingHead::Retire(const void* base) {
    if (IsUPEnvironment()) {
        std::lock_guard<std::mutex> lock(MEMManager::mMutex);
        __atomic_store_n(&sRetired, base, __ATOMIC_RELEASE);
        return;
    }
    // Under the lock, so a writer copying right now finishes first (bounded
    // like any writer's wait).
    sem_t* taken = SemManager::TimedLock(kLockTimeoutNs);
    __atomic_store_n(&sRetired, base, __ATOMIC_RELEASE);
    if (taken != nullptr) SemManager::Unlock(taken);
}

void RingHead::Unretire(const void* base) {
    if (Retired(base)) __atomic_store_n(&sRetired, nullptr, __ATOMIC_RELEASE);
}

// Consumer side: reserve, copy, release.

bool RingHead::ReserveRead(unsigned& head, unsigned& n) {
    const unsigned cap = LocalCapacity();
    for (int attempt = 0; attempt < 2; ++attempt) {
        head = Load(consHead);
        n = Load(prodTail) - head;
        if (n == 0 || n > cap) return false;
        if (Cas(consHead, head, head + n)) return true;
    }
    return false;
}

void RingHead::CopyOut(unsigned head, void* buf, unsigned n) {
    const unsigned cap = LocalCapacity();
    const unsigned pos = head & (cap - 1);
    const unsigned first = std::min(n, cap - pos);
    const char* ring = reinterpret_cast<const char*>(this) + kHeaderSize;
    char* dst = static_cast<char*>(buf);
    std::memcpy(dst, ring + pos, first);
    if (first < n) std::memcpy(dst + first, ring, n - first);
}

void RingHead::Release(unsigned head, unsigned n) {
    FullFence();
    if (Load(consTail) == head) {
        Store(consTail, head + n);
        FullFence();
    }
}

// The consumer always takes everything published: buf must hold capacity
// bytes, len is not consulted.
unsigned RingHead::DequeueImp(void* buf, unsigned /*len*/) {
    if (!CheckValid() || Load(mask) + 1 != Load(capacity) || !Sane()) return 0;
    unsigned head = 0;
    unsigned n = 0;
    if (!ReserveRead(head, n)) return 0;
    CopyOut(head, buf, n);
    Release(head, n);
    return n;
}

unsigned RingHead::Dequeue(void* buf, unsigned len) {
    if (IsUPEnvironment()) {
        std::lock_guard<std::mutex> lock(MEMManager::mMutex);
        return DequeueImp(buf, len);
    }
    sem_t* taken = SemManager::TimedLock(kLockTimeoutNs);
    if (taken == nullptr) return 0;
    const unsigned n = !Retired() && taken == SemManager::Current() ? DequeueImp(buf, len) : 0;
    SemManager::Unlock(taken);
    return n;
}

namespace {
template <class T>
bool SetUnderLock(T& field, T value) {
    if (SemManager::sem == nullptr) return false;
    sem_t* taken = SemManager::TimedLock(kLockTimeoutNs);
    if (taken == nullptr) return false;
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
    FullFence();
    SemManager::Unlock(taken);
    return true;
}
}  // namespace

bool RingHead::SetActive(unsigned value) {
    return SetUnderLock(active, value);
}
bool RingHead::SetLevel(unsigned value) {
    return SetUnderLock(level, value);
}
bool RingHead::SetComponentMask(unsigned long value) {
    return SetUnderLock(componentMask, value);
}

}  // namespace PF::Utils::LOG
