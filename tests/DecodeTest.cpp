// The library's decoder: lines, typed contents, hex dumps, and the parser
// that splits a buffer of records by program; and the record walker: records
// found by their framing alone, whatever program wrote them and however the
// stream is sliced; noise is not taken for them.
#include <limits>
#include <random>

#include "decode/RecordWalker.h"
#include "log/Decode.h"
#include "log/HexDump.h"
#include "support/Fixtures.h"

using namespace PF::Utils::LOG;
using zmtest::MakeRecord;

namespace {

constexpr long long kT = 1700000000123456LL;  // 2023-11-14 22:13:20.123456 UTC

// The line of a record by function "f" of thread 4711.
std::string Line(const LogLineFormatter& format, unsigned short flags, long long timeUs,
                 std::string tag = "", std::string content = "") {
    LogHead h{flags, 0, 0, 0, 0, 0, 4711, 0, timeUs};
    std::string function = "f";
    return format(h, function, tag, content);
}

// value as the content of a record of the given type code, stored at an odd
// address as it may be inside a record.
template <class T>
std::string Typed(unsigned type, T value, unsigned short flags = 0) {
    char buf[1 + sizeof(T)];
    std::memcpy(buf + 1, &value, sizeof value);
    return ParseLogContent(flags, type, buf + 1, sizeof value);
}

}  // namespace

// The tests run with TZ=UTC; each starts from a fresh calendar cache.
TEST(LogLine, FormattersLevelNamesAndTheZeroDate) {
    Timestamp::instance = {};
    EXPECT_EQ(Line(ParseLogLineMillSecond, 2, 999), "0000-00-00 00:00:00.000|4711|INFO|f|");
    EXPECT_EQ(Line(ParseLogLineMicroSecond, 2, kT, "net", "link up"),
              "2023-11-14 22:13:20.123456|4711|INFO|f|netlink up");
    // A second back: the calendar is converted again; zero bytes are kept.
    EXPECT_EQ(Line(ParseLogLineMillSecond, 2, kT - 1000000, "", std::string("ab\0cd", 5)),
              std::string("2023-11-14 22:13:19.123|4711|INFO|f|ab\0\0\0", 41));
    const char* names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "Record", ""};
    for (unsigned short level = 0; level < 8; ++level)  // a second later each
        EXPECT_EQ(
            Line(ParseLogLineMillSecond, level | kBinaryFlag, kT + level * 1000000LL),
            "2023-11-14 22:13:2" + std::to_string(level) + ".123|4711|" + names[level] + "|f|");
    // A record rendered by the formatter in force, its typed value decoded.
    std::string rec = MakeRecord("fn", "CellEmulation", "t", std::string("*\0\0\0", 4), 3, 8);
    LogHead head;
    std::memcpy(&head, rec.data(), sizeof head);
    unsigned long offset = 32;
    std::string program;
    const LogLineFormatter saved = gParseLogFunction;
    gParseLogFunction = ParseLogLineMicroSecond;
    const std::string line = ContructLogLine(head, rec.data(), offset, program);
    gParseLogFunction = saved;
    EXPECT_EQ(line, "2023-11-14 22:13:20.123456|4711|WARN|fn|t42");
}

TEST(ContentDecode, EachTypeAtItsWidthAndTheBinaryFlagFirst) {
    const std::pair<std::string, std::string> cases[] = {
        {Typed<std::uint16_t>(5, 0xFFFF), "65535"},
        {Typed<std::uint16_t>(6, 0xFFFF), "-1"},
        {Typed<std::uint32_t>(7, 0xFFFFFFFFU), "4294967295"},
        {Typed<std::uint32_t>(8, 0xFFFFFFFFU), "-1"},
        {Typed<std::uint64_t>(10, ~0ULL), "18446744073709551615"},
        {Typed<long long>(13, std::numeric_limits<long long>::min()), "-9223372036854775808"},
        {Typed<std::uint64_t>(5, 0x1234567800000007ULL), "7"},  // only the type's bytes
        {Typed<bool>(1, true), "1"},
        {Typed<unsigned char>(2, 0x41), "A"},
        {Typed<char>(4, '\0'), std::string(1, '\0')},  // a character, not "0"
        {Typed<float>(9, 3.14159274F), "3.14159"},
        {Typed<double>(12, 1234567.0), "1.23457e+06"},
        {Typed<int>(14, 0x41), ""},  // no such type
        {Typed<int>(8, -1, 0x0007), "-1"},
        {Typed<int>(14, 0x41, 0x000F), StringToHex(std::string("A\0\0\0", 4))},
        {ParseLogContent(0, 0, const_cast<char*>("a\0b\0"), 4), std::string("a\0b\0", 4)},
        {ParseLogContent(0x000A, 0, const_cast<char*>("abc"), 3), StringToHex("abc")},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << i;
}

TEST(HexDump, LinesOfSixteenBytesNumberedInUpperCaseHex) {
    EXPECT_EQ(StringToHex(""), "\n");
    EXPECT_EQ(StringToHex(std::string("\x20\x7e\x7f\x80\xff\x00\x41", 7)),
              "\n0000  20-7e-7f-80 ff-00-41" + std::string(27, ' ') + "   ~....A\n");
    // The second line's text column starts where the first line's does.
    EXPECT_EQ(StringToHex("abcdefghijklmnopq"),
              "\n0000  61-62-63-64 65-66-67-68 69-6a-6b-6c 6d-6e-6f-70  abcdefghijklmnop\n"
              "0001  71                                               q\n");
    const std::string dump = StringToHex(std::string(17 * 16, 'x'));
    EXPECT_NE(dump.find("\n000A  78-78"), std::string::npos);
    EXPECT_NE(dump.find("\n0010  78-78"), std::string::npos);
}

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
    std::string out;  // what the parser said on stdout
};

