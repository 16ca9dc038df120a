#include "LocalClock.h"

#include <cstdio>
#include <cstdlib>

namespace PF::Utils::LOG::zmlog {

void LocalClock::Load(std::int64_t second) {
    if (second == cachedSecond_) return;
    cachedSecond_ = second;
    const std::time_t when = static_cast<std::time_t>(second);
    std::tm tm{};
    if (localtime_r(&when, &tm) == nullptr && gmtime_r(&when, &tm) == nullptr) tm = std::tm{};
    std::snprintf(date_, sizeof date_, "%04d-%02d-%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday);
    std::snprintf(clock_, sizeof clock_, "%02d:%02d:%02d", tm.tm_hour, tm.tm_min, tm.tm_sec);
    const long off = tm.tm_gmtoff;
    const long absOff = std::labs(off);
    std::snprintf(offset_, sizeof offset_, "%c%02d:%02d", off < 0 ? '-' : '+',
                  static_cast<int>(absOff / 3600 % 100), static_cast<int>(absOff / 60 % 60));
}

void LocalClock::Append(std::int64_t timeUs, bool iso, std::string& out) {
    std::int64_t second = timeUs / 1000000;
    std::int64_t fraction = timeUs % 1000000;
    if (fraction < 0) {
        fraction += 1000000;
        second -= 1;
    }
    Load(second);
    char micro[8];
    std::snprintf(micro, sizeof micro, ".%06ld", static_cast<long>(fraction));
    out.append(date_).append(1, iso ? 'T' : ' ').append(clock_).append(micro);
    if (iso) out.append(offset_);
}

}  // namespace PF::Utils::LOG::zmlog
