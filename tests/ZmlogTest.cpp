// zmlog: its formats and times in memory, and the program run on log files
// written here, its output compared letter for letter.

#include <random>
#include <tuple>

#include "LogReader.h"
#include "TimeSpec.h"
#include "support/Fixtures.h"

namespace {

using namespace PF::Utils::LOG::zmlog;
using zmtest::MakeRecord;

constexpr long long kT0 = 1700000000123456LL;  // 2023-11-14 22:13:20.123456 UTC

// Reads plain records as zmlog would with the options o.
std::string Render(const Options& o, const std::string& plain) {
    OutputSink out(-1);
    LogReader reader(o, o.color == ColorMode::kAlways, out);
    reader.Source().FeedPlain(plain.data(), plain.size());
    reader.Source().EndOfStream();
    reader.Finish();
    return out.Text();
}

TEST(ZmlogFormat, EveryFormatAgainstItsFixedText) {
    const std::string log =
        MakeRecord("main", "PressLine7", "net", " link up", 2, 0, false, 8565, kT0) +
        MakeRecord("Poll", "ZMRuntime", "u=", "\xc8", 3, 2, false, 17, kT0 + 1500, 0x10000) +
        MakeRecord("rx", "emu_core", "frame", std::string("\xde\xad\x00\xef", 4), 1, 0, true, 9,
                   kT0 + 2000000) +
        MakeRecord("say \"hi\"", "BusBridge", "t\\g", "a\nb\t\x01 \xc3\xa9", 6, 0, false, 7,
                   999999);
    const struct {
        OutputFormat format;
        std::vector<std::string> programs;
        std::string expected;
    } cases[] = {
        {OutputFormat::kShort,
         {},
         "2023-11-14 22:13:20.123 PressLine7[8565] INFO main: net link up\n"
         "2023-11-14 22:13:20.124 ZMRuntime[17] WARN Poll: u=\xc8\n"
         "2023-11-14 22:13:22.123 emu_core[9] DEBUG rx: frame\n"
         "0000  de-ad-00-ef                                      ....\n"
         "1970-01-01 00:00:00.999 BusBridge[7] Record say \"hi\": t\\ga\nb\t\x01 \xc3\xa9\n"},
        {OutputFormat::kPipe,
         {"PressLine7", "emu_core"},
         "2023-11-14 22:13:20.123|8565|INFO|main|net link up\n"
         "2023-11-14 22:13:22.123|9|DEBUG|rx|frame\n"
         "0000  de-ad-00-ef                                      ....\n"},
        {OutputFormat::kJson,
         {"ZMRuntime", "BusBridge"},
         "{\"time\":\"2023-11-14T22:13:20.124956+00:00\",\"time_us\":1700000000124956,\"thread\":"
         "17,\"level\":\"WARN\",\"program\":\"ZMRuntime\",\"function\":\"Poll\",\"tag\":\"u=\","
         "\"content\":\"\xef\xbf\xbd\",\"type\":\"unsigned char\",\"value\":200,\"component\":"
         "65536,\"binary\":false}\n"
         "{\"time\":\"1970-01-01T00:00:00.999999+00:00\",\"time_us\":999999,\"thread\":7,"
         "\"level\":\"Record\",\"program\":\"BusBridge\",\"function\":\"say \\\"hi\\\"\",\"tag\":"
         "\"t\\\\g\",\"content\":\"a\\nb\\t\\u0001 \xc3\xa9\",\"type\":\"text\",\"component\":0,"
         "\"binary\":false}\n"},
        {OutputFormat::kVerbose,
         {"ZMRuntime", "BusBridge"},
         "time=2023-11-14T22:13:20.124956+00:00\nflags=0x0003 (WARN)\nprogramLen=9\n"
         "functionLen=4\ntagLen=2\ncontentLen=1\nvalueType=2 (unsigned char)\nthreadId=17\n"
         "component=0x00010000\ntimeUs=1700000000124956\nfunction=Poll\nprogram=ZMRuntime\n"
         "tag=u=\ncontent=\\xc8\nvalue=200\n\n"
         "time=1970-01-01T00:00:00.999999+00:00\nflags=0x0006 (Record)\nprogramLen=9\n"
         "functionLen=8\ntagLen=3\ncontentLen=8\nvalueType=0 (text)\nthreadId=7\n"
         "component=0x00000000\ntimeUs=999999\nfunction=say \"hi\"\nprogram=BusBridge\n"
         "tag=t\\\\g\ncontent=a\\nb\\t\\x01 \\xc3\\xa9\n\n"},
    };
    for (const auto& c : cases) {
        Options o;
        o.output = c.format;
        o.programs = c.programs;
        EXPECT_EQ(Render(o, log), c.expected) << static_cast<int>(c.format);
    }
}

TEST(ZmlogFormat, TimesAsPeopleTypeThemAgainstAFixedClock) {
    // The tests run with TZ=UTC.
    constexpr std::int64_t kS = 1000000;
    constexpr std::int64_t kDay = 1699920000 * kS;  // 2023-11-14 00:00
    constexpr std::int64_t kMarch1 = 1677628800 * kS;
    const std::tuple<std::int64_t, const char*, std::int64_t> good[] = {
        {kT0, "now", kT0},
        {kT0, "today", kDay},
        {kMarch1 + 5, "yesterday", kMarch1 - 86400 * kS},  // across a month's end
        {kT0, "tomorrow", kDay + 86400 * kS},
        {kT0, "-15min", kT0 - 900 * kS},
        {kT0, "-2h", kT0 - 7200 * kS},
        {kT0, "+1h30min", kT0 + 5400 * kS},
        {kT0, "-500ms", kT0 - 500000},
        {kT0, "-2weeks", kT0 - 14 * 86400 * kS},
        {kT0, "08:30:15.5", kDay + 30615 * kS + 500000},
        {kT0, "2023-11-13", kDay - 86400 * kS},
        {kT0, "2023-11-14T22:13:23.123456", 1700000003 * kS + 123456},
    };
    for (const auto& [now, text, expected] : good) {
        std::int64_t us = 0;
        EXPECT_TRUE(ParseTimeSpec(text, now, us)) << text;
        EXPECT_EQ(us, expected) << text;
    }
    for (const char* bad : {"", "someday", "-", "-15", "15min", "-15 min", "-15parsecs", "24:00",
                            "8:30", "2023-02-30", "2023-11-14 22:13:2", "2023-11-14x"}) {
        std::int64_t us = 0;
        EXPECT_FALSE(ParseTimeSpec(bad, kT0, us)) << bad;
    }
}

// zmlog as a program, in an installation whose log directory holds files
// written here.
class ZmlogRun : public ::testing::Test {
  protected:
    std::string LogFile(const std::string& s = "") const { return install.DataFile() + s; }
    zmtest::ProcessResult Run(const std::vector<std::string>& args) { return install.Zmlog(args); }
    // Record i of a program, written second i after kT0, and its line.
    static std::string Rec(int i, unsigned level = 2, const std::string& program = "PressLine7",
                           const std::string& function = "Poll", const std::string& tag = "") {
        return MakeRecord(function, program, tag, "record " + std::to_string(i), level, 0, false,
                          4711, kT0 + i * 1000000LL);
    }
    static std::string Line(int i, const std::string& level = "INFO",
                            const std::string& program = "PressLine7",
                            const std::string& function = "Poll", const std::string& tag = "") {
        char stamp[40];
        std::snprintf(stamp, sizeof stamp, "2023-11-14 22:%02d:%02d.123 ", 13 + (20 + i) / 60,
                      (20 + i) % 60);
        return stamp + program + "[4711] " + level + " " + function + ": " + tag + "record " +
               std::to_string(i) + "\n";
    }
    zmtest::Installation install{""};
};

TEST_F(ZmlogRun, ReadsRolledSetOldestFirstAcrossRollBoundaries) {
    const std::string r1 = Rec(1, 3, "CellEmulation");
    const std::string r2 = Rec(2, 1, "ZMRuntime");
    // Numbered names order by number, not by text: _10 is the oldest.
    install.AppendLog(Rec(0), "_10");
    install.AppendLog(r1.substr(0, 50), "_2");  // a record cut by two rolls
    install.AppendLog(r1.substr(50) + r2.substr(0, 20), "_1");
    install.AppendLog(r2.substr(20) + Rec(3, 4, "BusBridge"));
    const std::string expected = Line(0) + Line(1, "WARN", "CellEmulation") +
                                 Line(2, "DEBUG", "ZMRuntime") + Line(3, "ERROR", "BusBridge");
    // No argument: the library's log directory from ZM_VELDOR_DATA.
    const auto r = Run({});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, expected);
    // Files in the order a shell glob gives them.
    EXPECT_EQ(Run({LogFile(), LogFile("_1"), LogFile("_10"), LogFile("_2")}).out, expected);
    EXPECT_EQ(Run({"--micro", install.LogDir(), "-n", "1"}).out,
              "2023-11-14 22:13:23.123456 BusBridge[4711] ERROR Poll: record 3\n");
}

