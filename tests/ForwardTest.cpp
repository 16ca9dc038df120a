// zmlog --forward against a real rsyslogd on 127.0.0.1: 10,000 records of a
// rolled, partly damaged log arrive once each, in order, as the RFC 5424
// messages they should be, over every transport; over RELP nothing is lost
// when rsyslogd is SIGKILLed mid-stream and the forwarder is killed and
// started again. Each test prints its figures: sent, arrived, duplicated.
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Rsyslog.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using zmtest::MakeRecord;

const std::string kZmlog = ZMLOG_TOOLS_DIR "/zmlog/zmlog";
constexpr int kRecords = 10000;
constexpr long long kT0 = 1700000000123456LL;  // 2023-11-14T22:13:20.123456Z

// One record of the test log and the message it must arrive as.
struct Sample {
    std::string bytes;  // plain
    std::string expected;
};

// The message, written out field by field from the record's inputs.
std::string Expected(unsigned level, long long timeUs, const std::string& app, unsigned thread,
                     const std::string& msgid, const std::string& sd, const std::string& msg) {
    static const unsigned kSeverity[] = {7, 7, 6, 4, 3, 2, 5};  // TRACE ... Record
    const std::time_t second = static_cast<std::time_t>(timeUs / 1000000);
    std::tm tm{};
    gmtime_r(&second, &tm);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, timeUs % 1000000);
    return "<" + std::to_string(16 * 8 + kSeverity[level]) + ">1 " + stamp + " plc7 " + app + " " +
           std::to_string(thread) + " " + msgid + " " + sd +
           (msg.empty() ? "" : " \xEF\xBB\xBF" + msg);
}

// Record i: programs, levels, tags and contents vary; the odd ones test the
// cuts and escapes on the way.
Sample MakeSample(int i, const std::string& pos) {
    static const std::string kPrograms[] = {"ZMRuntime", "CellEmulation", "Press Line 7",
                                            std::string(50, 'P')};
    static const std::string kApps[] = {"ZMRuntime", "CellEmulation", "Press_Line_7",
                                        std::string(48, 'P')};
    static const std::string kTags[] = {"net", "", "a tag", std::string(40, 't')};
    static const std::string kMsgIds[] = {"net", "-", "a_tag", std::string(32, 't')};
    const unsigned level = static_cast<unsigned>(i % 7);
    const unsigned thread = 4000U + static_cast<unsigned>(i % 13);
    const long long time = kT0 + i * 1000LL;
    const unsigned component = i % 3 == 0 ? 0U : 0x10000U + static_cast<unsigned>(i);
    const std::string function = i % 100 == 5 ? "op[\"x\"]\\" : "Poll";
    const std::string sdFunction = i % 100 == 5 ? "op[\\\"x\\\"\\]\\\\" : "Poll";
    std::string content = "record " + std::to_string(i);
    std::string msg = content;
    unsigned type = 0;
    bool binary = false;
    if (i % 250 == 1) {
        content = std::string("\xde\xad\x00", 3);
        msg = "de-ad-00";
        binary = true;
    } else if (i % 250 == 2) {
        const double value = 2.5;
        content.assign(reinterpret_cast<const char*>(&value), sizeof value);
        msg = "2.5";
        type = 12;
    } else if (i % 250 == 3) {
        content = "caf\xc3\xa9 \xff line\nnext";
        msg = "caf\xc3\xa9 \xef\xbf\xbd line#012next";
    }
    char hex[16];
    std::snprintf(hex, sizeof hex, "%x", component);
    const std::string sd = "[zmlog@32473 function=\"" + sdFunction + "\" component=\"0x" + hex +
                           "\" pos=\"" + pos + "\"]";
    return {MakeRecord(function, kPrograms[i % 4], kTags[i % 4], content, level, type, binary,
                       thread, time, component),
            Expected(level, time, kApps[i % 4], thread, kMsgIds[i % 4], sd, msg)};
}

