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

LogHead Head(unsigned short flags, long long timeUs, unsigned threadId = 4711) {
    LogHead h{};
    h.flags = flags;
    h.threadId = threadId;
    h.timeUs = timeUs;
    return h;
}

std::string Milli(LogHead h, std::string function, std::string tag, std::string content) {
    return ParseLogLineMillSecond(h, function, tag, content);
}

std::string Micro(LogHead h, std::string function, std::string tag, std::string content) {
    return ParseLogLineMicroSecond(h, function, tag, content);
}

void SetTz(const char* tz) {
    if (tz != nullptr) setenv("TZ", tz, 1);
    if (tz == nullptr) unsetenv("TZ");
    tzset();
}

// Every test starts from a fresh calendar cache in UTC.
class LogLine : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        savedTz_ = tz != nullptr ? std::optional<std::string>(tz) : std::nullopt;
        SetTz("UTC");
        Timestamp::instance = {};
    }
    void TearDown() override {
        SetTz(savedTz_ ? savedTz_->c_str() : nullptr);
        Timestamp::instance = {};
    }

  private:
    std::optional<std::string> savedTz_;
};

}  // namespace

TEST_F(LogLine, BothFormattersJoinTagAndContent) {
    EXPECT_EQ(Milli(Head(2, kT), "main", "net", "link up"),
              "2023-11-14 22:13:20.123|4711|INFO|main|netlink up");
    EXPECT_EQ(Micro(Head(2, kT), "main", "net", "link up"),
              "2023-11-14 22:13:20.123456|4711|INFO|main|netlink up");
    EXPECT_EQ(Milli(Head(2, kT, 0), "", "", ""), "2023-11-14 22:13:20.123|0|INFO||");
}

TEST_F(LogLine, LevelNamesIgnoreTheBinaryFlagAndLevelSevenIsEmpty) {
    const char* names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "Record"};
    for (unsigned short level = 0; level < 7; ++level) {
        EXPECT_EQ(Milli(Head(level, kT, 1), "f", "", ""),
                  std::string("2023-11-14 22:13:20.123|1|") + names[level] + "|f|");
    }
    EXPECT_EQ(Milli(Head(0x000A, kT, 1), "f", "", ""), "2023-11-14 22:13:20.123|1|INFO|f|");
    EXPECT_EQ(Milli(Head(0x0007, kT, 1), "f", "", ""), "2023-11-14 22:13:20.123|1||f|");
    ASSERT_EQ(gLevelMap.count(7), 1U);
    EXPECT_EQ(gLevelMap[7], "");
}

TEST_F(LogLine, FreshCachePrintsTheZeroDateBelowOneSecond) {
    EXPECT_EQ(Milli(Head(2, 999), "f", "", ""), "0000-00-00 00:00:00.000|4711|INFO|f|");
    EXPECT_EQ(Micro(Head(2, 999), "f", "", ""), "0000-00-00 00:00:00.000999|4711|INFO|f|");
}

TEST_F(LogLine, CalendarIsConvertedOncePerSecondInEitherDirection) {
    EXPECT_EQ(Milli(Head(2, kT), "f", "", "").substr(0, 23), "2023-11-14 22:13:20.123");
    // A new zone is only seen when the second changes.
    SetTz("UTC-2");
    EXPECT_EQ(Milli(Head(2, kT + 500000), "f", "", "").substr(0, 23), "2023-11-14 22:13:20.623");
    EXPECT_EQ(Milli(Head(2, kT + 1000000), "f", "", "").substr(0, 23), "2023-11-15 00:13:21.123");
    EXPECT_EQ(Milli(Head(2, kT - 1000000), "f", "", "").substr(0, 23), "2023-11-15 00:13:19.123");
}

TEST_F(LogLine, FixedSizeBufferCutsLongYearsAndKeepsZeroBytes) {
    const long long year10000 = 253402300800000000LL;
    EXPECT_EQ(Milli(Head(2, year10000, 1), "f", "t", "ab"), "10000-01-01 00:00:00.000|1|INFO|f|ta");
    EXPECT_EQ(Milli(Head(2, kT, 1), "f", "", std::string("ab\0cd", 5)),
              std::string("2023-11-14 22:13:20.123|1|INFO|f|ab\0\0\0", 38));
}

TEST_F(LogLine, ContructLogLineCutsTheBodyAndCallsTheHook) {
    std::string rec =
        zmtest::MakeRecord("main", "ZMRuntime", "net", "link up") +
        zmtest::MakeRecord("fn", "CellEmulation", "t", std::string("\x2a\0\0\0", 4), 3, 8) +
        zmtest::MakeRecord("fn", "BusBridge", "t", "dropped", 2, 14);
    LogHead head;
    std::memcpy(&head, rec.data(), sizeof head);
    unsigned long offset = 32;
    std::string program = "stale";
    EXPECT_EQ(ContructLogLine(head, rec.data(), offset, program),
              "2023-11-14 22:13:20.123|4711|INFO|main|netlink up");
    EXPECT_EQ(program, "ZMRuntime");

    // A replaced hook is used; the typed value is rendered before it.
    const LogLineFormatter saved = gParseLogFunction;
    gParseLogFunction = ParseLogLineMicroSecond;
    std::memcpy(&head, rec.data() + offset, sizeof head);
    offset += 32;
    EXPECT_EQ(ContructLogLine(head, rec.data(), offset, program),
              "2023-11-14 22:13:20.123456|4711|WARN|fn|t42");
    gParseLogFunction = saved;
    EXPECT_EQ(program, "CellEmulation");

    // Type 14: no line, but the program is set and the whole body skipped.
    std::memcpy(&head, rec.data() + offset, sizeof head);
    offset += 32;
    EXPECT_EQ(ContructLogLine(head, rec.data(), offset, program), "");
    EXPECT_EQ(program, "BusBridge");
    EXPECT_EQ(offset, rec.size());
}
