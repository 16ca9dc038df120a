#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "common/Immortal.h"
#include "log/Decode.h"

namespace PF::Utils::LOG {
namespace {

using LevelMap = std::map<int, std::string>;

ZMLOG_IMMORTAL detail::Immortal<LevelMap> sLevelMap(LevelMap{{0, "TRACE"},
                                                             {1, "DEBUG"},
                                                             {2, "INFO"},
                                                             {3, "WARN"},
                                                             {4, "ERROR"},
                                                             {5, "FATAL"},
                                                             {6, "Record"}});

ZMLOG_IMMORTAL detail::Immortal<LogLineFormatter> sParseLogFunction(&ParseLogLineMillSecond);

bool NoZeroByte(const std::string& s) {
    return std::memchr(s.data(), 0, s.size()) == nullptr;
}

char* PutDigits(char* out, unsigned long value, int width) {
    for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
    return out + width;
}

char* Put(char* out, const std::string& s) {
    std::memcpy(out, s.data(), s.size());
    return out + s.size();
}

// The line is printed into a buffer sized from the texts plus `fixed` (the
// format's characters at minimum widths and the terminator), and its last
// character is dropped. A longer date (year above 9999) is thus cut short,
// and a text stopped early by a zero byte leaves zero bytes at the end: both
// kept as they are.
std::string FormatLine(LogHead& head, const std::string& function, const std::string& tag,
                       const std::string& content, const char* format, std::uint32_t fixed,
                       int fractionDigits) {
    // The inserting subscript on purpose: level 7 gets an empty row and name.
    const std::string& levelName = gLevelMap[head.flags & 7];
    char threadId[16];
    char* const threadIdEnd =
        std::to_chars(threadId, threadId + sizeof threadId - 1, head.threadId).ptr;
    *threadIdEnd = '\0';
    const auto threadIdLen = static_cast<std::size_t>(threadIdEnd - threadId);
    Timestamp::ResetTime(static_cast<unsigned long>(head.timeUs));

    const std::size_t exact =
        levelName.size() + threadIdLen + content.size() + tag.size() + function.size() + fixed;
    const auto n = static_cast<int>(static_cast<std::uint32_t>(exact));
    if (n <= 0) return std::string();
    const Timestamp& t = Timestamp::instance;
    const long fraction = fractionDigits == 3 ? t.milliseconds : t.microseconds;

    // Common case, built directly: every field at its minimum width and no
    // zero byte in any text, so the text is exactly n - 1 characters long and
    // equals what the format prints.
    const auto within = [](long v, long max) { return v >= 0 && v <= max; };
    if (static_cast<std::size_t>(n) == exact && within(t.year, 9999) && within(t.month, 99) &&
        within(t.day, 99) && within(t.hour, 99) && within(t.minute, 99) && within(t.second, 99) &&
        within(fraction, fractionDigits == 3 ? 999 : 999999) && NoZeroByte(levelName) &&
        NoZeroByte(function) && NoZeroByte(tag) && NoZeroByte(content)) {
        std::string line(exact - 1, '\0');
        char* p = PutDigits(line.data(), static_cast<unsigned long>(t.year), 4);
        *p++ = '-';
        p = PutDigits(p, static_cast<unsigned long>(t.month), 2);
        *p++ = '-';
        p = PutDigits(p, static_cast<unsigned long>(t.day), 2);
        *p++ = ' ';
        p = PutDigits(p, static_cast<unsigned long>(t.hour), 2);
        *p++ = ':';
        p = PutDigits(p, static_cast<unsigned long>(t.minute), 2);
        *p++ = ':';
        p = PutDigits(p, static_cast<unsigned long>(t.second), 2);
        *p++ = '.';
        p = PutDigits(p, static_cast<unsigned long>(fraction), fractionDigits);
        *p++ = '|';
        std::memcpy(p, threadId, threadIdLen);
        p += threadIdLen;
        *p++ = '|';
        p = Put(p, levelName);
        *p++ = '|';
        p = Put(p, function);
        *p++ = '|';
        Put(Put(p, tag), content);
        return line;
    }

    std::string line(static_cast<std::size_t>(n), '\0');
    std::snprintf(line.data(), line.size(), format, t.year, t.month, t.day, t.hour, t.minute,
                  t.second, fraction, threadId, levelName.c_str(), function.c_str(), tag.c_str(),
                  content.c_str());
    line.resize(line.size() - 1);
    return line;
}

}  // namespace

std::map<int, std::string>& gLevelMap = ZMLOG_IMMORTAL_OBJECT(LevelMap, sLevelMap);
LogLineFormatter& gParseLogFunction = ZMLOG_IMMORTAL_OBJECT(LogLineFormatter, sParseLogFunction);

std::string ParseLogLineMillSecond(LogHead& head, std::string& function, std::string& tag,
                                   std::string& content) {
    return FormatLine(head, function, tag, content,
                      "%04d-%02d-%02d %02d:%02d:%02d.%03ld|%s|%s|%s|%s%s", 28, 3);
}

std::string ParseLogLineMicroSecond(LogHead& head, std::string& function, std::string& tag,
                                    std::string& content) {
    return FormatLine(head, function, tag, content,
                      "%04d-%02d-%02d %02d:%02d:%02d.%06ld|%s|%s|%s|%s%s", 31, 6);
}

}  // namespace PF::Utils::LOG
