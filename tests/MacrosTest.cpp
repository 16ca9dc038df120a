// The logging macros against a ring owned by this process: the filters run
// before any argument, and passing calls lay out the record the decoder expects.

#include "support/RingFixture.h"

namespace {

using namespace PF::Utils::LOG;

using MacrosTest = zmtest::SharedRingTest;

// Named so the stored function name can be told from the test body's.
void LogOneOfEachLevel() {
    ZMLOG_TRACE("lvl", "level 0");
    ZMLOG_DEBUG("lvl", "level 1");
    ZMLOG_INFO("lvl", "level 2");
    ZMLOG_WARN("lvl", "level 3");
    ZMLOG_ERROR("lvl", "level 4");
    ZMLOG_FATAL("lvl", "level 5");
    ZMLOG_RECORD("lvl", "level 6");
}

TEST_F(MacrosTest, FilteredOutCallsEvaluateNoArgument) {
    int evaluated = 0;
    auto arg = [&](auto value) {
        ++evaluated;
        return value;
    };
    auto logEveryKind = [&](unsigned char level, unsigned long component) {
        ZMLOG_LOG(level, arg("tag"), arg("text"));
        ZMLOG_LOG_F(level, arg("tag"), "%d", arg(42));
        ZMLOG_LOG_C(level, component, arg("tag"), arg("text"));
        ZMLOG_BINARY(level, arg("tag"), arg("text"), 4);
        ZMLOG_VALUE(level, arg("tag"), arg(42));
        ZMLOG_LOG_EVERY_N(level, 1, arg("tag"), "%d", arg(42));
        ZMLOG_LOG_LIMIT(level, 0, arg("tag"), "%d", arg(42));
    };

    RingHead::instance = nullptr;
    logEveryKind(kFatal, 1);
    RingHead::instance = ring;
    EXPECT_EQ(evaluated, 0) << "no ring";
    ASSERT_TRUE(ring->SetActive(0));
    logEveryKind(kFatal, 1);
    ASSERT_TRUE(ring->SetActive(1));
    EXPECT_EQ(evaluated, 0) << "inactive";
    ASSERT_TRUE(ring->SetLevel(kWarn));
    logEveryKind(kInfo, 1);
    EXPECT_EQ(evaluated, 0) << "below the level";
    ASSERT_TRUE(ring->SetComponentMask(0x00FF));
    ZMLOG_FATAL_C(0xFF00, arg("tag"), arg("text"));
    EXPECT_EQ(evaluated, 0) << "component masked off";

    // At the threshold every kind passes, each argument evaluated once;
    // component 0 always passes, and the stored word keeps its low 32 bits.
    logEveryKind(kWarn, 0);
    ZMLOG_WARN_C(0x0001'0000'0000'0005UL, arg("tag"), arg("shares a bit"));
    EXPECT_EQ(evaluated, 16);
    auto records = zmtest::WalkRecords(Drain());
    ASSERT_EQ(records.size(), 8U);
    EXPECT_EQ(records[7].content, "shares a bit");
    EXPECT_EQ(records[7].head.component, 5U);
}

TEST_F(MacrosTest, PassingRecordsCarryLevelTagTextAndCallerName) {
    LogOneOfEachLevel();
    ZMLOG_WARN_F("fmt", "axis %d at %.2f mm, %s", 3, 12.5, "ok");
    // Around the 512-byte stack buffer of the formats left to the C library
    // (wide text), then beyond the record limit: cut to fit.
    const std::string texts[] = {std::string(511, 'a'), std::string(512, 'b'),
                                 std::string(2 << 20, 'c')};
    ZMLOG_INFO_F("fmt", "%ls", std::wstring(511, L'a').c_str());
    ZMLOG_INFO_F("fmt", "%ls", std::wstring(512, L'b').c_str());
    ZMLOG_INFO_F("fmt", "%s", texts[2].c_str());
    ZMLOG_INFO_F("fmt", "nul%cafter", 0);  // text ends at its first NUL

    auto records = zmtest::WalkRecords(Drain());
    ASSERT_EQ(records.size(), 12U);
    for (unsigned level = 0; level < 7; ++level) {
        const auto& r = records[level];
        EXPECT_EQ(std::to_string(r.head.flags) + "|" + r.function + "|" + r.program + "|" + r.tag +
                      "|" + r.content,
                  std::to_string(level) + "|LogOneOfEachLevel|LogAutoTest|lvl|level " +
                      std::to_string(level));
    }
    EXPECT_EQ(std::to_string(records[7].head.flags) + "|" + records[7].function + "|" +
                  records[7].content,
              "3|TestBody|axis 3 at 12.50 mm, ok");
    EXPECT_EQ(records[8].content + records[9].content, texts[0] + texts[1]);
    const auto& cut = records[10];
    EXPECT_EQ(32 + cut.function.size() + cut.program.size() + cut.tag.size() + cut.content.size(),
              kMaxRecordLength);
    EXPECT_EQ(cut.content, texts[2].substr(0, cut.content.size()));
    EXPECT_EQ(records[11].content, "nul");
}

// A limited site's records say how many calls they passed over, and (an
// interval's site) lie an interval apart: half of one, as record times may
// be off by milliseconds on a loaded machine (the clock's anchors).
TEST_F(MacrosTest, LimitedSitesWriteSomeCallsAndCountTheRest) {
    auto checkSite = [&](const char* site, int lastWritten, long intervalUs) {
        int expectedNext = 0;
        long long lastUs = 0;
        int records = 0;
        for (const auto& r : zmtest::WalkRecords(Drain())) {
            int call = -1;
            unsigned long suppressed = 0;
            EXPECT_GE(
                std::sscanf(r.content.c_str(), "call %d (%lu suppressed)", &call, &suppressed), 1)
                << r.content;
            EXPECT_EQ(r.tag, site);
            EXPECT_EQ(r.function, "TestBody");
            EXPECT_EQ(suppressed, static_cast<unsigned long>(call - expectedNext)) << r.content;
            if (records++ > 0) {
                EXPECT_GE(r.head.timeUs - lastUs, intervalUs / 2) << r.content;
            }
            expectedNext = call + 1;
            lastUs = r.head.timeUs;
        }
        EXPECT_EQ(expectedNext, lastWritten + 1);
        return records;
    };

    for (int call = 0; call < 10; ++call) ZMLOG_INFO_EVERY_N(4, "every", "call %d", call);
    EXPECT_EQ(checkSite("every", 8, 0), 3) << "calls 0, 4 and 8";

    // A site passes calls over within its interval, and writes the first
    // call after it with their count; the last call comes after a pause.
    int calls = 0;
    for (const long long end = detail::NowUs() + 120000;; ++calls) {
        const bool last = detail::NowUs() >= end;
        if (last) usleep(31000);
        ZMLOG_WARN_LIMIT(30, "limit", "call %d", calls);
        if (last) break;
    }
    const int written = checkSite("limit", calls, 30000);
    EXPECT_GE(written, 3);
    EXPECT_LE(written, 7);
}

}  // namespace
