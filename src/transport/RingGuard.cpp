#include "transport/RingGuard.h"

#include <string_view>

#include "log/ConfManager.h"
#include "log/RingHead.h"
#include "log/WriteLog.h"
#include "transport/SemManager.h"
#include "writer/LibraryNotice.h"

namespace PF::Utils::LOG {

namespace {

unsigned Load(const unsigned& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
void Store(unsigned& field, unsigned value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

bool SwitchesInRange(const RingHead* ring) {
    return ring->LoadActive() <= 1 && ring->LoadLevel() <= 6;
}

}  // namespace

unsigned RingGuard::Drain(RingHead* ring, char* buf, unsigned len) {
    sem_t* lock = SemManager::TimedLock(kLockTimeoutNs);
    if (lock == nullptr) {
        if (++lockMissed_ < kRepairAfterTicks) return 0;
        // Taken by a process that died with it (or was stopped while it held
        // it): after a second this tick takes the lock over from its holder.
        lockMissed_ = 0;
        lock = SemManager::Current();
        if (lock == nullptr) return 0;
        if (!ring->Retired()) Repair(ring, "its lock stayed taken for a second");
    }
    lockMissed_ = 0;
    unsigned n = 0;
    if (lock == SemManager::Current() && !ring->Retired()) {
        Inspect(ring, lock);
        n = ring->DequeueImp(buf, len);
    }
    SemManager::Unlock(lock);
    return n;
}

// With the lock held. Between two writers' records the header has no open
// reservation or read, its geometry is what this process mapped, and the
// lock has no second free count: anything else that lasts is a fault.
void RingGuard::Inspect(RingHead* ring, sem_t* lock) {
    const bool damaged = !ring->Sane() || !SwitchesInRange(ring);
    damaged_ = damaged ? damaged_ + 1 : 0;
    if (damaged_ >= kRepairAfterTicks) {
        damaged_ = 0;
        return Repair(ring, "its header was damaged");
    }
    const unsigned indices[4] = {Load(ring->prodHead), Load(ring->prodTail), Load(ring->consHead),
                                 Load(ring->consTail)};
    const bool open = !damaged && (indices[0] != indices[1] || indices[2] != indices[3]);
    bool same = true;
    for (int i = 0; i < 4; ++i) {
        same = same && indices[i] == lastIndices_[i];
        lastIndices_[i] = indices[i];
    }
    unpublished_ = open ? (same ? unpublished_ + 1 : 1) : 0;
    if (unpublished_ >= kRepairAfterTicks) {
        unpublished_ = 0;
        return Repair(ring, "a reservation stayed unpublished for a second");
    }
    int value = 0;
    const bool extra = sem_getvalue(lock, &value) == 0 && value > 0;
    extraPosts_ = extra ? extraPosts_ + 1 : 0;
    if (extraPosts_ >= kRepairAfterTicks) {
        extraPosts_ = 0;
        // The surplus is taken here; the drain's unlock leaves the lock free
        // once, as it must be.
        while (sem_trywait(lock) == 0) {
        }
        Repair(ring, "its lock was free more than once");
    }
}

// With the lock held (or taken over). Published records are whole and stay
// for the drain: only what a writer reserved and never finished is dropped,
// unless the header's indices make no sense, when every unread byte goes.
// The geometry is put back to what this process mapped, and the switches to
// what the runtime's configuration says.
void RingGuard::Repair(RingHead* ring, const char* what) {
    const unsigned capacity = ring->LocalCapacity();
    if (capacity == 0) return;  // not the ring this process mapped: not ours to mend
    const bool sane = ring->Sane();
    unsigned unfinished = 0;
    if (sane) {
        unfinished = Load(ring->prodHead) - Load(ring->prodTail);
        Store(ring->prodHead, Load(ring->prodTail));
        Store(ring->consHead, Load(ring->consTail));
    } else {
        const unsigned at = Load(ring->consTail) & (capacity - 1);
        Store(ring->capacity, capacity);
        Store(ring->mask, capacity - 1);
        for (unsigned* index : {&ring->prodHead, &ring->prodTail, &ring->consHead, &ring->consTail})
            Store(*index, at);
    }
    Store(ring->active, 1U);
    Store(ring->level, ConfManager::logLevel <= 6 ? ConfManager::logLevel : 2U);
    __atomic_store_n(&ring->componentMask, ConfManager::sALLMask, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    damaged_ = 0;
    unpublished_ = 0;

    char text[192];
    char* out = text;
    const auto append = [&out, &text](std::string_view part) {
        for (char c : part)
            if (out < text + sizeof text) *out++ = c;
    };
    append("repaired the shared ring: ");
    append(what);
    if (!sane) {
        append("; its unread records discarded");
    } else if (unfinished != 0) {
        char number[24];
        append("; ");
        append(std::string_view(number, detail::AppendNumber(number, unfinished) - number));
        append(" bytes of an unfinished record discarded");
    }
    detail::EnqueueNoticeLocked(
        ring, {"RingGuard", "zmlog", std::string_view(text, out - text), detail::NowUs(), kWarn});
}

}  // namespace PF::Utils::LOG
