// A process's own rate limit ("rateLimitBurst" records per
// "rateLimitIntervalMs" in RUNTIMELOG.cfg): a process that floods the log
// loses its own records (counted, reported), not everyone else's.
#pragma once

#include <cstdint>

namespace PF::Utils::LOG::detail {

// burst records per intervalMs; 0 for either: no limit.
void SetProcessRateLimit(unsigned long burst, long intervalMs);
// The limit the configuration's keys set (none when absent).
void ApplyRateLimitKeys();
bool ProcessLimitOn();
// Lock-free: a few loads and one atomic add.
bool AdmitUnderProcessLimit(std::int64_t timeUs);

}  // namespace PF::Utils::LOG::detail
