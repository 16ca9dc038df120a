#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "log/Decode.h"
#include "support/TestSupport.h"

using namespace PF::Utils::LOG;

namespace {

constexpr long long kT = 1700000000123456LL;  // 2023-11-14 22:13:20.123456 UTC

// The line of a record by function "f" of thread 4711.
std::string Line(const LogLineFormatter& format, unsigned short flags, long long timeUs,
                 std::string tag = "", std::string content = "", std::string function = "f") {
    LogHead h{flags, 0, 0, 0, 0, 0, 4711, 0, timeUs};
    return format(h, function, tag, content);
}

// Every test starts from a fresh calendar cache in UTC.
class LogLine : public ::testing::Test {
  protected:
    void SetUp() override { Use("UTC"); }
    void TearDown() override { Use(savedTz_ ? savedTz_->c_str() : nullptr); }
    static void Use(const char* tz) {
        tz != nullptr ? setenv("TZ", tz, 1) : unsetenv("TZ");
        tzset();
        Timestamp::instance = {};
    }
    const std::optional<std::string> savedTz_ =
        std::getenv("TZ") != nullptr ? std::optional<std::string>(std::getenv("TZ")) : std::nullopt;
};

}  // namespace

TEST_F(LogLine, BothFormattersJoinTagAndContentAndKeepZeroBytes) {
    EXPECT_EQ(Line(ParseLogLineMillSecond, 2, kT, "net", "link up"),
              "2023-11-14 22:13:20.123|4711|INFO|f|netlink up");
    EXPECT_EQ(Line(ParseLogLineMicroSecond, 2, kT, "net", "link up"),
              "2023-11-14 22:13:20.123456|4711|INFO|f|netlink up");
    // A second back: the calendar is converted again.
    EXPECT_EQ(Line(ParseLogLineMillSecond, 2, kT - 1000000, "", std::string("ab\0cd", 5)),
              std::string("2023-11-14 22:13:19.123|4711|INFO|f|ab\0\0\0", 41));
}

TEST_F(LogLine, LevelNamesIgnoreTheBinaryFlagAndLevelSevenIsEmpty) {
    const char* names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "Record", ""};
    for (unsigned short level = 0; level < 8; ++level) {  // a second later each
        EXPECT_EQ(
            Line(ParseLogLineMillSecond, level | kBinaryFlag, kT + level * 1000000LL),
            "2023-11-14 22:13:2" + std::to_string(level) + ".123|4711|" + names[level] + "|f|");
    }
}

TEST_F(LogLine, FreshCachePrintsTheZeroDateBelowOneSecond) {
    EXPECT_EQ(Line(ParseLogLineMillSecond, 2, 999), "0000-00-00 00:00:00.000|4711|INFO|f|");
    EXPECT_EQ(Line(ParseLogLineMicroSecond, 2, 999), "0000-00-00 00:00:00.000999|4711|INFO|f|");
}

TEST_F(LogLine, RecordsAreRenderedByTheFormatterInForce) {
    std::string rec =
        zmtest::MakeRecord("fn", "CellEmulation", "t", std::string("*\0\0\0", 4), 3, 8);
    LogHead head;
    std::memcpy(&head, rec.data(), sizeof head);
    unsigned long offset = 32;
    std::string program;
    const LogLineFormatter saved = gParseLogFunction;
    gParseLogFunction = ParseLogLineMicroSecond;
    const std::string line = ContructLogLine(head, rec.data(), offset, program);
    gParseLogFunction = saved;
    EXPECT_EQ(line, "2023-11-14 22:13:20.123456|4711|WARN|fn|t42");  // typed value rendered
}
