// The binary record as WriteLog lays it into the ring.
#include <sys/wait.h>
#include <unistd.h>

#include <time.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "support/RingFixture.h"

using namespace PF::Utils::LOG;
using zmtest::SharedRingTest;

using WriterTest = SharedRingTest;

TEST_F(WriterTest, TextRecordFieldsAndOffsets) {
    const long long before = detail::NowUs();
    char text[6] = "up 42";
    WriteLog<char[6]>("net", text, kWarn, "Poll", 0, 0, 0x1234567890ULL, std::string());
    const std::string bytes = Drain();
    const std::string program = program_invocation_short_name;
    ASSERT_EQ(bytes.size(), 32 + 4 + program.size() + 3 + 5);

    LogHead h;
    std::memcpy(&h, bytes.data(), 32);
    EXPECT_EQ(h.flags, kWarn);
    EXPECT_EQ(h.functionLen, 4);
    EXPECT_EQ(h.programLen, program.size());
    EXPECT_EQ(h.tagLen, 3);
    EXPECT_EQ(h.contentLen, 5U);
    EXPECT_EQ(h.valueType, 0U);
    EXPECT_EQ(h.threadId, static_cast<unsigned>(gettid()));
    EXPECT_EQ(h.component, 0x34567890U);  // low 32 bits only
    EXPECT_GE(h.timeUs, before);
    EXPECT_LE(h.timeUs, detail::NowUs());
    EXPECT_EQ(bytes.substr(32), "Poll" + program + "net" + "up 42");
}

// Record times come from the time-stamp counter scaled by anchors on the
// system clock, renewed every 100 ms: over several renewals each time still
// lies between two readings of the system clock (give or take the scale's
// error, far below this bound).
TEST(RecordClock, FollowsTheSystemClockAcrossAnchorRenewals) {
    auto systemUs = [] {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
    };
    const long long end = systemUs() + 350000;
    long long worst = 0;
    for (long long before = systemUs(); before < end; before = systemUs()) {
        const long long t = detail::NowUs();
        const long long after = systemUs();
        worst = std::max({worst, before - t, t - after});
    }
    EXPECT_LE(worst, 20);
}

TEST_F(WriterTest, ProgramTagFunctionAndContentRules) {
    // A caller-supplied program name is stored as given.
    WriteLog<const char*>("", "", kTrace, "", 0, 0, 0, "CellEmulation");
    // Null tag and function are logged as empty text.
    WriteLog<const char*>(nullptr, "x", kInfo, nullptr, 0, 0, 0, std::string());
    // Text stops at an embedded NUL; binary keeps every byte.
    const char withNul[] = {'a', 'b', '\0', 'c'};
    WriteLog<const char*>("t", withNul, kInfo, "f", 4, 0, 0, std::string());
    WriteLog<const char*>("t", withNul, kInfo, "f", 4, 1, 0, std::string());
    // Binary with length 0 writes nothing.
    WriteLog<const char*>("t", withNul, kInfo, "f", 0, 1, 0, std::string());
    // A typed value is stored as its bytes with its type code.
    WriteLog<double>("v", 2.5, kDebug, "f", 0, 0, 0, std::string());

    auto records = zmtest::WalkRecords(Drain());
    ASSERT_EQ(records.size(), 5U);
    EXPECT_EQ(records[0].program, "CellEmulation");
    EXPECT_EQ(records[0].head.programLen + records[0].head.functionLen + records[0].head.tagLen +
                  records[0].head.contentLen,
              13U);
    EXPECT_EQ(records[1].tag, "");
    EXPECT_EQ(records[1].function, "");
    EXPECT_EQ(records[1].content, "x");
    EXPECT_EQ(records[2].content, "ab");
    EXPECT_EQ(records[3].content, std::string(withNul, 4));
    EXPECT_EQ(records[3].head.flags, kBinaryFlag | kInfo);
    EXPECT_EQ(records[4].head.valueType, 12U);
    double value = 0;
    ASSERT_EQ(records[4].content.size(), sizeof value);
    std::memcpy(&value, records[4].content.data(), sizeof value);
    EXPECT_EQ(value, 2.5);
}

TEST_F(WriterTest, RecordLengthLimit) {
    const std::string program = program_invocation_short_name;
    const unsigned fixed = 32 + 1 + static_cast<unsigned>(program.size()) + 1;
    std::string content(kMaxRecordLength - fixed, 'x');
    WriteLog<const char*>("t", content.c_str(), kInfo, "f", 0, 0, 0, std::string());
    content.push_back('y');  // one byte over: not written, counted, and said so
    WriteLog<const char*>("t", content.c_str(), kInfo, "f", 0, 0, 0, std::string());
    WriteLog<const char*>("t", "next", kInfo, "f", 0, 0, 0, std::string());
    auto records = zmtest::WalkRecords(Drain());
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].content.size(), kMaxRecordLength - fixed);
    EXPECT_EQ(
        records[1].content.rfind(
            "lost 1 records: lock busy 0, ring full 0, too long 1, rate limited 0, since ", 0),
        0U)
        << records[1].content;
    EXPECT_EQ(records[2].content, "next");
}

TEST(Writer, RingFullNoticeRecord) {
    const long long before = detail::NowUs();
    std::vector<char> record = GenerateEmptyLog();
    const std::string program = program_invocation_short_name;
    ASSERT_EQ(record.size(), 88 + program.size());
    LogHead h;
    std::memcpy(&h, record.data(), 32);
    EXPECT_EQ(h.flags, 3);
    EXPECT_EQ(h.functionLen, 16);
    EXPECT_EQ(h.programLen, program.size());
    EXPECT_EQ(h.tagLen, 0);
    EXPECT_EQ(h.contentLen, 40U);
    EXPECT_EQ(h.threadId, 0U);
    EXPECT_EQ(h.component, 0U);
    EXPECT_GE(h.timeUs, before);
    EXPECT_EQ(std::string(record.begin() + 32, record.end()),
              "GenerateEmptyLog" + program + "ring buffer is full, call empty function");
}

// A child forked after its parent logged reports its own thread id.
TEST_F(WriterTest, ForkedChildHasItsOwnThreadId) {
    WriteLog<const char*>("t", "parent", kInfo, "f", 0, 0, 0, std::string());
    const pid_t child = fork();
    if (child == 0) {
        WriteLog<const char*>("t", "child", kInfo, "f", 0, 0, 0, std::string());
        _exit(0);
    }
    ASSERT_GT(child, 0);
    waitpid(child, nullptr, 0);
    auto records = zmtest::WalkRecords(Drain());
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].head.threadId, static_cast<unsigned>(gettid()));
    EXPECT_EQ(records[1].head.threadId, static_cast<unsigned>(child));
}
