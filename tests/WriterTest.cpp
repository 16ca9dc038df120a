// The binary record as WriteLog lays it into the ring.
#include <sys/wait.h>
#include <time.h>

#include "support/RingFixture.h"

using namespace PF::Utils::LOG;
using WriterTest = zmtest::SharedRingTest;

namespace {
const std::string kProgram = program_invocation_short_name;
}

// Record times, from the time-stamp counter and anchors renewed every 100 ms,
// lie between two readings of the system clock.
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
        worst = std::max({worst, before - t, t - systemUs()});
    }
    EXPECT_LE(worst, 20);
}

TEST_F(WriterTest, ProgramTagFunctionAndContentRules) {
    // A caller-supplied program name is stored as given; null tag and
    // function are logged as empty text; text stops at an embedded NUL,
    // binary keeps every byte, and binary of length 0 writes nothing.
    WriteLog<const char*>("", "", kTrace, "", 0, 0, 0, "CellEmulation");
    WriteLog<const char*>(nullptr, "x", kInfo, nullptr, 0, 0, 0, std::string());
    const char withNul[] = {'a', 'b', '\0', 'c'};
    WriteLog<const char*>("t", withNul, kInfo, "f", 4, 0, 0, std::string());
    WriteLog<const char*>("t", withNul, kInfo, "f", 4, 1, 0, std::string());
    WriteLog<const char*>("t", withNul, kInfo, "f", 0, 1, 0, std::string());
    std::string seen;
    for (const auto& r : zmtest::WalkRecords(Drain()))
        seen += std::to_string(r.head.flags) + ":" + r.program + "|" + r.function + "|" + r.tag +
                "|" + r.content + ";";
    EXPECT_EQ(seen, "0:CellEmulation|||;2:" + kProgram + "|||x;2:" + kProgram +
                        "|f|t|ab;10:" + kProgram + "|f|t|" + std::string(withNul, 4) + ";");
}

TEST_F(WriterTest, RecordLengthLimit) {
    const unsigned fixed = 32 + 1 + static_cast<unsigned>(kProgram.size()) + 1;
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