TEST_F(ZmlogRun, FiltersAndColour) {
    // "MyTool" is no program the library's decoder knows: shown all the same.
    install.AppendLog(Rec(0, 2, "ZMRuntime", "Up", "net") +
                      Rec(1, 3, "CellEmulation", "Poll", "io") +
                      Rec(2, 4, "MyTool", "Save", "net") + Rec(3, 5, "ZMRuntime", "Down", "io"));
    const std::string up = Line(0, "INFO", "ZMRuntime", "Up", "net");
    const std::string poll = Line(1, "WARN", "CellEmulation", "Poll", "io");
    const std::string save = Line(2, "ERROR", "MyTool", "Save", "net");
    const std::string down = Line(3, "FATAL", "ZMRuntime", "Down", "io");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, up + poll + save + down},  // no colour into a pipe
        {{"--color=always", "--tag=net", "--level=error"},
         "2023-11-14 22:13:22.123 MyTool[4711] \x1b[31mERROR\x1b[0m Save: netrecord 2\n"},
        {{"--level", "warn"}, poll + save + down},
        {{"--program=ZMRuntime", "--program=CellEmulation", "--level=4"}, down},
        {{"--tag", "io"}, poll + down},
        {{"--grep", "Dow"}, down},  // the function name counts too
        {{"--since", "2023-11-14 22:13:21", "--until", "2023-11-14T22:13:23.123456"},
         poll + save + down},
        {{"--until", "2023-11-14 22:13:20"}, ""},
        {{"-n", "2"}, save + down},
        {{"-r", "-n", "2"}, down + save},
        {{"-n1", "--level=info", "--program=ZMRuntime", "--tag=net"}, up},
    };
    for (const auto& [args, out] : cases)
        EXPECT_EQ(Run(args).out, out) << ::testing::PrintToString(args);
}

