// zmlog's output formats, times and record source, on logs built in memory;
// then what the tool says about inputs it cannot read, and a follower that
// falls behind several rolls, run as a process.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "LogReader.h"
#include "TimeSpec.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
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
    const unsigned char byte = 200;
    const std::string log =
        MakeRecord("main", "PressLine7", "net", " link up", 2, 0, false, 8565, kT0) +
        MakeRecord("Poll", "ZMRuntime", "u=", std::string(1, static_cast<char>(byte)), 3, 2, false,
                   17, kT0 + 1500, 0x10000) +
        MakeRecord("rx", "emu_core", "frame", std::string("\xde\xad\x00\xef", 4), 1, 0, true, 9,
                   kT0 + 2000000);
    const std::string short1 = "2023-11-14 22:13:20.123 PressLine7[8565] INFO main: net link up\n";
    const std::string short2 = "2023-11-14 22:13:20.124 ZMRuntime[17] WARN Poll: u=\xc8\n";
    const std::string short3 =
        "2023-11-14 22:13:22.123 emu_core[9] DEBUG rx: frame\n"
        "0000  de-ad-00-ef                                      ....\n";
    const std::tuple<const char*, std::function<void(Options&)>, std::string> cases[] = {
        {"short", [](Options&) {}, short1 + short2 + short3},
        {"micro",
         [](Options& o) {
             o.micro = true;
             o.programs = {"PressLine7"};
         },
         "2023-11-14 22:13:20.123456 PressLine7[8565] INFO main: net link up\n"},
        {"colour",
         [](Options& o) {
             o.color = ColorMode::kAlways;
             o.programs = {"PressLine7"};
         },
         "2023-11-14 22:13:20.123 PressLine7[8565] \x1b[32mINFO\x1b[0m main: net link up\n"},
        {"pipe", [](Options& o) { o.output = OutputFormat::kPipe; },
         "2023-11-14 22:13:20.123|8565|INFO|main|net link up\n"
         "2023-11-14 22:13:20.124|17|WARN|Poll|u=\xc8\n"
         "2023-11-14 22:13:22.123|9|DEBUG|rx|frame\n"
         "0000  de-ad-00-ef                                      ....\n"},
        {"cat", [](Options& o) { o.output = OutputFormat::kCat; },
         "net link up\nu=\xc8\nframe\n0000  de-ad-00-ef                                      "
         "....\n"},
        {"json", [](Options& o) { o.output = OutputFormat::kJson; },
         "{\"time\":\"2023-11-14T22:13:20.123456+00:00\",\"time_us\":1700000000123456,\"thread\":"
         "8565,\"level\":\"INFO\",\"program\":\"PressLine7\",\"function\":\"main\",\"tag\":\"net\","
         "\"content\":\" link up\",\"type\":\"text\",\"component\":0,\"binary\":false}\n"
         "{\"time\":\"2023-11-14T22:13:20.124956+00:00\",\"time_us\":1700000000124956,\"thread\":"
         "17,"
         "\"level\":\"WARN\",\"program\":\"ZMRuntime\",\"function\":\"Poll\",\"tag\":\"u=\","
         "\"content\":\"\xef\xbf\xbd\",\"type\":\"unsigned "
         "char\",\"value\":200,\"component\":65536,"
         "\"binary\":false}\n"
         "{\"time\":\"2023-11-14T22:13:22.123456+00:00\",\"time_us\":1700000002123456,\"thread\":9,"
         "\"level\":\"DEBUG\",\"program\":\"emu_core\",\"function\":\"rx\",\"tag\":\"frame\","
         "\"content\":\"dead00ef\",\"type\":\"binary\",\"component\":0,\"binary\":true}\n"},
        {"verbose",
         [](Options& o) {
             o.output = OutputFormat::kVerbose;
             o.programs = {"ZMRuntime"};
         },
         "time=2023-11-14T22:13:20.124956+00:00\nflags=0x0003 (WARN)\nprogramLen=9\n"
         "functionLen=4\ntagLen=2\ncontentLen=1\nvalueType=2 (unsigned char)\nthreadId=17\n"
         "component=0x00010000\ntimeUs=1700000000124956\nfunction=Poll\nprogram=ZMRuntime\n"
         "tag=u=\ncontent=\\xc8\nvalue=200\n\n"},
        {"reverse", [](Options& o) { o.reverse = true; }, short3 + short2 + short1},
        {"last 2, newest first",
         [](Options& o) {
             o.reverse = true;
             o.lastOnly = true;
             o.last = 2;
         },
         short3 + short2},
    };
    for (const auto& [name, set, expected] : cases) {
        Options o;
        set(o);
        EXPECT_EQ(Render(o, log), expected) << name;
    }
}

