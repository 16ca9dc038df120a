#include <ctime>

#include "decode/CalendarLock.h"
#include "log/Decode.h"

namespace PF::Utils::LOG {

std::mutex& CalendarLock() {
    static std::mutex lock;
    return lock;
}

// Starts at second 0 with a zero calendar: a time below one second after the
// epoch on a fresh process prints the zero date, as it always has.
Timestamp Timestamp::instance{};

void Timestamp::ResetTime(unsigned long timeUs) {
    Timestamp& t = instance;
    const auto second = static_cast<long>(static_cast<double>(timeUs) / 1000000.0);
    const auto signedUs = static_cast<long>(timeUs);
    t.milliseconds = signedUs / 1000 % 1000;
    t.microseconds = signedUs % 1000000;
    if (second == t.cachedSecond) return;

    // localtime() rather than localtime_r(): it re-reads TZ on every call,
    // and it runs only once per second of log time.
    const std::time_t when = second;
    std::lock_guard<std::mutex> calendar(CalendarLock());
    const std::tm* tm = std::localtime(&when);
    if (tm == nullptr) return;  // out of range: keep the last calendar, retry next time
    t.year = tm->tm_year + 1900;
    t.month = tm->tm_mon + 1;
    t.day = tm->tm_mday;
    t.hour = tm->tm_hour;
    t.minute = tm->tm_min;
    t.second = tm->tm_sec;
    t.cachedSecond = second;
}

}  // namespace PF::Utils::LOG
