#include "TimeSpec.h"

#include <cctype>
#include <chrono>
#include <ctime>
#include <limits>

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr std::int64_t kSecondUs = 1000000;

struct Unit {
    const char* name;
    std::int64_t us;
};
constexpr Unit kUnits[] = {
    {"us", 1},
    {"usec", 1},
    {"ms", 1000},
    {"msec", 1000},
    {"s", kSecondUs},
    {"sec", kSecondUs},
    {"second", kSecondUs},
    {"seconds", kSecondUs},
    {"m", 60 * kSecondUs},
    {"min", 60 * kSecondUs},
    {"minute", 60 * kSecondUs},
    {"minutes", 60 * kSecondUs},
    {"h", 3600 * kSecondUs},
    {"hour", 3600 * kSecondUs},
    {"hours", 3600 * kSecondUs},
    {"d", 86400 * kSecondUs},
    {"day", 86400 * kSecondUs},
    {"days", 86400 * kSecondUs},
    {"w", 7 * 86400 * kSecondUs},
    {"week", 7 * 86400 * kSecondUs},
    {"weeks", 7 * 86400 * kSecondUs},
};

bool Digits(const char*& p, int count, int& value) {
    value = 0;
    for (int i = 0; i < count; ++i, ++p) {
        if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
        value = value * 10 + (*p - '0');
    }
    return true;
}

bool Literal(const char*& p, char c) {
    if (*p != c) return false;
    ++p;
    return true;
}

// "HH:MM[:SS[.ffffff]]" at p, up to the end of the text.
bool ClockTime(const char* p, std::tm& tm, long& fraction) {
    fraction = 0;
    tm.tm_sec = 0;
    if (!Digits(p, 2, tm.tm_hour) || !Literal(p, ':') || !Digits(p, 2, tm.tm_min)) return false;
    if (Literal(p, ':')) {
        if (!Digits(p, 2, tm.tm_sec)) return false;
        if (Literal(p, '.')) {
            int digits = 0;
            for (; std::isdigit(static_cast<unsigned char>(*p)) && digits < 6; ++p, ++digits) {
                fraction = fraction * 10 + (*p - '0');
            }
            if (digits == 0) return false;
            for (; digits < 6; ++digits) fraction *= 10;
        }
    }
    return *p == '\0' && tm.tm_hour <= 23 && tm.tm_min <= 59 && tm.tm_sec <= 60;
}

// Local calendar fields to microseconds; false for a day the month lacks.
bool FromLocal(std::tm tm, long fraction, std::int64_t& us) {
    const int day = tm.tm_mday;
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    if (tm.tm_mday != day) return false;  // 31 April and the like were normalised
    us = static_cast<std::int64_t>(t) * kSecondUs + fraction;
    return true;
}

std::tm LocalDay(std::int64_t nowUs, int dayOffset) {
    const std::time_t now = static_cast<std::time_t>(nowUs / kSecondUs);
    std::tm tm{};
    localtime_r(&now, &tm);
    tm.tm_mday += dayOffset;
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
    tm.tm_isdst = -1;
    std::mktime(&tm);  // normalises the day across month ends
    return tm;
}

// "-15min", "+1h30min": sign, then number and unit pairs.
bool Relative(const char* p, std::int64_t nowUs, std::int64_t& us) {
    const bool minus = *p == '-';
    ++p;
    if (*p == '\0') return false;
    std::int64_t total = 0;
    while (*p != '\0') {
        if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
        std::int64_t n = 0;
        for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
            if (n > (std::numeric_limits<std::int64_t>::max() - 9) / 10) return false;
            n = n * 10 + (*p - '0');
        }
        const char* unit = p;
        while (std::isalpha(static_cast<unsigned char>(*p))) ++p;
        const std::string name(unit, p);
        const Unit* found = nullptr;
        for (const Unit& u : kUnits) {
            if (name == u.name) found = &u;
        }
        if (found == nullptr || n > (std::numeric_limits<std::int64_t>::max() - total) / found->us)
            return false;
        total += n * found->us;
    }
    us = minus ? nowUs - total : nowUs + total;
    return true;
}

}  // namespace

bool ParseTimeSpec(const std::string& text, std::int64_t nowUs, std::int64_t& us) {
    if (text == "now") {
        us = nowUs;
        return true;
    }
    const std::pair<const char*, int> days[] = {{"today", 0}, {"yesterday", -1}, {"tomorrow", 1}};
    for (const auto& [name, offset] : days) {
        if (text == name) return FromLocal(LocalDay(nowUs, offset), 0, us);
    }
    const char* p = text.c_str();
    if (*p == '-' || *p == '+') return Relative(p, nowUs, us);

    long fraction = 0;
    if (text.size() >= 3 && text[2] == ':') {
        std::tm tm = LocalDay(nowUs, 0);
        return ClockTime(p, tm, fraction) && FromLocal(tm, fraction, us);
    }
    std::tm tm{};
    if (!Digits(p, 4, tm.tm_year) || !Literal(p, '-') || !Digits(p, 2, tm.tm_mon) ||
        !Literal(p, '-') || !Digits(p, 2, tm.tm_mday)) {
        return false;
    }
    if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31) return false;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    if (*p == ' ' || *p == 'T') {
        if (!ClockTime(p + 1, tm, fraction)) return false;
    } else if (*p != '\0') {
        return false;
    }
    return FromLocal(tm, fraction, us);
}

std::int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace PF::Utils::LOG::zmlog
