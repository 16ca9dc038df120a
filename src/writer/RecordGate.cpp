#include "writer/RecordGate.h"

#include <climits>

#include "log/WriteLog.h"
#include "writer/LossReport.h"
#include "writer/RateLimit.h"

namespace PF::Utils::LOG::detail {

std::int64_t gSlowPathFromUs = INT64_MAX;

void TakeSlowPath() {
    __atomic_store_n(&gSlowPathFromUs, INT64_MIN, __ATOMIC_RELAXED);
}

void RecomputeSlowPath() {
    const bool always = ProcessLimitOn() || LossesPending();
    __atomic_store_n(&gSlowPathFromUs, always ? INT64_MIN : AttachmentDueUs(), __ATOMIC_RELAXED);
    // A loss counted while this ran must not wait for the next look.
    if (LossesPending()) TakeSlowPath();
}

bool PassGate(std::int64_t timeUs) {
    if (ProcessLimitOn() && !AdmitUnderProcessLimit(timeUs)) {
        CountLoss(Loss::kRateLimited, timeUs);
        return false;
    }
    // The notice goes in before the record that gets through, if the lock is
    // free at once: a busy lock must not hold the writer up twice.
    if (LossesPending()) ReportLosses(timeUs, 0);
    if (timeUs >= AttachmentDueUs()) CheckAttachment(timeUs);
    RecomputeSlowPath();
    return true;
}

}  // namespace PF::Utils::LOG::detail