TEST_F(ZmlogRun, StatsCountProgramsLevelsSpanDamageAndLosses) {
    // The library's own notices of the log's gaps (thread 0, tag "zmlog").
    const auto notice = [](int s, const std::string& content) {
        return MakeRecord("ReportLosses", "MyTool", "zmlog", content, 3, 0, false, 0,
                          kT0 + s * 1000000LL);
    };
    install.AppendLog("junk" + Rec(0, 2, "ZMRuntime"), "_1");
    install.AppendLog(Rec(1, 3, "CellEmulation") +
                      notice(2,
                             "lost 5 records: lock busy 3, ring full 0, too long 2, rate "
                             "limited 0, since 22:13:20.000") +
                      notice(2, "discarded 1000 bytes of unread records") +
                      // A writer's record that reads like a notice is not one.
                      MakeRecord("Poll", "ZMRuntime", "zmlog",
                                 "lost 7 records: lock busy 7, ring full 0, too long 0, rate "
                                 "limited 0, since 22:13:20.000",
                                 3, 0, false, 4711, kT0 + 3000000LL) +
                      Rec(5, 2, "ZMRuntime").substr(0, 40));
    // Damaged: "junk" and the cut record's 40 bytes.
    const std::string expected =
        "records: 5\nspan: 2023-11-14 22:13:20.123456 .. 2023-11-14 22:13:23.123456\n"
        "damaged bytes skipped: 44\n"
        "program        TRACE  DEBUG   INFO   WARN  ERROR  FATAL  Record     total\n"
        "CellEmulation      0      0      0      1      0      0       0         1\n"
        "MyTool             0      0      0      2      0      0       0         2\n"
        "ZMRuntime          0      0      1      1      0      0       0         2\n"
        "all                0      0      1      4      0      0       0         5\n"
        "records lost   lock busy  ring full  too long  rate limited     total  bytes discarded\n"
        "MyTool                 3          0         2             0         5             1000\n";
    auto r = Run({"--stats"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, expected);
    // On a terminal a gap stands out.
    EXPECT_EQ(Run({"--color=always", "--program=MyTool", "-n", "1"}).out,
              "\x1b[1;7;31m2023-11-14 22:13:22.123 MyTool[0] WARN ReportLosses: zmlogdiscarded "
              "1000 bytes of unread records\x1b[0m\n");
}

TEST_F(ZmlogRun, SaysWhatItCouldNotReadAndNothingElse) {
    // Unknown level and value type and extreme times are damage; a typed
    // value with fewer bytes than its type at the very end reads as zeros.
    install.AppendLog(Rec(0) + "junk" +
                          MakeRecord("l7", "emu_core", "", "x", 7, 0, false, 1, INT64_MIN) +
                          MakeRecord("vt", "emu_core", "", "x", 2, 99, false, 1, INT64_MAX),
                      "_1");
    install.AppendLog("bad" + Rec(1) +
                      MakeRecord("Short", "ZMRuntime", "", "", 2, 13, false, 4711, kT0 + 3000000));
    std::string noise(100000, '\0');
    std::mt19937 random(3);
    for (char& c : noise) c = static_cast<char>(random());
    const std::string noiseFile = install.Root() + "/noise.data";
    zmtest::WriteFile(noiseFile, noise);
    const std::string textLog = "2023-11-14 22:13:20.123|4711|INFO|main|netlink up\n";
    const std::string textFile = install.Root() + "/PressLine7.log";
    zmtest::WriteFile(textFile, textLog);
    const std::string lines =
        Line(0) + Line(1) + "2023-11-14 22:13:23.123 ZMRuntime[4711] INFO Short: 0\n";
    const std::string damage =
        "zmlog: skipped 93 damaged bytes (90 in " + LogFile("_1") + ", 3 in " + LogFile() + ")\n";
    // Exit status, output and messages; the library's notes on the
    // environment never appear: zmlog only reads.
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "0|" + lines + "|" + damage},
        {{"-q"}, "0|" + lines + "|"},
        {{noiseFile},
         "3||zmlog: no log record in " + noiseFile + " (100000 bytes): not a log of the runtime\n"},
        {{textFile},
         "0|" + textLog + "|zmlog: " + textFile + " holds text, not log records: shown as it is\n"},
        {{"--quiet", textFile}, "0|" + textLog + "|"},
    };
    for (const auto& [args, expected] : cases) {
        const auto r = Run(args);
        EXPECT_EQ(std::to_string(r.exitCode) + "|" + r.out + "|" + r.err, expected)
            << ::testing::PrintToString(args);
    }
}

