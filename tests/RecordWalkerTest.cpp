// The record walker: records found by their framing alone, whatever program
// wrote them and however the stream is sliced; noise is not taken for them.
#include <random>

#include "decode/RecordWalker.h"
#include "support/Fixtures.h"

using namespace PF::Utils::LOG;

namespace {

std::string Rec(const std::string& program, const std::string& content, unsigned level = 2,
                long long timeUs = 1700000000123456LL) {
    return zmtest::MakeRecord("fn", program, "tag", content, level, 0, false, 4711, timeUs);
}
// A record whose header field at offset is set to value (of its width).
template <class T>
std::string With(std::string record, std::size_t offset, T value) {
    std::memcpy(&record[offset], &value, sizeof value);
    return record;
}

TEST(RecordWalker, FindsEveryProgramsRecordsAndSkipsWhatNoWriterWrites) {
    // Headers the library never writes, each next to good records: the walker
    // must skip every byte of them and find the records around them.
    const std::string good = Rec("ZMRuntime", "a");
    const std::string damage[] = {
        "xyz",
        With(Rec("PressLine7", "x"), 0, std::uint16_t{0x12}),        // undefined flag bit
        Rec("PressLine7", "x", 7),                                   // level 7
        With(Rec("PressLine7", "x"), 12, std::uint32_t{14}),         // no such value type
        Rec("", "x"),                                                // no program name
        Rec("PressLine7", "x", 2, -1),                               // before 1970
        Rec("PressLine7", "x", 2, 4102444800000000LL),               // from 2100 on
        Rec("Press\x01Line7", "x"),                                  // unprintable name
        With(Rec("PressLine7", "x"), 8, kMaxRecordLength),           // longer than any record
        With(Rec("PressLine7", "x"), 8, std::uint32_t{0xFFFFFFFF}),  // 32-bit sum wraps
    };
    // Records of any program, each with what the walker must find: one the
    // library's list does not know, one of a controller whose clock was never
    // set, binary and typed contents.
    const std::pair<std::string, std::string> records[] = {
        {good, "ZMRuntime:a"},
        {Rec("PressLine7", "b"), "PressLine7:b"},
        {Rec("Unset.Clock", "1970", 2, 5), "Unset.Clock:1970"},
        {zmtest::MakeRecord("fn", "emu_core", "tag", std::string("\0\x01", 2), 1, 0, true),
         std::string("emu_core:\0\x01", 11)},
        {zmtest::MakeRecord("fn", "ZMRuntime", "tag", "7", 4, 2), "ZMRuntime:7"},
    };
    std::string stream;
    std::size_t damaged = 0;
    for (std::size_t i = 0; i < std::size(damage); ++i) {
        stream += records[i % std::size(records)].first + damage[i];
        damaged += damage[i].size();
    }
    stream += good + good.substr(0, 40);  // and a record cut at the end
    for (std::size_t slice : {stream.size(), std::size_t{1}, std::size_t{7}, std::size_t{100}}) {
        SCOPED_TRACE(slice);
        RecordWalker walker;
        std::vector<std::string> found;
        const RecordWalker::Sink sink = [&](WalkedRecord& r) {
            found.push_back(std::string(r.program) + ":" + std::string(r.content));
        };
        for (std::size_t at = 0; at < stream.size(); at += slice) {
            walker.Feed(stream.data() + at, std::min(slice, stream.size() - at), sink);
        }
        EXPECT_EQ(walker.HeldBytes(), 40U);  // only the cut record is waited for
        walker.Finish(sink);
        ASSERT_EQ(found.size(), std::size(damage) + 1);
        for (std::size_t i = 0; i < std::size(damage); ++i) {
            EXPECT_EQ(found[i], records[i % std::size(records)].second) << i;
        }
        EXPECT_EQ(walker.SkippedBytes(), damaged + 40);
    }
}

TEST(RecordWalker, TenMegabytesOfNoiseGiveAtMostTwoRecords) {
    std::mt19937_64 random(20);
    std::string noise(10 << 20, '\0');
    for (std::size_t i = 0; i < noise.size(); i += 8) {
        const std::uint64_t word = random();
        std::memcpy(&noise[i], &word, 8);
    }
    RecordWalker walker;
    walker.Feed(noise.data(), noise.size(), [](WalkedRecord&) {});
    walker.Finish([](WalkedRecord&) {});
    std::printf("[ figures  ] records found in 10 MiB of random bytes: %llu\n",
                static_cast<unsigned long long>(walker.RecordCount()));
    EXPECT_LE(walker.RecordCount(), 2U);
}

}  // namespace
