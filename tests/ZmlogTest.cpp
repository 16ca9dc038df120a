// zmlog run as operators run it: a child process reading log files written
// here, its output compared letter for letter.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using zmtest::MakeRecord;

const std::string kZmlog = ZMLOG_TOOLS_DIR "/zmlog/zmlog";
constexpr long long kT0 = 1700000000123456LL;  // 2023-11-14 22:13:20.123456 UTC

// Writes records as the archiver stores them: scrambled.
void WriteLogFile(const std::string& path, const std::string& plain, bool append = false) {
    FILE* f = std::fopen(path.c_str(), append ? "ab" : "wb");
    ASSERT_NE(f, nullptr);
    const std::string bytes = zmtest::Unscramble(plain);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

// A default line of a record of program written second s after kT0 (UTC).
std::string Line(int s, const std::string& program, const std::string& rest) {
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "2023-11-14 22:13:%02d.123 ", 20 + s);
    return stamp + program + "[4711] " + rest + "\n";
}

std::string Rec(int s, unsigned level, const std::string& program, const std::string& function,
                const std::string& tag, const std::string& content) {
    return MakeRecord(function, program, tag, content, level, 0, false, 4711, kT0 + s * 1000000LL);
}

class ZmlogTest : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directories(install.LogDir()); }
    std::string LogFile(const std::string& s = "") const { return install.DataFile() + s; }
    std::vector<std::string> Env(const std::string& tz = "UTC") const {
        std::vector<std::string> env = install.Env();
        env.push_back("TZ=" + tz);
        return env;
    }
    // Run in the installation's root: without a configuration the library
    // keeps a private log file in the working directory, not to land in ours.
    zmtest::ProcessResult Run(const std::vector<std::string>& args, const std::string& tz = "UTC") {
        return zmtest::RunHelper(kZmlog, "zmlog", args, Env(tz), 20s, install.Root());
    }
    zmtest::TempInstall install;
};

TEST_F(ZmlogTest, ReadsRolledSetOldestFirstAcrossRollBoundaries) {
    const std::string r1 = Rec(1, 3, "CellEmulation", "Poll", "io", "queue 3");
    const std::string r2 = Rec(2, 1, "ZMRuntime", "Tick", "", "cycle 17");
    // Numbered names order by number, not by text: _10 is the oldest.
    WriteLogFile(LogFile("_10"), Rec(0, 2, "ZMRuntime", "main", "net", "link up"));
    WriteLogFile(LogFile("_2"), r1.substr(0, 50));  // a record cut by two rolls
    WriteLogFile(LogFile("_1"), r1.substr(50) + r2.substr(0, 20));
    WriteLogFile(LogFile(), r2.substr(20) + Rec(3, 4, "BusBridge", "Scan", "bus", "slave 4 lost"));
    const std::string expected = Line(0, "ZMRuntime", "INFO main: netlink up") +
                                 Line(1, "CellEmulation", "WARN Poll: ioqueue 3") +
                                 Line(2, "ZMRuntime", "DEBUG Tick: cycle 17") +
                                 Line(3, "BusBridge", "ERROR Scan: busslave 4 lost");

    // No argument: the library's log directory from ZM_VELDOR_DATA.
    auto r = Run({});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, expected);
    // Files in the order a shell glob gives them.
    EXPECT_EQ(Run({LogFile(), LogFile("_1"), LogFile("_10"), LogFile("_2")}).out, expected);
    EXPECT_EQ(Run({"--micro", install.LogDir(), "-n", "1"}).out,
              "2023-11-14 22:13:23.123456 BusBridge[4711] ERROR Scan: busslave 4 lost\n");
}

TEST_F(ZmlogTest, JsonFieldsEscapingAndTimeOffset) {
    const double value = 2.5;
    const std::string typed(reinterpret_cast<const char*>(&value), 8);
    const std::string text = "a\nb\t\x01 \xc3\xa9 \xff";
    WriteLogFile(
        LogFile(),
        MakeRecord("say \"hi\"", "ZMRuntime", "t\\g", text, 2, 0, false, 7, kT0, 0xDEADBEEF) +
            MakeRecord("dump", "emu_core", "bin", std::string("\0\1\xab", 3), 1, 0, true, 8, kT0) +
            MakeRecord("val", "BusBridge", "v", typed, 6, 12, false, 9, 999999));
    EXPECT_EQ(Run({"--json"}).out,
              "{\"time\":\"2023-11-14T22:13:20.123456+00:00\",\"time_us\":1700000000123456,"
              "\"thread\":7,\"level\":\"INFO\",\"program\":\"ZMRuntime\",\"function\":\"say "
              "\\\"hi\\\"\",\"tag\":\"t\\\\g\",\"content\":\"a\\nb\\t\\u0001 \xc3\xa9 "
              "\xef\xbf\xbd\",\"type\":\"text\",\"component\":3735928559,\"binary\":false}\n"
              "{\"time\":\"2023-11-14T22:13:20.123456+00:00\",\"time_us\":1700000000123456,"
              "\"thread\":8,\"level\":\"DEBUG\",\"program\":\"emu_core\",\"function\":\"dump\","
              "\"tag\":\"bin\",\"content\":\"0001ab\",\"type\":\"binary\",\"component\":0,"
              "\"binary\":true}\n"
              "{\"time\":\"1970-01-01T00:00:00.999999+00:00\",\"time_us\":999999,\"thread\":9,"
              "\"level\":\"Record\",\"program\":\"BusBridge\",\"function\":\"val\",\"tag\":\"v\","
              "\"content\":\"2.5\",\"type\":\"double\",\"value\":2.5,\"component\":0,"
              "\"binary\":false}\n");
    // The offset is the local zone's.
    EXPECT_NE(
        Run({"--json", "-n", "1"}, "IST-5:30").out.find("\"1970-01-01T05:30:00.999999+05:30\""),
        std::string::npos);
}