// The follower prints every record once, in order, also when the log rolls
// twice while it is stopped (as when its output blocks).
TEST_F(ZmlogRun, FollowerPrintsEveryRecordOnceAcrossRolls) {
    std::string expected;
    int next = 0;
    const auto records = [&](int n) {
        std::string plain;
        for (int i = 0; i < n; ++i, ++next) {
            plain += Rec(next);
            expected += Line(next);
        }
        return plain;
    };
    install.AppendLog(records(5));
    auto follow = install.StartZmlog({"-f"});
    ASSERT_TRUE(follow->WaitForOutput(Line(4)));
    install.AppendLog(records(1));
    ASSERT_TRUE(follow->WaitForOutput(Line(5)));
    follow->Signal(SIGSTOP);
    const std::string stat = "/proc/" + std::to_string(follow->Pid()) + "/stat";
    ASSERT_TRUE(zmtest::WaitUntil(
        [&] { return zmtest::ReadFile(stat).find(") T ") != std::string::npos; }));
    for (int roll = 0; roll < 2; ++roll) {
        const std::string plain = records(5);
        const std::string cut = records(1);
        install.AppendLog(plain + cut.substr(0, 30));
        install.RollLog();
        install.AppendLog(cut.substr(30) + records(4));
    }
    follow->Signal(SIGCONT);
    install.AppendLog(records(1));
    ASSERT_TRUE(follow->WaitForOutput(Line(next - 1))) << follow->OutSoFar();
    EXPECT_EQ(follow->OutSoFar(), expected);
}

}  // namespace