std::string Identity(const std::string& path) {
    struct stat st {};
    stat(path.c_str(), &st);
    return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

// A log written as the archiver writes one: scrambled records appended to
// RUNTIME.data, rolled to RUNTIME.data_1 on request.
class TestLog {
  public:
    explicit TestLog(std::string dir) : dir_(std::move(dir)) {
        std::filesystem::create_directories(dir_);
    }
    std::string Current() const { return dir_ + "/RUNTIME.data"; }
    void Append(const std::string& plain) {
        FILE* f = std::fopen(Current().c_str(), "ab");
        const std::string bytes = zmtest::Unscramble(plain);
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
        size_ += plain.size();
    }
    // Appends record i; a record that does not fit below limit is split
    // across a roll, as the archiver's blocks may be.
    std::string AppendRecord(int i, long limit = -1) {
        if (!zmtest::Exists(Current())) Append("");
        Sample s = MakeSample(i, Identity(Current()) + ":" + std::to_string(size_));
        if (limit > 0 && size_ + static_cast<long>(s.bytes.size()) > limit) {
            const std::size_t cut = s.bytes.size() / 2;
            Append(s.bytes.substr(0, cut));
            Roll();
            Append(s.bytes.substr(cut));
        } else {
            Append(s.bytes);
        }
        return s.expected;
    }
    // keep: files in the set after the roll, the oldest deleted.
    void Roll(int keep = 10) {
        std::filesystem::remove(Current() + "_" + std::to_string(keep - 1));
        for (int n = keep - 2; n >= 0; --n) {
            const std::string from = n == 0 ? Current() : Current() + "_" + std::to_string(n);
            if (zmtest::Exists(from))
                std::filesystem::rename(from, Current() + "_" + std::to_string(n + 1));
        }
        size_ = 0;
        Append("");
    }
    const std::string& Dir() const { return dir_; }

  private:
    std::string dir_;
    long size_ = 0;
};

struct Figures {
    std::size_t arrived = 0;
    std::size_t duplicated = 0;
    std::size_t unknown = 0;    // arrived but not a message of the log
    bool firstsInOrder = true;  // the first arrival of each record in log order
    std::size_t distinct = 0;
};

Figures Count(const std::vector<std::string>& expected, const std::vector<std::string>& received) {
    std::map<std::string, std::size_t> index;
    for (std::size_t i = 0; i < expected.size(); ++i) index[expected[i]] = i;
    Figures f;
    std::set<std::size_t> seen;
    std::size_t last = 0;
    for (const std::string& line : received) {
        ++f.arrived;
        const auto it = index.find(line);
        if (it == index.end()) {
            ++f.unknown;
        } else if (!seen.insert(it->second).second) {
            ++f.duplicated;
        } else {
            if (!seen.empty() && seen.size() > 1 && it->second < last) f.firstsInOrder = false;
            last = it->second;
        }
    }
    f.distinct = seen.size();
    return f;
}

void PrintFigures(const std::string& transport, std::size_t sent, const Figures& f) {
    std::printf("[ figures  ] %-8s sent %zu, arrived %zu (distinct %zu), duplicated %zu\n",
                transport.c_str(), sent, f.arrived, f.distinct, f.duplicated);
}

// --output=syslog prints what --forward sends; with a cursor file it goes on
// where the last run stopped.
TEST(SyslogOutputTest, CursorResumesAfterTheLastRecordDelivered) {
    zmtest::TempInstall install;
    TestLog log(install.LogDir());
    const std::string cursor = install.Root() + "/cursor";
    const auto run = [&](std::vector<std::string> args) {
        args.insert(args.end(),
                    {"-o", "syslog", "--hostname=plc7", "--cursor-file=" + cursor, log.Dir()});
        return zmtest::RunHelper(kZmlog, "zmlog", args, {"TZ=UTC"}, 20s, install.Root());
    };
    const auto lines = [](const std::vector<std::string>& messages) {
        std::string text;
        for (const std::string& m : messages) text += m + "\n";
        return text;
    };
    std::vector<std::string> all;
    for (int i = 0; i < 3; ++i) all.push_back(log.AppendRecord(i));
    auto r = run({});
    EXPECT_EQ(r.out, lines(all));
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(run({}).out, "");  // all delivered

    // New records, one of them cut by a roll: only they come.
    std::vector<std::string> fresh;
    for (int i = 3; i < 6; ++i) fresh.push_back(log.AppendRecord(i, i == 4 ? 1 : -1));
    all.insert(all.end(), fresh.begin(), fresh.end());
    EXPECT_EQ(run({}).out, lines(fresh));

    // A cursor that cannot be trusted starts again from the oldest file.
    const std::string damaged = "zmlog: WARN: cursor file " + cursor + " is damaged (";
    const std::string oldest = "): forwarding from the oldest file\n";
    const std::pair<std::string, std::string> cursors[] = {
        {"", damaged + "it is empty" + oldest},
        {"zmlog-cursor 1\nfile 1:2\noffset x\n", damaged + "it does not hold a position" + oldest},
        {"zmlog-cursor 1\nfile 1:2\noffset 0\n",
         "zmlog: WARN: the log rolled past the cursor while nothing was forwarded: the records "
         "after it, in a file no longer in " +
             log.Dir() + ", are lost; forwarding from the oldest file\n"},
    };
    for (const auto& [text, warning] : cursors) {
        zmtest::WriteFile(cursor, text);
        r = run({});
        EXPECT_EQ(r.err, warning);
        EXPECT_EQ(r.out, lines(all));
    }
    // The facility and the filters apply.
    std::filesystem::remove(cursor);
    r = run({"--facility=daemon", "--level=fatal"});
    EXPECT_EQ(r.out.substr(0, 6), "<26>1 ");  // daemon (3), critical: 3 * 8 + 2
    EXPECT_EQ(r.out.find("\n"), r.out.size() - 1) << r.out;
}

class ForwardTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!zmtest::Rsyslog::Available())
            GTEST_SKIP() << "rsyslog, rsyslog-relp, rsyslog-gnutls or openssl not installed";
        if (Zmlog({"--forward=tcp://127.0.0.1:9", "/nowhere"}).err.find("built without") !=
            std::string::npos)
            GTEST_SKIP() << "zmlog was built without --forward";
    }
    zmtest::ProcessResult Zmlog(const std::vector<std::string>& args) {
        return zmtest::RunHelper(kZmlog, "zmlog", args, {"TZ=UTC"}, 30s, install.Root());
    }
    std::vector<std::string> TlsArgs(const std::string& input) const {
        if (input != "tls" && input != "relp-tls") return {};
        const std::string c = install.Root() + "/certs";
        return {"--tls-ca=" + c + "/ca.pem", "--tls-cert=" + c + "/client.pem",
                "--tls-key=" + c + "/client.key"};
    }
    zmtest::TempInstall install;
};