// Where each record starts (file and offset) and which file holds which
// damaged bytes, across a record cut by a roll: what a reader that resumes
// at a position, or reports damage by file, stands on.
TEST(ZmlogFormat, RecordSourceKnowsEachRecordsFileAndEachFilesDamage) {
    const std::string a = MakeRecord("f", "PressLine7", "", "first");
    const std::string b = MakeRecord("f", "PressLine7", "", "cut by the roll");
    const std::string c = MakeRecord("f", "PressLine7", "", "last");
    const std::string older = a + "junk" + b.substr(0, 40);
    const std::string newer = b.substr(40) + "bad" + c;
    std::vector<std::string> found;
    RecordSource source([&](PF::Utils::LOG::WalkedRecord& r, const SourceFile& file,
                            std::uint64_t offset) {
        found.push_back(std::string(r.content) + "@" + file.path + ":" + std::to_string(offset));
    });
    for (const auto& [path, bytes] : {std::pair{"old", older}, std::pair{"new", newer}}) {
        source.BeginFile(path, FileId{1, path[0] == 'o' ? 7U : 8U});
        const std::string stored = zmtest::Unscramble(bytes);
        source.FeedPlain(bytes.data(), 0);  // nothing at all is fine
        std::copy(stored.begin(), stored.end(), source.Reserve(stored.size()));
        source.Commit(stored.size());
    }
    source.EndOfStream();
    const std::vector<std::string> expected = {
        "first@old:0", "cut by the roll@old:" + std::to_string(a.size() + 4),
        "last@new:" + std::to_string(newer.size() - c.size())};
    EXPECT_EQ(found, expected);
    ASSERT_EQ(source.Files().size(), 2U);
    EXPECT_EQ(source.Files()[0].damagedBytes, 4U);
    EXPECT_EQ(source.Files()[1].damagedBytes, 3U);
    EXPECT_EQ(source.DamagedBytes(), 7U);
}

