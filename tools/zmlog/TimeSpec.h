// The times of --since and --until, as people type them.
#pragma once

#include <cstdint>
#include <string>

namespace PF::Utils::LOG::zmlog {

// Turns text into microseconds since the epoch; false when it is no time.
// Accepted, in local time (the process's time zone; --utc makes it UTC):
//   YYYY-MM-DD[( |T)HH:MM[:SS[.ffffff]]]   a date, at midnight without a time
//   HH:MM[:SS[.ffffff]]                    today at that time
//   now, today, yesterday, tomorrow        (the last three at midnight)
//   -15min, +2h, -1d, -1h30min             relative to now; units us, ms, s,
//                                          m or min, h, d, w (also spelt out)
bool ParseTimeSpec(const std::string& text, std::int64_t nowUs, std::int64_t& us);

// The system clock in microseconds since the epoch.
std::int64_t NowUs();

}  // namespace PF::Utils::LOG::zmlog
