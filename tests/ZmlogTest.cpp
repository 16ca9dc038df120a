// zmlog run as operators run it: a child process reading log files written
// here, its output compared letter for letter.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using zmtest::MakeRecord;

const std::string kZmlog = ZMLOG_TOOLS_DIR "/zmlog/zmlog";
constexpr long long kT0 = 1700000000123456LL;  // 2023-11-14 22:13:20.123456 UTC

// zmlog as a child with captured output, started in the installation's root:
// without an installation configuration the library keeps a private log file
// in the working directory, which must not land in the test's.
class Zmlog {
  public:
    Zmlog(const zmtest::TempInstall& install, const std::vector<std::string>& args,
          std::vector<std::string> env = {}, bool terminal = false) {
        std::vector<std::string> argvText{"zmlog"};
        argvText.insert(argvText.end(), args.begin(), args.end());
        for (const std::string& e : install.Env()) env.push_back(e);
        if (std::none_of(env.begin(), env.end(), [](auto& e) { return e.rfind("TZ=", 0) == 0; })) {
            env.push_back("TZ=UTC");
        }
        for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char* v = std::getenv(keep)) env.push_back(std::string(keep) + "=" + v);
        }
        std::vector<char*> argv;
        for (auto& a : argvText) argv.push_back(a.data());
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (auto& e : env) envp.push_back(e.data());
        envp.push_back(nullptr);

        int out[2];
        int err[2];
        if (pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        if (terminal ? openpty(&out[0], &out[1], nullptr, nullptr, nullptr) != 0
                     : pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe");
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], 1);
            dup2(err[1], 2);
            if (chdir(install.Root().c_str()) == 0)
                execve(kZmlog.c_str(), argv.data(), envp.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        outFd_ = out[0];
        errFd_ = err[0];
    }
    ~Zmlog() {
        if (!reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (int fd : {outFd_, errFd_}) {
            if (fd >= 0) close(fd);
        }
    }

    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout = 5s) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (out_.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() >= deadline || outFd_ < 0) return false;
            Pump(10);
        }
        return true;
    }
    const std::string& Out() const { return out_; }

    zmtest::ProcessResult Wait(std::chrono::milliseconds timeout = 20s) {
        zmtest::ProcessResult r;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) != pid_) {
            if (std::chrono::steady_clock::now() >= deadline) {
                r.timedOut = true;
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                break;
            }
            Pump(5);
        }
        reaped_ = true;
        while (outFd_ >= 0 || errFd_ >= 0) Pump(100);
        r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        r.out = out_;
        r.err = err_;
        return r;
    }

  private:
    void Pump(int timeoutMs) {
        pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
        if (poll(fds, 2, timeoutMs) <= 0) return;
        char buf[65536];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? out_ : err_).append(buf, static_cast<size_t>(n));
            } else {  // end, or EIO from a terminal whose other side closed
                close(fds[i].fd);
                (i == 0 ? outFd_ : errFd_) = -1;
            }
        }
    }

    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    bool reaped_ = false;
};

zmtest::ProcessResult RunZmlog(const zmtest::TempInstall& install,
                               const std::vector<std::string>& args,
                               const std::vector<std::string>& env = {}) {
    return Zmlog(install, args, env).Wait();
}

// Writes records as the archiver stores them: scrambled.
void WriteLogFile(const std::string& path, const std::string& plain) {
    zmtest::WriteFile(path, zmtest::Unscramble(plain));
}
void AppendLogFile(const std::string& path, const std::string& plain) {
    FILE* f = std::fopen(path.c_str(), "ab");
    ASSERT_NE(f, nullptr);
    const std::string bytes = zmtest::Unscramble(plain);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

// A default line of a record written second s after kT0 (UTC).
std::string Line(int s, const std::string& rest) {
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "2023-11-14 22:13:%02d.123|4711|", 20 + s);
    return stamp + rest + "\n";
}

