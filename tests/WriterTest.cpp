// The binary record as WriteLog lays it into the ring; and a line of the text
// path, as a process without an installation writes it: echoed on the
// console when it asks for that, and never beyond a mebibyte.
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>

#include "support/RingFixture.h"
#include "transport/MEMManager.h"

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

// A caller-supplied program name is stored as given; null tag and function
// are logged as empty text; text stops at an embedded NUL, binary keeps
// every byte, and binary of length 0 writes nothing. A record of the longest
// length is written; one byte longer it is not, and is counted.
TEST_F(WriterTest, ProgramTagFunctionContentAndLengthRules) {
    WriteLog<const char*>("", "", kTrace, "", 0, 0, 0, "CellEmulation");
    WriteLog<const char*>(nullptr, "x", kInfo, nullptr, 0, 0, 0, std::string());
    const char withNul[] = {'a', 'b', '\0', 'c'};
    WriteLog<const char*>("t", withNul, kInfo, "f", 4, 0, 0, std::string());
    WriteLog<const char*>("t", withNul, kInfo, "f", 4, 1, 0, std::string());
    WriteLog<const char*>("t", withNul, kInfo, "f", 0, 1, 0, std::string());
    const std::string longest(kMaxRecordLength - 32 - 1 - kProgram.size() - 1, 'x');
    for (const std::string& text : {longest, longest + "y", std::string("next")})
        WriteLog<const char*>("t", text.c_str(), kInfo, "f", 0, 0, 0, std::string());
    // The ring-full notice, as the exported call builds it, comes last.
    const std::vector<char> notice = GenerateEmptyLog();
    std::vector<std::string> seen;  // the longest content by its size
    for (const std::string& bytes : {Drain(), std::string(notice.begin(), notice.end())}) {
        for (const auto& r : zmtest::WalkRecords(bytes))
            seen.push_back(std::to_string(r.head.flags) + ":" + r.program + "|" + r.function + "|" +
                           r.tag + "|" +
                           (r.content.size() > 100
                                ? std::to_string(r.content.size())
                                : r.content.substr(0, r.content.find(", since "))));
    }
    const std::string p = kProgram;
    EXPECT_EQ(seen, (std::vector<std::string>{
                        "0:CellEmulation|||", "2:" + p + "|||x", "2:" + p + "|f|t|ab",
                        "10:" + p + "|f|t|" + std::string(withNul, 4),
                        "2:" + p + "|f|t|" + std::to_string(longest.size()),
                        "3:" + p +
                            "|ReportLosses|zmlog|lost 1 records: lock busy 0, ring full 0, "
                            "too long 1, rate limited 0",
                        "2:" + p + "|f|t|next",
                        "3:" + p + "|GenerateEmptyLog||ring buffer is full, call empty function"}));
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

TEST(ConsolePathInProcess, LinesOverOneMebibyteAreNeitherQueuedNorShown) {
    const bool savedMode = ConfManager::outputMode, savedConsole = ConfManager::sConsole;
    ConfManager::outputMode = ConfManager::sConsole = true;
    ASSERT_TRUE(MEMManager::CreateMEM(kSegmentSize));
    ASSERT_TRUE(RingHead::Init(MEMManager::memInfo.address, static_cast<int>(kSegmentSize),
                               RingHead::instance));
    // date and time 23, four "|", "INFO", the newline; function "f", tag "t".
    const std::size_t fixed = 23 + 4 + 4 + 1 + std::to_string(syscall(SYS_gettid)).size() + 2;
    std::vector<char> queued(kSegmentSize);
    for (std::size_t lineSize : {std::size_t{1048576}, std::size_t{1048577}}) {
        const std::string content(lineSize - fixed, 'x');
        const std::string shown = zmtest::CaptureFd(
            1, [&] { WriteLog<std::string>("t", content, kInfo, "f", 0, 0, 0, ""); });
        const std::size_t expected = lineSize <= 1048576 ? lineSize : 0;
        EXPECT_EQ(RingHead::instance->Dequeue(queued.data(), kSegmentSize), expected)
            << "line of " << lineSize;
        EXPECT_EQ(shown.size(), expected) << "line of " << lineSize;
    }
    RingHead::instance = nullptr;
    MEMManager::DeleteSHM();
    ConfManager::outputMode = savedMode;
    ConfManager::sConsole = savedConsole;
}