class ForwardTransportTest : public ForwardTest,
                             public ::testing::WithParamInterface<const char*> {};

TEST_P(ForwardTransportTest, EveryGoodRecordArrivesOnceInOrder) {
    const std::string input = GetParam();
    const std::string certs = install.Root() + "/certs";
    std::filesystem::create_directories(certs);
    if (input == "tls" || input == "relp-tls") {
        ASSERT_TRUE(zmtest::MakeTestCertificates(certs));
    }
    zmtest::Rsyslog rsyslog(install.Root() + "/rsyslog", input, certs);
    ASSERT_TRUE(rsyslog.Start()) << rsyslog.Errors();

    // Three files, records cut by both rolls, damaged bytes in the middle
    // and an unfinished record at the end: only the good records go out.
    TestLog log(install.LogDir());
    std::vector<std::string> expected;
    for (int i = 0; i < kRecords; ++i) {
        expected.push_back(log.AppendRecord(i, 400000));
        if (i == kRecords / 2) log.Append(std::string("\x07junk\x00\xff", 7));
    }
    log.Append(MakeRecord("Poll", "ZMRuntime", "", "never finished").substr(0, 40));

    std::vector<std::string> args = {"--forward=" + rsyslog.Url(), "--hostname=plc7",
                                     "--cursor-file=" + install.Root() + "/cursor", log.Dir()};
    for (const std::string& a : TlsArgs(input)) args.push_back(a);
    const auto r = Zmlog(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("zmlog: forwarded 10000 records to " + rsyslog.Url() + "\n"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("zmlog: skipped 7 damaged bytes in "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("zmlog: skipped 40 damaged bytes in " + log.Current() + "\n"),
              std::string::npos)
        << r.err;

    // UDP and TCP confirm nothing: wait for rsyslogd to write it all.
    zmtest::WaitUntil([&] { return rsyslog.Received().size() >= expected.size(); }, 10s);
    const std::vector<std::string> received = rsyslog.Received();
    const Figures f = Count(expected, received);
    PrintFigures(input, expected.size(), f);
    ASSERT_EQ(received.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(received[i], expected[i]) << "message " << i;

    // The cursor holds: nothing is sent again.
    EXPECT_NE(Zmlog(args).err.find("zmlog: forwarded 0 records"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Transports, ForwardTransportTest,
                         ::testing::Values("tcp", "tls", "udp", "relp", "relp-tls"),
                         [](const auto& info) {
                             std::string name = info.param;
                             return name == "relp-tls" ? std::string("relptls") : name;
                         });

// Over RELP the collector is SIGKILLed in the middle of a stream and started
// again, and the forwarder is SIGKILLed and started again: every record
// arrives, a few twice.
TEST_F(ForwardTest, RelpLosesNothingWhenEitherSideIsKilled) {
    zmtest::Rsyslog rsyslog(install.Root() + "/rsyslog", "relp");
    ASSERT_TRUE(rsyslog.Start()) << rsyslog.Errors();
    TestLog log(install.LogDir());
    std::vector<std::string> expected;
    const std::vector<std::string> args = {"--forward=" + rsyslog.Url(), "-f", "--hostname=plc7",
                                           "--cursor-file=" + install.Root() + "/cursor",
                                           log.Dir()};
    auto forwarder =
        std::make_unique<zmtest::Child>(kZmlog, "zmlog", args, std::vector<std::string>{"TZ=UTC"});
    std::string killed;  // what the first forwarder said
    // The log grows by 100 records every 10 ms, and rolls once, while the
    // two sides are killed and started again.
    for (int i = 0; i < kRecords; ++i) {
        expected.push_back(log.AppendRecord(i));
        if (i % 100 != 99) continue;
        std::this_thread::sleep_for(10ms);
        if (i == 2999) rsyslog.Kill();
        if (i == 3999) {
            ASSERT_TRUE(rsyslog.Start()) << rsyslog.Errors();
        }
        if (i == 5999) log.Roll();
        if (i == 6999) {
            forwarder->Signal(SIGKILL);
            killed = forwarder->Wait().err;
            forwarder = std::make_unique<zmtest::Child>(kZmlog, "zmlog", args,
                                                        std::vector<std::string>{"TZ=UTC"});
        }
    }
    const bool all = zmtest::WaitUntil(
        [&] { return Count(expected, rsyslog.Received()).distinct == expected.size(); }, 15s);
    forwarder->Signal(SIGTERM);
    const auto r = forwarder->Wait();
    const Figures f = Count(expected, rsyslog.Received());
    PrintFigures("relp-kill", expected.size(), f);
    EXPECT_TRUE(all) << r.err << rsyslog.Errors();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(f.distinct, expected.size()) << "lost " << expected.size() - f.distinct;
    EXPECT_EQ(f.unknown, 0U);
    EXPECT_TRUE(f.firstsInOrder);
    // Sent again: what the RELP window left unconfirmed (513) and what the
    // killed forwarder sent in its last 100 ms, at most.
    EXPECT_LE(f.duplicated, 513U + 2000U);
    EXPECT_NE(killed.find("zmlog: cannot forward to " + rsyslog.Url()), std::string::npos)
        << killed;
    EXPECT_NE(killed.find("zmlog: " + rsyslog.Url() + " takes messages again"), std::string::npos);
}

// The collector is away while the log rolls through its whole set: the
// forwarder keeps the files it still has to send open, so the deleted ones
// arrive all the same, up to two of them; beyond, the oldest is given up
// and its unsent records are counted as lost, once. (File 0 was read before
// the collector was found away: its records wait in memory.)
TEST_F(ForwardTest, FilesDeletedWhileTheCollectorIsAwayArriveOrAreCounted) {
    zmtest::Rsyslog rsyslog(install.Root() + "/rsyslog", "tcp");  // not started yet
    TestLog log(install.LogDir());
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i) expected.push_back(log.AppendRecord(i));
    zmtest::Child forwarder(kZmlog, "zmlog",
                            {"--forward=" + rsyslog.Url(), "-f", "--hostname=plc7", log.Dir()},
                            {"TZ=UTC"});
    // Five rolls in a set of two files: files 0 to 3 are deleted.
    for (int file = 1; file <= 5; ++file) {
        std::this_thread::sleep_for(300ms);  // the forwarder looks every 100 ms
        log.Roll(2);
        for (int i = 100 * file; i < 100 * (file + 1); ++i) expected.push_back(log.AppendRecord(i));
    }
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(rsyslog.Start()) << rsyslog.Errors();
    expected.erase(expected.begin() + 100, expected.begin() + 200);  // file 1's
    zmtest::WaitUntil([&] { return rsyslog.Received().size() >= expected.size(); }, 10s);
    forwarder.Signal(SIGTERM);
    const auto r = forwarder.Wait();
    const Figures f = Count(expected, rsyslog.Received());
    PrintFigures("tcp-away", expected.size(), f);
    EXPECT_EQ(rsyslog.Received(), expected);
    EXPECT_NE(r.err.find("zmlog: WARN: the log rolled past 100 records before they were "
                         "forwarded to " +
                         rsyslog.Url() + ": they are lost\n"),
              std::string::npos)
        << r.err;
}

}  // namespace
