// The slow path a record takes only when something is due (see WriteLog.h,
// GatePasses): a writer's look at the runtime, a loss to report, the
// process's rate limit.
#pragma once

#include <cstdint>

namespace PF::Utils::LOG::detail {

// The next record takes the slow path (a loss to report, a limit set).
void TakeSlowPath();
// The slow path's next due time recomputed from its parts.
void RecomputeSlowPath();
// When a writer next looks whether its runtime was replaced (INT64_MAX:
// never; see RuntimeFollower.cpp).
std::int64_t AttachmentDueUs();
void CheckAttachment(std::int64_t nowUs);

}  // namespace PF::Utils::LOG::detail
