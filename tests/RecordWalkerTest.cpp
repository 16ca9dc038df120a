// The record walker: the library's framing rules, whatever the slicing.
#include <algorithm>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "decode/RecordWalker.h"
#include "log/Decode.h"
#include "support/TestSupport.h"

using namespace PF::Utils::LOG;

namespace {

std::string Rec(const std::string& program, const std::string& content) {
    return zmtest::MakeRecord("fn", program, "tag", content);
}
std::string Claiming(std::uint32_t len, const std::string& program) {
    std::string record = Rec(program, "x");
    std::memcpy(&record[8], &len, 4);  // contentLen, the real content being "x"
    return record;
}

TEST(RecordWalker, YieldsTheParsersRecordsWhateverTheSlicing) {
    // Damage both survive: junk, a listed name's length with other letters
    // claiming a long body, and a claim no writer makes (over 1 MiB). The
    // walker must not wait for the rest of either.
    const std::string damage =
        "xyz" + Claiming(1000, "ZMRuntimX") + Claiming(kMaxRecordLength, "ZMRuntime");
    const std::string last = zmtest::MakeRecord("main", "ZMRuntime", "", "7", 4, 2);
    std::string parsable = Rec("ZMRuntime", "a") + damage + Rec("ShellConsole", "b") +
                           Rec("emu_core", std::string("\0\x01", 2)) + last;
    LinesByProgram fromParser;
    LogHead head{};
    const auto parse = [&] {
        ParseLogline(head, parsable.data(), static_cast<unsigned>(parsable.size()), fromParser, "");
    };
    EXPECT_EQ(zmtest::CaptureFd(1, parse), "exist invalid bytes\n");
    // Only the walker is safe on lengths whose 32-bit sum wraps (to 13 here).
    const std::string wrap = Claiming(0xFFFFFFFFU, "ZMRuntime");
    const std::string stream = parsable + wrap + Rec("BusBridge", "cut").substr(0, 40);
    for (std::size_t slice : {stream.size(), std::size_t{1}, std::size_t{7}, std::size_t{100}}) {
        SCOPED_TRACE(slice);
        RecordWalker walker;
        LinesByProgram fromWalker;
        std::uint64_t lastAt = 0;
        const RecordWalker::Sink sink = [&](WalkedRecord& r) {
            unsigned long offset = 0;
            std::string program;
            const std::string line = ContructLogLine(r.head, r.body, offset, program);
            fromWalker[program].push_back(line);
            lastAt = r.offset;
        };
        for (std::size_t at = 0; at < stream.size(); at += slice) {
            walker.Feed(stream.data() + at, std::min(slice, stream.size() - at), sink);
        }
        EXPECT_EQ(walker.HeldBytes(), 40U);  // only the cut record
        walker.Finish(sink);
        EXPECT_EQ(fromWalker, fromParser);
        EXPECT_EQ(walker.RecordCount(), 4U);
        EXPECT_EQ(lastAt, parsable.size() - last.size());
        EXPECT_EQ(walker.SkippedBytes(), damage.size() + wrap.size() + 40);
    }
}

}  // namespace