TEST(ZmlogTime, AsPeopleTypeThemAgainstAFixedClock) {
    // The tests run with TZ=UTC.
    constexpr std::int64_t kS = 1000000;
    constexpr std::int64_t kDay = 1699920000 * kS;  // 2023-11-14 00:00
    constexpr std::int64_t kMarch1 = 1677628800 * kS;
    const std::tuple<std::int64_t, const char*, std::int64_t> good[] = {
        {kT0, "now", kT0},
        {kT0, "today", kDay},
        {kT0, "yesterday", kDay - 86400 * kS},
        {kT0, "tomorrow", kDay + 86400 * kS},
        {kMarch1 + 5, "yesterday", kMarch1 - 86400 * kS},  // across a month's end
        {kT0, "-15min", kT0 - 900 * kS},
        {kT0, "-2h", kT0 - 7200 * kS},
        {kT0, "-1d", kT0 - 86400 * kS},
        {kT0, "+1h30min", kT0 + 5400 * kS},
        {kT0, "-500ms", kT0 - 500000},
        {kT0, "-2weeks", kT0 - 14 * 86400 * kS},
        {kT0, "08:30", kDay + 8 * 3600 * kS + 1800 * kS},
        {kT0, "08:30:15.5", kDay + 30615 * kS + 500000},
        {kT0, "2023-11-13", kDay - 86400 * kS},
        {kT0, "2023-11-14 22:13:21", 1700000001 * kS},
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

// The zmlog program on files written here (scrambled, as the archiver stores
// them), its output and messages compared letter for letter.
class ZmlogRun : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directories(install.LogDir()); }
    std::string LogFile(const std::string& s = "") const { return install.DataFile() + s; }
    void Write(const std::string& path, const std::string& plain, bool scramble = true) {
        const std::string bytes = scramble ? zmtest::Unscramble(plain) : plain;
        FILE* f = std::fopen(path.c_str(), "ab");
        ASSERT_NE(f, nullptr);
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    std::vector<std::string> Env(const std::string& tz = "UTC") const {
        // Only the log directory is given: the library's set-up would say
        // that ZM_VELDOR_HOME is not set (an entry without "=" unsets it).
        return {"ZM_VELDOR_DATA=" + install.Data(), "ZM_VELDOR_HOME", "TZ=" + tz};
    }
    zmtest::ProcessResult Run(const std::vector<std::string>& args, const std::string& tz = "UTC") {
        return zmtest::RunHelper(kZmlog, "zmlog", args, Env(tz), 20s, install.Root());
    }
    static std::string Rec(int i) {
        return MakeRecord("Poll", "PressLine7", "", "record " + std::to_string(i), 2, 0, false,
                          4711, kT0 + i * 1000000LL);
    }
    static std::string Line(int i) {
        char text[96];
        std::snprintf(text, sizeof text,
                      "2023-11-14 22:%02d:%02d.123 PressLine7[4711] INFO Poll: "
                      "record %d\n",
                      13 + (20 + i) / 60, (20 + i) % 60, i);
        return text;
    }
    const std::string kZmlog = ZMLOG_TOOLS_DIR "/zmlog/zmlog";
    zmtest::TempInstall install;
};

TEST_F(ZmlogRun, SaysWhatItCouldNotReadAndNothingElse) {
    Write(LogFile("_1"), Rec(0) + "junk");
    Write(LogFile(), "bad" + Rec(1));
    std::string noise(100000, '\0');
    std::mt19937 random(3);
    for (char& c : noise) c = static_cast<char>(random());
    const std::string noiseFile = install.Root() + "/noise.data";
    Write(noiseFile, noise, false);
    const std::string textLog = "2023-11-14 22:13:20.123|4711|INFO|main|netlink up\n";
    const std::string textFile = install.Root() + "/PressLine7.log";
    Write(textFile, textLog, false);
    const std::string damage =
        "zmlog: skipped 7 damaged bytes (4 in " + LogFile("_1") + ", 3 in " + LogFile() + ")\n";
    // The library's notes on the environment never appear: zmlog only reads.
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{}, 0, Line(0) + Line(1), damage},
        {{"-q"}, 0, Line(0) + Line(1), ""},
        {{LogFile()}, 0, Line(1), "zmlog: skipped 3 damaged bytes in " + LogFile() + "\n"},
        {{noiseFile},
         3,
         "",
         "zmlog: no log record in " + noiseFile + " (100000 bytes): not a log of the runtime\n"},
        {{textFile},
         0,
         textLog,
         "zmlog: " + textFile + " holds text, not log records: shown as it is\n"},
        {{"--quiet", textFile}, 0, textLog, ""},
    };
    for (const auto& [args, status, out, err] : cases) {
        const auto r = Run(args);
        EXPECT_EQ(r.exitCode, status) << ::testing::PrintToString(args);
        EXPECT_EQ(r.out, out) << ::testing::PrintToString(args);
        EXPECT_EQ(r.err, err) << ::testing::PrintToString(args);
    }
    // Times printed and read in UTC whatever the zone.
    EXPECT_EQ(Run({"-q", "--utc", "--since", "2023-11-14 22:13:21"}, "IST-5:30").out, Line(1));
}

// The log rolls twice while the follower is stopped (as when its output
// blocks): every record is printed once, in order, including those of the
// file that was created and rolled away meanwhile and the two cut by a roll.
TEST_F(ZmlogRun, FollowerStoppedAcrossTwoRollsPrintsEveryRecordOnce) {
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
    Write(LogFile(), records(5));
    zmtest::Child follow(kZmlog, "zmlog", {"-f"}, Env(), install.Root());
    ASSERT_TRUE(follow.WaitForOutput(Line(4), 5s));
    follow.Signal(SIGSTOP);
    const std::string stat = "/proc/" + std::to_string(follow.Pid()) + "/stat";
    ASSERT_TRUE(zmtest::WaitUntil([&] {
        const std::string text = zmtest::ReadFile(stat);
        return text.find(") T ") != std::string::npos;
    }));
    for (int roll = 0; roll < 2; ++roll) {
        const std::string plain = records(5);
        const std::string cut = records(1);
        Write(LogFile(), plain + cut.substr(0, 30));
        if (roll == 1) std::filesystem::rename(LogFile("_1"), LogFile("_2"));
        std::filesystem::rename(LogFile(), LogFile("_1"));
        Write(LogFile(), cut.substr(30) + records(4));
    }
    follow.Signal(SIGCONT);
    Write(LogFile(), records(1));
    ASSERT_TRUE(follow.WaitForOutput(Line(next - 1), 5s)) << follow.OutSoFar();
    EXPECT_EQ(follow.OutSoFar(), expected);
    std::printf(
        "[ figures  ] follower stopped across two rolls: %d records written, %zu lines\n", next,
        static_cast<size_t>(std::count(follow.OutSoFar().begin(), follow.OutSoFar().end(), '\n')));
}

}  // namespace
