#include "LocalClock.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace PF::Utils::LOG::zmlog {
namespace {

void AppendFraction(std::int64_t micro, int digits, std::string& out) {
    char text[8];
    text[0] = '.';
    for (int i = 6; i >= 1; --i, micro /= 10) text[i] = static_cast<char>('0' + micro % 10);
    out.append(text, 1 + static_cast<std::size_t>(digits));
}

}  // namespace

std::int64_t LocalClock::Load(std::int64_t timeUs) {
    std::int64_t second = timeUs / 1000000;
    std::int64_t fraction = timeUs % 1000000;
    if (fraction < 0) {
        fraction += 1000000;
        second -= 1;
    }
    if (second == cachedSecond_) return fraction;
    cachedSecond_ = second;
    const std::time_t when = static_cast<std::time_t>(second);
    std::tm tm{};
    if (localtime_r(&when, &tm) == nullptr && gmtime_r(&when, &tm) == nullptr) tm = std::tm{};
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    plain_ = text;
    iso_ = plain_;
    iso_[iso_.find(' ')] = 'T';
    const long off = tm.tm_gmtoff;
    const long absOff = std::labs(off);
    std::snprintf(text, sizeof text, "%c%02d:%02d", off < 0 ? '-' : '+',
                  static_cast<int>(absOff / 3600 % 100), static_cast<int>(absOff / 60 % 60));
    offset_ = text;
    return fraction;
}

void LocalClock::AppendIso(std::int64_t timeUs, std::string& out) {
    const std::int64_t fraction = Load(timeUs);
    out.append(iso_);
    AppendFraction(fraction, 6, out);
    out.append(offset_);
}

void LocalClock::AppendPlain(std::int64_t timeUs, std::string& out, int digits) {
    char text[32];
    out.append(text, WritePlain(timeUs, text, digits));
}

char* LocalClock::WritePlain(std::int64_t timeUs, char* at, int digits) {
    std::int64_t fraction = Load(timeUs);
    at = std::copy(plain_.begin(), plain_.end(), at);
    *at = '.';
    for (int i = 6; i >= 1; --i, fraction /= 10) {
        if (i <= digits) at[i] = static_cast<char>('0' + fraction % 10);
    }
    return at + 1 + digits;
}

}  // namespace PF::Utils::LOG::zmlog
