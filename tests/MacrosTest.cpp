// The logging macros against a ring set up by hand in this process: the
// filters run before any argument, and passing calls lay out the record the
// decoder expects.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "log/ZMRuntimeLog.h"
#include "support/TestSupport.h"
#include "transport/SHMManager.h"
#include "transport/SemManager.h"

namespace {

using namespace PF::Utils::LOG;

class MacrosTest : public ::testing::Test {
  protected:
    void SetUp() override {
        savedOutputMode_ = ConfManager::outputMode;
        ConfManager::outputMode = false;
        ASSERT_TRUE(SemManager::Create());
        ASSERT_TRUE(SHMManager::CreateSHM(kSegmentSize));
        ASSERT_TRUE(RingHead::Init(SHMManager::shmInfo.address, static_cast<int>(kSegmentSize),
                                   RingHead::instance));
        ring_ = RingHead::instance;
        ASSERT_TRUE(ring_->SetActive(1));
        ASSERT_TRUE(ring_->SetLevel(kTrace));
        buffer_.resize(8 << 20);
    }

    void TearDown() override {
        RingHead::instance = nullptr;
        SemManager::Destory();
        SHMManager::DestroySHM();
        SHMManager::DeleteSHM();
        ConfManager::outputMode = savedOutputMode_;
    }

    std::vector<zmtest::Record> Drain() {
        const unsigned n = ring_->Dequeue(buffer_.data(), static_cast<unsigned>(buffer_.size()));
        size_t consumed = 0;
        auto records = zmtest::WalkRecords(std::string(buffer_.data(), n), &consumed);
        EXPECT_EQ(consumed, n) << "ring holds a partial record";
        return records;
    }

    zmtest::GlobalNamesLock lock_;
    RingHead* ring_ = nullptr;
    std::vector<char> buffer_;
    bool savedOutputMode_ = true;
};

std::string Bytes(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), n);
}

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
    auto tag = [&] {
        ++evaluated;
        return "tag";
    };
    auto text = [&] {
        ++evaluated;
        return "text";
    };
    auto number = [&] {
        ++evaluated;
        return 42;
    };
    auto logEveryKind = [&](unsigned char level, unsigned long component) {
        ZMLOG_LOG(level, tag(), text());
        ZMLOG_LOG_F(level, tag(), "%d %s", number(), text());
        ZMLOG_LOG_C(level, component, tag(), text());
        ZMLOG_BINARY(level, tag(), text(), 4);
        ZMLOG_VALUE(level, tag(), number());
    };

    RingHead::instance = nullptr;
    logEveryKind(kFatal, 1);
    RingHead::instance = ring_;
    EXPECT_EQ(evaluated, 0) << "no ring";

    ASSERT_TRUE(ring_->SetActive(0));
    logEveryKind(kFatal, 1);
    ASSERT_TRUE(ring_->SetActive(1));
    EXPECT_EQ(evaluated, 0) << "inactive";

    ASSERT_TRUE(ring_->SetLevel(kWarn));
    logEveryKind(kInfo, 1);
    ZMLOG_TRACE(tag(), text());
    ZMLOG_DEBUG_F(tag(), "%d", number());
    ZMLOG_INFO_C(1, tag(), text());
    EXPECT_EQ(evaluated, 0) << "below the level";

    ASSERT_TRUE(ring_->SetComponentMask(0x00FF));
    ZMLOG_FATAL_C(0xFF00, tag(), text());
    EXPECT_EQ(evaluated, 0) << "component masked off";
    EXPECT_EQ(ring_->Count(), 0U);

    // At the threshold every kind passes, each argument evaluated once.
    logEveryKind(kWarn, 0x01);
    EXPECT_EQ(evaluated, 11);
    EXPECT_EQ(Drain().size(), 5U);
}

