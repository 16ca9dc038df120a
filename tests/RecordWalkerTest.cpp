// The record walker: the library's framing rules, whatever the slicing.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "decode/RecordWalker.h"
#include "log/Decode.h"
#include "support/TestSupport.h"

using namespace PF::Utils::LOG;

namespace {

struct Found {
    std::uint64_t offset;
    std::string program;
    std::string content;
    bool operator==(const Found& o) const {
        return offset == o.offset && program == o.program && content == o.content;
    }
};

std::vector<Found> Walk(const std::string& stream, std::size_t slice, std::uint64_t* skipped) {
    RecordWalker walker;
    std::vector<Found> found;
    const RecordWalker::Sink sink = [&](WalkedRecord& r) {
        found.push_back({r.offset, std::string(r.program), std::string(r.content)});
    };
    for (std::size_t at = 0; at < stream.size(); at += slice) {
        walker.Feed(stream.data() + at, std::min(slice, stream.size() - at), sink);
    }
    walker.Finish(sink);
    *skipped = walker.SkippedBytes();
    return found;
}

std::string Rec(const std::string& program, const std::string& content) {
    return zmtest::MakeRecord("fn", program, "tag", content);
}

void SetContentLen(std::string& record, std::uint32_t len) {
    std::memcpy(&record[8], &len, 4);
}

TEST(RecordWalker, FindsRecordsAndSkipsDamageWhateverTheSlicing) {
    const std::string a = Rec("ZMRuntime", "first");
    // A listed name's length with other letters: cut out, then rejected.
    const std::string unknown = Rec("ZMRuntimX", "not ours");
    const std::string c = Rec("CellEmulation", "second");
    // 2 + 9 + 3 + 0xFFFFFFFF wraps to 13 in 32 bits; the walker must not
    // take it for a record.
    std::string wrap = Rec("ZMRuntime", "");
    SetContentLen(wrap, 0xFFFFFFFFU);
    const std::string d = Rec("emu_core", std::string("\0\x01", 2));
    const std::string stream = "xyz" + a + unknown + c + wrap + d + a.substr(0, 40);

    const std::uint64_t cAt = 3 + a.size() + unknown.size();
    const std::uint64_t dAt = cAt + c.size() + wrap.size();
    const std::vector<Found> expected = {{3, "ZMRuntime", "first"},
                                         {cAt, "CellEmulation", "second"},
                                         {dAt, "emu_core", std::string("\0\x01", 2)}};
    for (std::size_t slice :
         {stream.size(), std::size_t{1}, std::size_t{7}, std::size_t{33}, std::size_t{100}}) {
        std::uint64_t skipped = 0;
        EXPECT_EQ(Walk(stream, slice, &skipped), expected) << "slice " << slice;
        EXPECT_EQ(skipped, 3 + unknown.size() + wrap.size() + 40) << "slice " << slice;
    }
}

TEST(RecordWalker, YieldsWhatTheLibraryParserYields) {
    // Damage the one-shot parser handles safely: junk, an unknown program and
    // a header whose lengths run past the end.
    std::string overlong = Rec("ZMRuntime", "x");
    SetContentLen(overlong, 5000);
    std::string stream = "\x01\x02" + Rec("ZMRuntime", "a") + Rec("ZMRuntimX", "b") +
                         Rec("ShellConsole", "c") + overlong + "junk" + Rec("BusBridge", "d") +
                         zmtest::MakeRecord("main", "ZMRuntime", "", "7", 4, 2);

    LinesByProgram fromParser;
    LogHead head{};
    const std::string said = zmtest::CaptureFd(1, [&] {
        ParseLogline(head, stream.data(), static_cast<unsigned>(stream.size()), fromParser, "");
    });
    EXPECT_EQ(said, "exist invalid bytes\n");

    LinesByProgram fromWalker;
    RecordWalker walker;
    const RecordWalker::Sink sink = [&](WalkedRecord& r) {
        unsigned long offset = 0;
        std::string program;
        std::string line = ContructLogLine(r.head, r.body, offset, program);
        fromWalker[program].push_back(line);
    };
    walker.Feed(stream.data(), stream.size(), sink);
    walker.Finish(sink);
    EXPECT_EQ(fromWalker, fromParser);
    EXPECT_EQ(walker.RecordCount(), 4U);
}

TEST(RecordWalker, HoldsCutRecordsButNeverWaitsForImpossibleOnes) {
    std::vector<Found> found;
    const RecordWalker::Sink sink = [&](WalkedRecord& r) {
        found.push_back({r.offset, std::string(r.program), std::string(r.content)});
    };
    RecordWalker walker;
    const std::string a = Rec("ZMRuntime", "whole");

    // A record cut short is held until its rest comes.
    walker.Feed(a.data(), 40, sink);
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(walker.HeldBytes(), 40U);
    walker.Feed(a.data() + 40, a.size() - 40, sink);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(walker.HeldBytes(), 0U);

    // Claims no writer can make (over 1 MiB), or a name not listed, are
    // skipped at once: what follows them comes out without more input.
    std::string tooLong = Rec("ZMRuntime", "x");
    SetContentLen(tooLong, kMaxRecordLength);
    std::string unknownName = Rec("ZMRuntimX", "x");
    SetContentLen(unknownName, 1000);
    const std::string stream = tooLong + unknownName + a;
    walker.Feed(stream.data(), stream.size(), sink);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[1].offset, a.size() + tooLong.size() + unknownName.size());
    EXPECT_EQ(walker.SkippedBytes(), tooLong.size() + unknownName.size());

    // A program named later is accepted from then on (its length is a listed one's).
    static int run = 0;
    char name[16];
    std::snprintf(name, sizeof name, "Walk%05d", ++run);
    const std::string later = Rec(name, "late");
    walker.Feed(later.data(), later.size(), sink);
    EXPECT_EQ(found.size(), 2U);
    AddVaildProgram(name);
    walker.Feed(later.data(), later.size(), sink);
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[2].program, name);
}

}  // namespace