std::string Rec(int s, unsigned level, const std::string& program, const std::string& function,
                const std::string& tag, const std::string& content) {
    return MakeRecord(function, program, tag, content, level, 0, false, 4711, kT0 + s * 1000000LL);
}

class ZmlogTest : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directories(install.LogDir()); }
    std::string LogFile(const std::string& suffix = "") const {
        return install.DataFile() + suffix;
    }
    zmtest::TempInstall install;
};

TEST_F(ZmlogTest, ReadsRolledSetOldestFirstAcrossRollBoundaries) {
    const std::string r0 = Rec(0, 2, "ZMRuntime", "main", "net", "link up");
    const std::string r1 = Rec(1, 3, "CellEmulation", "Poll", "io", "queue 3");
    const std::string r2 = Rec(2, 1, "ZMRuntime", "Tick", "", "cycle 17");
    const std::string r3 = Rec(3, 4, "BusBridge", "Scan", "bus", "slave 4 lost");
    // Numbered names order by number, not by text: _10 is the oldest.
    WriteLogFile(LogFile("_10"), r0);
    WriteLogFile(LogFile("_2"), r1.substr(0, 50));  // a record cut by two rolls
    WriteLogFile(LogFile("_1"), r1.substr(50) + r2.substr(0, 20));
    WriteLogFile(LogFile(), r2.substr(20) + r3);
    const std::string expected = Line(0, "INFO|main|netlink up") + Line(1, "WARN|Poll|ioqueue 3") +
                                 Line(2, "DEBUG|Tick|cycle 17") +
                                 Line(3, "ERROR|Scan|busslave 4 lost");

    // No argument: the library's log directory from ZM_VELDOR_DATA.
    auto r = RunZmlog(install, {});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, expected);
    // Files in the order a shell glob gives them.
    r = RunZmlog(install, {LogFile(), LogFile("_1"), LogFile("_10"), LogFile("_2")});
    EXPECT_EQ(r.out, expected);
    r = RunZmlog(install, {"--micro", install.LogDir(), "-n", "1"});
    EXPECT_EQ(r.out, "2023-11-14 22:13:23.123456|4711|ERROR|Scan|busslave 4 lost\n");
}