Result Parse(Form form, std::string data, LinesByProgram& lines, const std::string& program = "") {
    Result r;
    LogHead head{};
    const auto len = static_cast<unsigned>(data.size());
    r.out = zmtest::CaptureFd(1, [&] {
        r.offset = form == kOneShot
                       ? ParseLogline(head, data.data(), len, lines, program)
                       : ParseLogline(head, data.data(), len, false, lines, program).first;
    });
    return r;
}

}  // namespace

TEST(ParseLogline, RecordsAppendedInOrderAndATypedValueShortOfItsTypeReadWithZeros) {
    // A damaged int record that holds one byte: what follows it is no part of the value.
    const std::string data = Rec1() + kRec2 + MakeRecord("f", "ZMRuntime", "t", "\x05", 2, 8) +
                             MakeRecord("f", "CellEmulation", "", "x");
    for (Form form : {kOneShot, kStream}) {
        LinesByProgram lines{{"ZMRuntime", {"earlier"}}};
        const Result r = Parse(form, data, lines);
        EXPECT_EQ(r.offset, data.size());
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(lines["ZMRuntime"],
                  (Lines{"earlier", kLine1, kLine2, "2023-11-14 22:13:20.123|4711|INFO|f|t5"}));
        EXPECT_EQ(lines["CellEmulation"].size(), 1U);
    }
}

TEST(ParseLogline, JunkAndUnknownNamesOfAListedLengthAreSkipped) {
    const auto skips = [](std::uint64_t from, std::uint64_t to) {
        std::string s;
        for (std::uint64_t p = from; p <= to; ++p) s += "invalid Bytes " + std::to_string(p) + "\n";
        return s;
    };
    LinesByProgram lines;
    EXPECT_EQ(Parse(kOneShot, std::string(1, '\0') + Rec1(), lines).out, "exist invalid bytes\n");
    EXPECT_EQ(Parse(kStream, std::string(3, '\x7f') + Rec1(), lines).out, skips(1, 3));
    EXPECT_EQ(lines["ZMRuntime"], (Lines{kLine1, kLine1}));

    // Rejected once cut out: resumes one byte after the header, then skips to Rec2.
    const std::string bad = Rec1("ZMRuntimX");
    lines.clear();
    EXPECT_EQ(Parse(kOneShot, bad + kRec2, lines).out, "exist invalid bytes\n");
    EXPECT_EQ(Parse(kStream, bad + kRec2, lines).out,
              "invalid Bytes" + std::to_string(bad.size()) + "\n" + skips(2, bad.size()));
    EXPECT_EQ(lines, (LinesByProgram{{"ZMRuntime", {kLine2, kLine2}}}));

    // Programs are accepted once listed; the stream's program filter drops
    // the others silently.
    lines.clear();
    EXPECT_EQ(Parse(kOneShot, Rec1("ToolTest"), lines, "ToolTest").out, "");
    AddVaildProgram("LongerToolName");  // a length not listed before
    EXPECT_EQ(
        Parse(kStream, Rec1("LongerToolName") + kRec2 + Rec1("ToolTest"), lines, "LongerToolName")
            .out,
        "");
    EXPECT_EQ(lines, (LinesByProgram{{"ToolTest", {kLine1}}, {"LongerToolName", {kLine1}}}));
}

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
    zmtest::Figure("records found in 10 MiB of random bytes: %llu",
                   static_cast<unsigned long long>(walker.RecordCount()));
    EXPECT_LE(walker.RecordCount(), 2U);
}

}  // namespace