TEST_F(MacrosTest, ComponentWordMustShareABitWithTheMask) {
    ASSERT_TRUE(ring_->SetComponentMask(0x0000'0000'0001'0000UL));  // one RT component
    ZMLOG_INFO_C(0, "c", "zero always passes");
    ZMLOG_INFO_C(0x0003'0000UL, "c", "shares a bit");
    ZMLOG_INFO_C(0x0000'0001UL, "c", "PF only: blocked");
    ZMLOG_INFO_C(0x0001'0000'0000'0000UL, "c", "HW only: blocked");
    ASSERT_TRUE(ring_->SetComponentMask(~0UL));
    ZMLOG_INFO_C(0x0001'0000'0000'0005UL, "c", "kept low half");

    auto records = Drain();
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].content, "zero always passes");
    EXPECT_EQ(records[0].head.component, 0U);
    EXPECT_EQ(records[1].content, "shares a bit");
    EXPECT_EQ(records[1].head.component, 0x0003'0000U);
    EXPECT_EQ(records[2].head.component, 5U);
}

TEST_F(MacrosTest, PassingRecordsCarryLevelTagTextAndCallerName) {
    const long long before = static_cast<long long>(time(nullptr)) * 1000000;
    LogOneOfEachLevel();
    std::string owned = "from a string";
    ZMLOG_LOG(kInfo, "s", owned);
    ZMLOG_LOG(kInfo, "v", std::string_view("from a view, cut here").substr(0, 11));

    auto records = Drain();
    ASSERT_EQ(records.size(), 9U);
    const auto tid = static_cast<unsigned>(syscall(SYS_gettid));
    for (unsigned level = 0; level < 7; ++level) {
        const auto& r = records[level];
        EXPECT_EQ(r.head.flags, level) << "level and no binary flag";
        EXPECT_EQ(r.function, "LogOneOfEachLevel");
        EXPECT_EQ(r.program, "LogAutoTest");
        EXPECT_EQ(r.tag, "lvl");
        EXPECT_EQ(r.content, "level " + std::to_string(level));
        EXPECT_EQ(r.head.valueType, 0U);
        EXPECT_EQ(r.head.threadId, tid);
        EXPECT_GE(r.head.timeUs, before);
    }
    EXPECT_EQ(records[7].content, "from a string");
    EXPECT_EQ(records[7].function, "TestBody");
    EXPECT_EQ(records[8].content, "from a view");
}

TEST_F(MacrosTest, PrintfVariantFormatsShortAndLongTexts) {
    ZMLOG_WARN_F("fmt", "axis %d at %.2f mm, %s", 3, 12.5, "ok");
    // Around the 512-byte stack buffer, then far beyond it.
    const std::string fits(511, 'a');
    const std::string spills(512, 'b');
    const std::string longText(5000, 'c');
    ZMLOG_INFO_F("fmt", "%s", fits.c_str());
    ZMLOG_INFO_F("fmt", "%s", spills.c_str());
    ZMLOG_INFO_F("fmt", "%s|%d", longText.c_str(), -7);

    auto records = Drain();
    ASSERT_EQ(records.size(), 4U);
    EXPECT_EQ(records[0].head.flags, kWarn);
    EXPECT_EQ(records[0].content, "axis 3 at 12.50 mm, ok");
    EXPECT_EQ(records[0].function, "TestBody");
    EXPECT_EQ(records[1].content, fits);
    EXPECT_EQ(records[2].content, spills);
    EXPECT_EQ(records[3].content, longText + "|-7");
}

TEST_F(MacrosTest, PrintfTextBeyondTheRecordLimitIsCutToFit) {
    const std::string huge(2 << 20, 'h');
    ZMLOG_INFO_F("big", "%s", huge.c_str());

    auto records = Drain();
    ASSERT_EQ(records.size(), 1U);
    const auto& r = records[0];
    EXPECT_EQ(32 + r.function.size() + r.program.size() + r.tag.size() + r.content.size(),
              kMaxRecordLength);
    EXPECT_EQ(r.content, huge.substr(0, r.content.size()));
}

TEST_F(MacrosTest, TypedValuesStoreTheirBytesAndTypeCode) {
    const int i = -123456;
    const double d = 2.5;
    const bool b = true;
    const char c = 'Z';
    const unsigned char zero = 0;  // a NUL value byte must not be taken for end of text
    const short s = -2;
    ZMLOG_VALUE(kInfo, "int", i);
    ZMLOG_VALUE(kInfo, "double", d);
    ZMLOG_VALUE(kInfo, "bool", b);
    ZMLOG_VALUE(kInfo, "char", c);
    ZMLOG_VALUE(kInfo, "uchar", zero);
    ZMLOG_VALUE(kError, "short", s);

    auto records = Drain();
    ASSERT_EQ(records.size(), 6U);
    const struct {
        unsigned code;
        std::string bytes;
    } expected[] = {{8, Bytes(&i, 4)}, {12, Bytes(&d, 8)},   {1, Bytes(&b, 1)},
                    {4, Bytes(&c, 1)}, {2, Bytes(&zero, 1)}, {6, Bytes(&s, 2)}};
    for (size_t k = 0; k < records.size(); ++k) {
        EXPECT_EQ(records[k].head.valueType, expected[k].code) << records[k].tag;
        EXPECT_EQ(records[k].head.contentLen, expected[k].bytes.size()) << records[k].tag;
        EXPECT_EQ(records[k].content, expected[k].bytes) << records[k].tag;
        EXPECT_EQ(records[k].head.flags & kBinaryFlag, 0) << records[k].tag;
    }
    EXPECT_EQ(records[5].head.flags, kError);
}

TEST_F(MacrosTest, BinaryKeepsEveryByteAndSetsTheFlag) {
    const std::vector<unsigned char> frame{0x00, 0x41, 0x00, 0xFF, 0x80, 0x00};
    ZMLOG_BINARY(kDebug, "rx", frame.data(), frame.size());
    ZMLOG_BINARY(kDebug, "rx", frame.data(), 0);  // nothing to log

    auto records = Drain();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].head.flags, kBinaryFlag | kDebug);
    EXPECT_EQ(records[0].head.valueType, 0U);
    EXPECT_EQ(records[0].content, Bytes(frame.data(), frame.size()));
}

}  // namespace
