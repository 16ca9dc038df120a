// A writer follows the runtime by itself: when the runtime it attached to is
// gone and a new one is up (each runtime start creates "/WriteLOG" anew), it
// attaches to the new one. It looks at most every 100 ms, on a record's time
// stamp, and at once when a write could not get the lock, which is what a
// writer of the old runtime meets first: the new runtime holds the old lock
// for good (SemManager::HoldPreviousLock). A failed attach is tried again at
// the next look, never in a loop.
#include <time.h>

#include <atomic>
#include <climits>
#include <cstdint>

#include "lifecycle/ProcessRoles.h"
#include "lifecycle/RuntimeFollower.h"
#include "log/WriteLog.h"
#include "transport/SemManager.h"
#include "writer/RecordGate.h"

namespace PF::Utils::LOG {

namespace {

std::int64_t gAttachmentDueUs = INT64_MAX;

constexpr std::int64_t kLookEveryUs = 100000;
std::atomic<bool> gFollowing{false};
std::atomic<std::int64_t> gFollowedAtUs{0};  // when a follow last succeeded

// One thread at a time; the others go on writing meanwhile.
bool Follow() {
    if (gFollowing.exchange(true)) return false;
    const bool followed = !SemManager::OpenedLockIsCurrent() && InitWriteProcess();
    if (followed) gFollowedAtUs.store(detail::NowUs());
    gFollowing.store(false);
    return followed;
}

}  // namespace

void FollowTheRuntime(bool follow) {
    __atomic_store_n(&gAttachmentDueUs, follow ? detail::NowUs() + kLookEveryUs : INT64_MAX,
                     __ATOMIC_RELAXED);
    detail::RecomputeSlowPath();
}

namespace detail {

std::int64_t AttachmentDueUs() {
    return __atomic_load_n(&gAttachmentDueUs, __ATOMIC_RELAXED);
}

void CheckAttachment(std::int64_t nowUs) {
    std::int64_t due = AttachmentDueUs();
    if (nowUs < due || due == INT64_MAX) return;
    if (!__atomic_compare_exchange_n(&gAttachmentDueUs, &due, nowUs + kLookEveryUs, false,
                                     __ATOMIC_RELAXED, __ATOMIC_RELAXED))
        return;  // another thread looks
    SemManager::CloseRetired(nowUs);
    Follow();
}

bool FollowedNewRuntime(std::int64_t timeUs) {
    if (AttachmentDueUs() == INT64_MAX) return false;
    // Another thread of this process may be following right now: its result
    // serves this record too.
    for (int waited = 0; gFollowing.load() && waited < 200; ++waited) {
        timespec pause{0, 100000};
        nanosleep(&pause, nullptr);
    }
    return Follow() || gFollowedAtUs.load() >= timeUs;
}

}  // namespace detail
}  // namespace PF::Utils::LOG