TEST_F(ZmlogTest, JsonFieldsEscapingAndTimeOffset) {
    double value = 2.5;
    WriteLogFile(
        LogFile(),
        MakeRecord("say \"hi\"", "ZMRuntime", "t\\g", "a\nb\t\x01 \xc3\xa9 \xff", 2, 0, false, 7,
                   kT0, 0xDEADBEEF) +
            MakeRecord("dump", "emu_core", "bin", std::string("\x00\x01\xab", 3), 1, 0, true, 8,
                       kT0) +
            MakeRecord("val", "BusBridge", "v", std::string(reinterpret_cast<char*>(&value), 8), 6,
                       12, false, 9, -1));
    auto r = RunZmlog(install, {"--json"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out,
              "{\"time\":\"2023-11-14T22:13:20.123456+00:00\",\"time_us\":1700000000123456,"
              "\"thread\":7,\"level\":\"INFO\",\"program\":\"ZMRuntime\",\"function\":\"say "
              "\\\"hi\\\"\",\"tag\":\"t\\\\g\",\"content\":\"a\\nb\\t\\u0001 \xc3\xa9 "
              "\xef\xbf\xbd\",\"component\":3735928559,\"binary\":false}\n"
              "{\"time\":\"2023-11-14T22:13:20.123456+00:00\",\"time_us\":1700000000123456,"
              "\"thread\":8,\"level\":\"DEBUG\",\"program\":\"emu_core\",\"function\":\"dump\","
              "\"tag\":\"bin\",\"content\":\"0001ab\",\"component\":0,\"binary\":true}\n"
              "{\"time\":\"1969-12-31T23:59:59.999999+00:00\",\"time_us\":-1,\"thread\":9,"
              "\"level\":\"Record\",\"program\":\"BusBridge\",\"function\":\"val\",\"tag\":\"v\","
              "\"content\":\"2.5\",\"component\":0,\"binary\":false}\n");

    // The offset is the local zone's.
    r = RunZmlog(install, {"--json", "-n", "1"}, {"TZ=IST-5:30"});
    EXPECT_NE(r.out.find("\"time\":\"1970-01-01T05:29:59.999999+05:30\""), std::string::npos)
        << r.out;
}

TEST_F(ZmlogTest, Filters) {
    // "MyTool" is no program the decoder knows: its record reads as damage
    // unless it is asked for.
    WriteLogFile(LogFile(), Rec(0, 2, "ZMRuntime", "Up", "net", "link up") +
                                Rec(1, 3, "CellEmulation", "Poll", "io", "queue full") +
                                Rec(2, 4, "MyTool", "Save", "net", "disk full") +
                                Rec(3, 5, "ZMRuntime", "Down", "io", "link down"));
    const std::string up = Line(0, "INFO|Up|netlink up");
    const std::string poll = Line(1, "WARN|Poll|ioqueue full");
    const std::string save = Line(2, "ERROR|Save|netdisk full");
    const std::string down = Line(3, "FATAL|Down|iolink down");
    auto out = [&](const std::vector<std::string>& args) { return RunZmlog(install, args).out; };

    EXPECT_EQ(out({}), up + poll + down);
    EXPECT_EQ(out({"--level", "warn"}), poll + down);
    EXPECT_EQ(out({"--level=ERROR", "--program", "MyTool"}), save);
    EXPECT_EQ(out({"--program=ZMRuntime", "--program=CellEmulation", "--level=4"}), down);
    EXPECT_EQ(out({"--tag", "io"}), poll + down);
    EXPECT_EQ(out({"--grep", "full"}), poll);
    EXPECT_EQ(out({"--grep", "Dow"}), down);  // the function name counts too
    EXPECT_EQ(out({"--since", "2023-11-14 22:13:21", "--until", "2023-11-14T22:13:23.123456"}),
              poll + down);
    EXPECT_EQ(out({"--until", "2023-11-14 22:13:20"}), "");
    EXPECT_EQ(out({"-n", "2"}), poll + down);
    EXPECT_EQ(out({"-n1", "--level=info", "--tag=net"}), up);
    EXPECT_EQ(out({"-n", "0"}), "");
}

TEST_F(ZmlogTest, StatsCountProgramsLevelsSpanAndDamage) {
    const std::string unknown = Rec(2, 4, "MyTool", "Save", "", "x");
    const std::string cut = Rec(5, 2, "ZMRuntime", "Up", "", "lost at the end");
    WriteLogFile(LogFile("_1"), "junk" + Rec(0, 2, "ZMRuntime", "Up", "", "a"));
    WriteLogFile(LogFile(), Rec(1, 3, "CellEmulation", "Poll", "", "b") + unknown +
                                Rec(3, 3, "ZMRuntime", "Up", "", "c") + cut.substr(0, 40));
    const std::string damaged = std::to_string(4 + unknown.size() + 40);

    auto r = RunZmlog(install, {"--stats"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out,
              "records: 3\n"
              "span: 2023-11-14 22:13:20.123456 .. 2023-11-14 22:13:23.123456\n"
              "damaged bytes skipped: " +
                  damaged +
                  "\n"
                  "program        TRACE  DEBUG   INFO   WARN  ERROR  FATAL  Record     total\n"
                  "CellEmulation      0      0      0      1      0      0       0         1\n"
                  "ZMRuntime          0      0      1      1      0      0       0         2\n"
                  "all                0      0      1      2      0      0       0         3\n");
    r = RunZmlog(install, {"--stats", "--json", "--level=warn"});
    EXPECT_EQ(r.out,
              "{\"records\":2,\"first\":\"2023-11-14T22:13:21.123456+00:00\",\"last\":"
              "\"2023-11-14T22:13:23.123456+00:00\",\"first_us\":1700000001123456,\"last_us\":"
              "1700000003123456,\"damaged_bytes\":" +
                  damaged +
                  ",\"programs\":{"
                  "\"CellEmulation\":{\"TRACE\":0,\"DEBUG\":0,\"INFO\":0,\"WARN\":1,\"ERROR\":0,"
                  "\"FATAL\":0,\"Record\":0,\"total\":1},\"ZMRuntime\":{\"TRACE\":0,\"DEBUG\":0,"
                  "\"INFO\":0,\"WARN\":1,\"ERROR\":0,\"FATAL\":0,\"Record\":0,\"total\":1}}}\n");
}

TEST_F(ZmlogTest, HostileInputIsSkippedWithoutCrashOrHang) {
    std::string stream;
    std::mt19937 random(7);
    for (int i = 0; i < 65536; ++i) stream.push_back(static_cast<char>(random()));
    stream += Rec(0, 2, "ZMRuntime", "Up", "", "after noise");
    // Lengths whose 32-bit sum wraps to 9: read in 32 bits, this record would
    // seem to fit and its content would run 4 GiB past the buffer.
    std::string wrap = Rec(1, 2, "ZMRuntime", "f", "", "");
    const std::uint32_t huge = 0xFFFFFFFFU;
    std::memcpy(&wrap[8], &huge, 4);
    stream += wrap + Rec(2, 3, "ZMRuntime", "Up", "", "after wrap");
    // Unknown level and value type, extreme times, and a typed value with
    // fewer bytes than its type at the very end.
    stream += MakeRecord("l7", "emu_core", "", "x", 7, 0, false, 1, INT64_MIN);
    stream += MakeRecord("vt", "emu_core", "", "x", 2, 99, false, 1, INT64_MAX);
    stream += MakeRecord("Short", "ZMRuntime", "", "", 2, 13, false, 4711, kT0 + 3000000);
    WriteLogFile(LogFile(), stream);

    for (const char* format : {"--micro", "--json", "--stats"}) {
        auto r = RunZmlog(install, {format});
        EXPECT_EQ(r.exitCode, 0) << format;
        EXPECT_EQ(r.signal, 0) << format;
        EXPECT_FALSE(r.timedOut) << format;
    }
    const std::string out = RunZmlog(install, {}).out;
    const auto at = out.find(Line(0, "INFO|Up|after noise") + Line(2, "WARN|Up|after wrap"));
    EXPECT_NE(at, std::string::npos) << out;
    EXPECT_NE(out.find(Line(3, "INFO|Short|0")), std::string::npos) << out;
}

TEST_F(ZmlogTest, ErrorsGiveOneLineAndStatus) {
    const std::string missing = install.Root() + "/nowhere";
    auto r = RunZmlog(install, {missing});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "zmlog: cannot open " + missing + ": No such file or directory\n");

    std::filesystem::remove_all(install.LogDir());
    r = RunZmlog(install, {});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err,
              "zmlog: cannot read directory " + install.LogDir() + ": No such file or directory\n");
    std::filesystem::create_directories(install.LogDir());
    r = RunZmlog(install, {});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "zmlog: no RUNTIME.data in " + install.LogDir() + "\n");

    if (geteuid() != 0) {  // root reads whatever the mode says
        WriteLogFile(LogFile(), "");
        chmod(LogFile().c_str(), 0);
        r = RunZmlog(install, {});
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_EQ(r.err, "zmlog: cannot open " + LogFile() + ": Permission denied\n");
    }

    const std::pair<std::vector<std::string>, std::string> usage[] = {
        {{"--bogus=1"}, "unknown option '--bogus' (see zmlog --help)"},
        {{"-x"}, "unknown option '-x' (see zmlog --help)"},
        {{"--level"}, "option '--level' needs a value"},
        {{"--level", "loud"},
         "unknown level 'loud' (trace, debug, info, warn, error, fatal, record)"},
        {{"--since", "yesterday"},
         "bad time 'yesterday' for --since (use YYYY-MM-DD[ HH:MM[:SS[.ffffff]]])"},
        {{"--until", "2023-02-30"},
         "bad time '2023-02-30' for --until (use YYYY-MM-DD[ HH:MM[:SS[.ffffff]]])"},
        {{"-n", "-3"}, "bad count '-3' for -n"},
        {{"--stats", "-f"}, "--stats cannot be combined with --follow"},
    };
    for (const auto& [args, message] : usage) {
        r = RunZmlog(install, args);
        EXPECT_EQ(r.exitCode, 2) << message;
        EXPECT_EQ(r.err, "zmlog: " + message + "\n");
        EXPECT_EQ(r.out, "");
    }

    r = RunZmlog(install, {"--help"});
    EXPECT_EQ(r.exitCode, 0);
    for (const char* option :
         {"--micro", "--json", "--color", "--stats", "--program", "--level", "--since", "--until",
          "--tag", "--grep", "--lines", "--follow", "NO_COLOR", "ZM_VELDOR_DATA", "Exit status"}) {
        EXPECT_NE(r.out.find(option), std::string::npos) << option;
    }
}