TEST_F(ZmlogTest, FiltersAndColour) {
    // "MyTool" is no program the library's decoder knows: shown all the same.
    WriteLogFile(LogFile(), Rec(0, 2, "ZMRuntime", "Up", "net", "link up") +
                                Rec(1, 3, "CellEmulation", "Poll", "io", "queue full") +
                                Rec(2, 4, "MyTool", "Save", "net", "disk full") +
                                Rec(3, 5, "ZMRuntime", "Down", "io", "link down"));
    const std::string up = Line(0, "ZMRuntime", "INFO Up: netlink up");
    const std::string poll = Line(1, "CellEmulation", "WARN Poll: ioqueue full");
    const std::string save = Line(2, "MyTool", "ERROR Save: netdisk full");
    const std::string down = Line(3, "ZMRuntime", "FATAL Down: iolink down");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, up + poll + save + down},  // no colour into a pipe
        {{"--color=always", "--tag=net"},
         Line(0, "ZMRuntime", "\x1b[32mINFO\x1b[0m Up: netlink up") +
             Line(2, "MyTool", "\x1b[31mERROR\x1b[0m Save: netdisk full")},
        {{"--level", "warn"}, poll + save + down},
        {{"--level=ERROR", "--program", "MyTool"}, save},
        {{"--program=ZMRuntime", "--program=CellEmulation", "--level=4"}, down},
        {{"--tag", "io"}, poll + down},
        {{"--grep", "full"}, poll + save},
        {{"--grep", "Dow"}, down},  // the function name counts too
        {{"--since", "2023-11-14 22:13:21", "--until", "2023-11-14T22:13:23.123456"},
         poll + save + down},
        {{"--until", "2023-11-14 22:13:20"}, ""},
        {{"-n", "2"}, save + down},
        {{"-n1", "--level=info", "--program=ZMRuntime", "--tag=net"}, up},
        {{"-n", "0"}, ""},
    };
    for (const auto& [args, out] : cases)
        EXPECT_EQ(Run(args).out, out) << ::testing::PrintToString(args);
}

