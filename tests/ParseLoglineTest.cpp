#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "log/Decode.h"
#include "support/TestSupport.h"

using namespace PF::Utils::LOG;
using zmtest::MakeRecord;

namespace {

using Lines = std::vector<std::string>;
const std::string kLine1 = "2023-11-14 22:13:20.123|4711|INFO|main|netlink up";
const std::string kLine2 = "2023-11-14 22:13:20.123|4711|WARN|run|cycleslow";
enum Form : bool { kOneShot, kStream };

std::string Rec1(const std::string& program = "ZMRuntime") {
    return MakeRecord("main", program, "net", "link up");
}
const std::string kRec2 = MakeRecord("run", "ZMRuntime", "cycle", "slow", 3);

struct Result {
    std::uint64_t offset = 0;
    bool pending = false;
    LogHead head{};
    std::string out;  // what the parser said on stdout
};

// Either form; the stream form with a pending header when one is given.
Result Parse(Form form, std::string data, LinesByProgram& lines, const LogHead* pending = nullptr,
             const std::string& program = "") {
    Result r;
    if (pending != nullptr) r.head = *pending;
    const auto len = static_cast<unsigned>(data.size());
    r.out = zmtest::CaptureFd(1, [&] {
        if (form == kOneShot) r.offset = ParseLogline(r.head, data.data(), len, lines, program);
        if (form == kStream)
            std::tie(r.offset, r.pending) =
                ParseLogline(r.head, data.data(), len, pending != nullptr, lines, program);
    });
    return r;
}

std::string SkipMessages(std::uint64_t from, std::uint64_t to) {
    std::string s;
    for (std::uint64_t p = from; p <= to; ++p) s += "invalid Bytes " + std::to_string(p) + "\n";
    return s;
}

}  // namespace

TEST(ParseLogline, WellFormedRecordsAreAppendedInBufferOrder) {
    const std::string data = Rec1() + kRec2 + MakeRecord("f", "CellEmulation", "", "x");
    for (Form form : {kOneShot, kStream}) {
        LinesByProgram lines{{"ZMRuntime", {"earlier"}}};
        const Result r = Parse(form, data, lines);
        EXPECT_EQ(r.offset, data.size());
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(lines["ZMRuntime"], (Lines{"earlier", kLine1, kLine2}));
        EXPECT_EQ(lines["CellEmulation"].size(), 1U);
    }
}

TEST(ParseLogline, JunkAndUnknownNamesOfAListedLengthAreSkipped) {
    LinesByProgram lines;
    EXPECT_EQ(Parse(kOneShot, std::string(1, '\0') + Rec1(), lines).out, "exist invalid bytes\n");
    EXPECT_EQ(Parse(kStream, std::string(3, '\x7f') + Rec1(), lines).out, SkipMessages(1, 3));
    EXPECT_EQ(lines["ZMRuntime"], (Lines{kLine1, kLine1}));

    // Rejected once cut out: resumes one byte after the header, then skips to Rec2.
    const std::string bad = Rec1("ZMRuntimX");
    lines.clear();
    EXPECT_EQ(Parse(kOneShot, bad + kRec2, lines).out, "exist invalid bytes\n");
    EXPECT_EQ(Parse(kStream, bad + kRec2, lines).out,
              "invalid Bytes" + std::to_string(bad.size()) + "\n" + SkipMessages(2, bad.size()));
    EXPECT_EQ(lines, (LinesByProgram{{"ZMRuntime", {kLine2, kLine2}}}));
}

TEST(ParseLogline, ProgramsAreAcceptedOnceListed) {
    LinesByProgram lines;
    EXPECT_EQ(Parse(kOneShot, Rec1("ToolTest"), lines, nullptr, "ToolTest").out, "");  // lists it
    EXPECT_EQ(Parse(kStream, Rec1("ToolTest"), lines).out, "");
    AddVaildProgram("LongerToolName");  // a length not listed before
    EXPECT_EQ(Parse(kStream, Rec1("LongerToolName"), lines).out, "");
    EXPECT_EQ(lines,
              (LinesByProgram{{"ToolTest", {kLine1, kLine1}}, {"LongerToolName", {kLine1}}}));
}

TEST(ParseLogline, StreamCarriesARecordCutInTwoBuffers) {
    const std::string first = Rec1();
    const std::string data = first + kRec2 + MakeRecord("f", "ZMRuntime", "", "last");
    const std::size_t split = first.size() + kRec2.size() - 2;  // inside the second body
    LinesByProgram lines;
    Result r = Parse(kStream, data.substr(0, split), lines);
    EXPECT_EQ(r.offset, first.size() + 32);
    ASSERT_TRUE(r.pending);
    r = Parse(kStream, data.substr(r.offset), lines, &r.head);
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(r.pending);
    EXPECT_EQ(r.offset, data.size() - first.size() - 32);
    EXPECT_EQ(lines["ZMRuntime"],
              (Lines{kLine1, kLine2, "2023-11-14 22:13:20.123|4711|INFO|f|last"}));
}

TEST(ParseLogline, StreamProgramFilterDropsOtherProgramsSilently) {
    LinesByProgram lines;
    const std::string data = Rec1("CellEmulation") + kRec2 + Rec1("CellEmulation");
    EXPECT_EQ(Parse(kStream, data, lines, nullptr, "ZMRuntime").out, "");
    EXPECT_EQ(lines, (LinesByProgram{{"ZMRuntime", {kLine2}}}));
}

TEST(ParseLogline, ATypedValueShorterThanItsTypeIsReadWithZerosAfterIt) {
    // A damaged int record that holds one byte: what follows it is no part of the value.
    const std::string data = MakeRecord("f", "ZMRuntime", "t", "\x05", 2, 8) + Rec1();
    for (Form form : {kOneShot, kStream}) {
        LinesByProgram lines;
        Parse(form, data, lines);
        EXPECT_EQ(lines["ZMRuntime"], (Lines{"2023-11-14 22:13:20.123|4711|INFO|f|t5", kLine1}));
    }
}