TEST_F(ZmlogTest, LevelColoursOnlyOnTerminals) {
    WriteLogFile(LogFile(), Rec(0, 2, "ZMRuntime", "Up", "", "x"));
    const std::string green = "|\x1b[32mINFO\x1b[0m|Up|";

    EXPECT_EQ(RunZmlog(install, {}).out, Line(0, "INFO|Up|x"));
    EXPECT_NE(RunZmlog(install, {"--color=always"}).out.find(green), std::string::npos);
    auto onTerminal = [&](std::vector<std::string> env, std::vector<std::string> args = {}) {
        return Zmlog(install, args, std::move(env), true).Wait().out;
    };
    EXPECT_NE(onTerminal({}).find(green), std::string::npos);
    EXPECT_EQ(onTerminal({"NO_COLOR=1"}).find('\x1b'), std::string::npos);
    EXPECT_EQ(onTerminal({}, {"--color=never"}).find('\x1b'), std::string::npos);
    EXPECT_EQ(onTerminal({}, {"--json"}).find('\x1b'), std::string::npos);
}

TEST_F(ZmlogTest, FollowShowsNewRecordsThroughRollsAndRecreation) {
    WriteLogFile(LogFile(), Rec(0, 2, "ZMRuntime", "Up", "", "first"));
    Zmlog follow(install, {"-f"});
    ASSERT_TRUE(follow.WaitForOutput(Line(0, "INFO|Up|first")));

    AppendLogFile(LogFile(), Rec(1, 2, "ZMRuntime", "Up", "", "appended"));
    EXPECT_TRUE(follow.WaitForOutput(Line(1, "INFO|Up|appended")));

    // A roll: the old file gets the first half of a record (and is renamed
    // before zmlog may have seen it), the new file the second half.
    const std::string cut = Rec(2, 2, "ZMRuntime", "Up", "", "across the roll");
    AppendLogFile(LogFile(), cut.substr(0, 30));
    std::filesystem::rename(LogFile(), LogFile("_1"));
    WriteLogFile(LogFile(), cut.substr(30) + Rec(3, 2, "ZMRuntime", "Up", "", "new file"));
    EXPECT_TRUE(follow.WaitForOutput(Line(3, "INFO|Up|new file")));

    // Deleted and created anew.
    std::filesystem::remove(LogFile());
    WriteLogFile(LogFile(), Rec(4, 2, "ZMRuntime", "Up", "", "recreated"));
    EXPECT_TRUE(follow.WaitForOutput(Line(4, "INFO|Up|recreated")));

    EXPECT_EQ(follow.Out(), Line(0, "INFO|Up|first") + Line(1, "INFO|Up|appended") +
                                Line(2, "INFO|Up|across the roll") + Line(3, "INFO|Up|new file") +
                                Line(4, "INFO|Up|recreated"));
}

}  // namespace