TEST_F(ZmlogTest, StatsCountProgramsLevelsSpanAndDamage) {
    WriteLogFile(LogFile("_1"), "junk" + Rec(0, 2, "ZMRuntime", "Up", "", "a"));
    WriteLogFile(LogFile(), Rec(1, 3, "CellEmulation", "Poll", "", "b") +
                                Rec(2, 4, "MyTool", "Save", "", "x") +
                                Rec(3, 3, "ZMRuntime", "Up", "", "c") +
                                Rec(5, 2, "ZMRuntime", "Up", "", "lost at the end").substr(0, 40));

    // Damaged: "junk" and the cut record's 40 bytes.
    const std::string expected =
        "records: 4\nspan: 2023-11-14 22:13:20.123456 .. 2023-11-14 22:13:23.123456\n"
        "damaged bytes skipped: 44\n"
        "program        TRACE  DEBUG   INFO   WARN  ERROR  FATAL  Record     total\n"
        "CellEmulation      0      0      0      1      0      0       0         1\n"
        "MyTool             0      0      0      0      1      0       0         1\n"
        "ZMRuntime          0      0      1      1      0      0       0         2\n"
        "all                0      0      1      2      1      0       0         4\n";
    auto r = Run({"--stats"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, expected);
    // Filters apply to the counts, not to the damage.
    r = Run({"--stats", "--json", "--level=warn"});
    EXPECT_EQ(r.out.rfind("{\"records\":3,", 0), 0U) << r.out;
    EXPECT_NE(r.out.find(",\"damaged_bytes\":44,"), std::string::npos) << r.out;
}

TEST_F(ZmlogTest, HostileInputIsSkippedWithoutCrashOrHang) {
    std::string stream;
    std::mt19937 random(7);
    for (int i = 0; i < 65536; ++i) stream.push_back(static_cast<char>(random()));
    stream += Rec(0, 2, "ZMRuntime", "Up", "", "after noise");
    // Unknown level and value type, extreme times, and a typed value with
    // fewer bytes than its type at the very end.
    stream += MakeRecord("l7", "emu_core", "", "x", 7, 0, false, 1, INT64_MIN);
    stream += MakeRecord("vt", "emu_core", "", "x", 2, 99, false, 1, INT64_MAX);
    stream += MakeRecord("Short", "ZMRuntime", "", "", 2, 13, false, 4711, kT0 + 3000000);
    WriteLogFile(LogFile(), stream);

    // No crash, no hang.
    for (const char* format : {"--micro", "--json", "--stats"})
        EXPECT_EQ(Run({format}).exitCode, 0);
    const std::string out = Run({}).out;
    EXPECT_NE(out.find(Line(0, "ZMRuntime", "INFO Up: after noise")), std::string::npos) << out;
    EXPECT_NE(out.find(Line(3, "ZMRuntime", "INFO Short: 0")), std::string::npos) << out;
}

TEST_F(ZmlogTest, ErrorsGiveOneLineAndStatus) {
    const std::string missing = install.Root() + "/nowhere";
    const std::string time =
        " (use YYYY-MM-DD [HH:MM[:SS]], HH:MM[:SS], now, today, yesterday, or -15min, -2h, -1d)";
    const std::string levels = " (trace, debug, info, warn, error, fatal, record)";
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{missing}, 1, "cannot open " + missing + ": No such file or directory"},
        {{}, 1, "no RUNTIME.data in " + install.LogDir()},
        {{"--bogus=1"}, 2, "unknown option '--bogus' (see zmlog --help)"},
        {{"--level"}, 2, "option '--level' needs a value"},
        {{"--level", "loud"}, 2, "unknown level 'loud'" + levels},
        {{"--since", "someday"}, 2, "bad time 'someday' for --since" + time},
        {{"--until", "2023-02-30"}, 2, "bad time '2023-02-30' for --until" + time},
        {{"-n", "-3"}, 2, "bad count '-3' for -n"},
        {{"--stats", "-f"}, 2, "--stats cannot be combined with --follow"},
        {{"-o", "syslog", "-n", "3"}, 2, "--output=syslog cannot be combined with -n"},
        {{"--cursor-file=c"}, 2, "--cursor-file needs --forward or --output=syslog"},
        {{"--facility=lcoal0"},
         2,
         "unknown facility 'lcoal0' (kern, user, daemon, ..., local0 ... local7, or 0 to 23)"},
    };
    for (const auto& [args, status, message] : cases) {
        const auto r = Run(args);
        EXPECT_EQ(r.exitCode, status) << message;
        EXPECT_EQ(r.err, "zmlog: " + message + "\n");
        EXPECT_EQ(r.out, "");
    }
    std::filesystem::remove_all(install.LogDir());
    const auto r = Run({});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err,
              "zmlog: cannot read directory " + install.LogDir() + ": No such file or directory\n");
}

TEST_F(ZmlogTest, FollowShowsAppendedRecordsAndSurvivesARoll) {
    WriteLogFile(LogFile(), Rec(0, 2, "ZMRuntime", "Up", "", "first"));
    zmtest::Child follow(kZmlog, "zmlog", {"-f"}, Env(), install.Root());
    ASSERT_TRUE(follow.WaitForOutput(Line(0, "ZMRuntime", "INFO Up: first"), 5s));
    WriteLogFile(LogFile(), Rec(1, 2, "ZMRuntime", "Up", "", "appended"), true);
    EXPECT_TRUE(follow.WaitForOutput(Line(1, "ZMRuntime", "INFO Up: appended"), 5s));

    // A roll: the old file gets the first half of a record (and is renamed
    // before zmlog may have seen it), the new file the second half.
    const std::string cut = Rec(2, 2, "ZMRuntime", "Up", "", "across the roll");
    WriteLogFile(LogFile(), cut.substr(0, 30), true);
    std::filesystem::rename(LogFile(), LogFile("_1"));
    WriteLogFile(LogFile(), cut.substr(30) + Rec(3, 2, "ZMRuntime", "Up", "", "new file"));
    EXPECT_TRUE(follow.WaitForOutput(Line(3, "ZMRuntime", "INFO Up: new file"), 5s));
    EXPECT_EQ(follow.OutSoFar(), Line(0, "ZMRuntime", "INFO Up: first") +
                                     Line(1, "ZMRuntime", "INFO Up: appended") +
                                     Line(2, "ZMRuntime", "INFO Up: across the roll") +
                                     Line(3, "ZMRuntime", "INFO Up: new file"));
}

}  // namespace
