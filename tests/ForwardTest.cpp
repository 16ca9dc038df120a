// Forwarding to syslog: the RFC 5424 message of each record, and zmlog
// --forward to a real rsyslogd over every transport, resumed by its cursor,
// and over RELP with either side SIGKILLed.
#include <sys/stat.h>

#include <map>
#include <set>
#include <sstream>

#include "forward/SyslogEncoder.h"
#include "support/Fixtures.h"
#include "support/Rsyslog.h"

namespace {

using namespace std::chrono_literals;
using PF::Utils::LOG::zmlog::RecordPos;
using PF::Utils::LOG::zmlog::SyslogEncoder;
using zmtest::MakeRecord;

constexpr long long kT0 = 1700000000123456LL;  // 2023-11-14T22:13:20.123456Z

TEST(SyslogEncoder, EachFieldMappedEscapedAndCut) {
    const std::string sd = " [zmlog@32473 function=\"Poll\" component=\"0x0\" pos=\"1:2:3\"]";
    const std::string bom = " \xEF\xBB\xBF";
    const double value = 2.5;
    const struct {
        std::string record, typedText, expected;
    } cases[] = {
        {MakeRecord("Poll", "ZMRuntime", "net", "link up", 2, 0, false, 4711, kT0), "",
         "<134>1 2023-11-14T22:13:20.123456Z plc7 ZMRuntime 4711 net" + sd + bom + "link up"},
        // WARN is a warning; no tag, no content.
        {MakeRecord("Poll", "A", "", "", 3), "",
         "<132>1 2023-11-14T22:13:20.123456Z plc7 A 4711 -" + sd},
        // Blanks in header fields, APP-NAME cut at 48 and MSGID at 32.
        {MakeRecord("Poll", "Press Line " + std::string(50, 'P'), std::string(40, 't'), "x"), "",
         "<134>1 2023-11-14T22:13:20.123456Z plc7 Press_Line_" + std::string(37, 'P') + " 4711 " +
             std::string(32, 't') + sd + bom + "x"},
        // '"', '\' and ']' escaped in the structured data.
        {MakeRecord("op[\"x\"]\\", "A", "", ""), "",
         "<134>1 2023-11-14T22:13:20.123456Z plc7 A 4711 - [zmlog@32473 function=\"op[\\\"x\\\"\\]"
         "\\\\\" component=\"0x0\" pos=\"1:2:3\"]"},
        // Binary as hex bytes, a typed value as rendered, text made valid
        // UTF-8 on one line; the component in hex.
        {MakeRecord("Poll", "A", "", std::string("\xde\xad\x00", 3), 2, 0, true, 1, kT0, 0x1abc),
         "",
         "<134>1 2023-11-14T22:13:20.123456Z plc7 A 1 - [zmlog@32473 function=\"Poll\" "
         "component=\"0x1abc\" pos=\"1:2:3\"]" +
             bom + "de-ad-00"},
        {MakeRecord("Poll", "A", "", std::string(reinterpret_cast<const char*>(&value), 8), 2, 12),
         "2.5", "<134>1 2023-11-14T22:13:20.123456Z plc7 A 4711 -" + sd + bom + "2.5"},
        {MakeRecord("Poll", "A", "", "caf\xc3\xa9 \xff line\nnext"), "",
         "<134>1 2023-11-14T22:13:20.123456Z plc7 A 4711 -" + sd + bom +
             "caf\xc3\xa9 \xef\xbf\xbd line#012next"},
    };
    SyslogEncoder encoder(16, "plc7");  // local0
    for (const auto& c : cases) {
        std::string bytes = c.record;
        std::vector<PF::Utils::LOG::WalkedRecord> walked;
        PF::Utils::LOG::RecordWalker walker;
        walker.Feed(bytes.data(), bytes.size(), [&](auto& r) { walked.push_back(r); });
        ASSERT_EQ(walked.size(), 1U) << c.expected;
        std::string out;
        encoder.Append(walked[0], c.typedText, RecordPos{{1, 2}, 3}, out);
        EXPECT_EQ(out, c.expected);
    }
}

// Of the messages received: how many of those expected came, and how many
// again; ordered: none unexpected, and each first came in log order.
struct Figures {
    std::size_t distinct = 0, duplicated = 0;
    bool ordered = true;
};
Figures Count(const std::vector<std::string>& expected, const std::vector<std::string>& received,
              const std::string& name) {
    std::map<std::string, std::size_t> index;
    for (std::size_t i = 0; i < expected.size(); ++i) index[expected[i]] = i + 1;
    Figures f;
    std::set<std::size_t> seen;
    for (const std::string& line : received) {
        const std::size_t at = index[line];
        f.ordered = f.ordered && at != 0 && (seen.count(at) || seen.empty() || at > *seen.rbegin());
        f.duplicated += !seen.insert(at).second;
    }
    f.distinct = seen.size();
    zmtest::Figure("%s: sent %zu, arrived %zu, duplicated %zu", name.c_str(), expected.size(),
                   received.size(), f.duplicated);
    return f;
}

class ForwardTest : public ::testing::Test {
  protected:
    // Records "record <i>" of two programs; with cutAt, that one is split by a roll.
    void AppendRecords(int from, int to, int cutAt = -1) {
        for (int i = from; i < to; ++i) {
            const std::string r = MakeRecord("Poll", i % 2 ? "ZMRuntime" : "PressLine7", "net",
                                             "record " + std::to_string(i), i % 7, 0, false,
                                             4000 + i % 13, kT0 + i * 1000LL);
            install.AppendLog(r.substr(0, i == cutAt ? 40 : r.size()));
            if (i != cutAt) continue;
            install.RollLog();
            install.AppendLog(r.substr(40));
        }
    }
    zmtest::ProcessResult Zmlog(std::vector<std::string> args) {
        args.insert(args.end(), {"--hostname=plc7", install.LogDir()});
        return install.Zmlog(args);
    }
    // What forwarding must deliver: the messages zmlog prints for the log.
    std::vector<std::string> Expected() { return zmtest::Lines(Zmlog({"-o", "syslog", "-q"}).out); }
    std::string Cursor() const { return "--cursor-file=" + install.Root() + "/cursor"; }
    zmtest::Installation install{""};
};

// --output=syslog with a cursor file goes on where the last run stopped; a
// cursor that cannot be trusted starts again from the oldest file.
TEST_F(ForwardTest, CursorResumesAfterTheLastRecordDelivered) {
    AppendRecords(0, 3);
    const std::vector<std::string> first = Expected();
    ASSERT_EQ(first.size(), 3U);
    const auto run = [&] { return Zmlog({"-o", "syslog", Cursor()}); };
    auto r = run();
    EXPECT_EQ(zmtest::Lines(r.out), first);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(run().out, "");  // all delivered
    AppendRecords(3, 6, 4);    // one cut by a roll: only the new ones come
    const std::vector<std::string> all = Expected();
    EXPECT_EQ(zmtest::Lines(run().out), std::vector<std::string>(all.begin() + 3, all.end()));

    const std::string cursor = install.Root() + "/cursor";
    const std::string damaged = "zmlog: WARN: cursor file " + cursor + " is damaged (";
    const std::string oldest = "): forwarding from the oldest file\n";
    const std::pair<std::string, std::string> cursors[] = {
        {"", damaged + "it is empty" + oldest},
        {"zmlog-cursor 1\nfile 1:2\noffset x\n", damaged + "it does not hold a position" + oldest},
        {"zmlog-cursor 1\nfile 1:2\noffset 0\n",
         "zmlog: WARN: the log rolled past the cursor while nothing was forwarded: the records "
         "after it, in a file no longer in " +
             install.LogDir() + ", are lost; forwarding from the oldest file\n"},
    };
    for (const auto& [text, warning] : cursors) {
        zmtest::WriteFile(cursor, text);
        r = run();
        EXPECT_EQ(r.err, warning);
        EXPECT_EQ(zmtest::Lines(r.out), all);
    }
    // The facility and the filters apply: daemon (3), critical (2).
    EXPECT_EQ(Zmlog({"-o", "syslog", "--facility=daemon", "--level=fatal"}).out.substr(0, 7),
              "<26>1 2");
}

class ForwardTransportTest : public ForwardTest,
                             public ::testing::WithParamInterface<const char*> {};

// Three files, records cut by both rolls, damaged bytes in the middle and an
// unfinished record at the end: only the good records go out, once each.
TEST_P(ForwardTransportTest, EveryGoodRecordArrivesOnceInOrder) {
    if (!zmtest::Rsyslog::Available()) GTEST_SKIP() << "rsyslog or openssl not installed";
    zmtest::Rsyslog rsyslog(install.Root(), GetParam());
    ASSERT_TRUE(rsyslog.Start()) << rsyslog.Errors();
    std::vector<std::string> args = rsyslog.ForwardArgs();
    args.push_back(Cursor());
    AppendRecords(0, 5000, 2000);
    install.AppendLog(std::string("\x07junk\x00\xff", 7));
    AppendRecords(5000, 10000, 7000);
    install.AppendLog(MakeRecord("Poll", "ZMRuntime", "", "never finished").substr(0, 40));
    const std::vector<std::string> expected = Expected();
    ASSERT_EQ(expected.size(), 10000U);

    const auto r = Zmlog(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("zmlog: forwarded 10000 records to " + rsyslog.Url() + "\n"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("zmlog: skipped 7 damaged bytes in " + install.DataFile() +
                         "_1\n"
                         "zmlog: skipped 40 damaged bytes in " +
                         install.DataFile() + "\n"),
              std::string::npos)
        << r.err;
    // UDP and TCP confirm nothing: wait for rsyslogd to write it all.
    zmtest::WaitUntil([&] { return rsyslog.Received().size() >= expected.size(); });
    const std::vector<std::string> received = rsyslog.Received();
    Count(expected, received, GetParam());
    EXPECT_EQ(received, expected);
    // The cursor holds: nothing is sent again.
    EXPECT_NE(Zmlog(args).err.find("zmlog: forwarded 0 records"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Transports, ForwardTransportTest,
                         ::testing::Values("tcp", "tls", "udp", "relp", "relp-tls"),
                         [](const auto& info) {
                             const std::string name = info.param;
                             return name == "relp-tls" ? std::string("relptls") : name;
                         });

// Over RELP, the collector and then the forwarder SIGKILLed mid-stream and
// started again: every record arrives, a few twice.
TEST_F(ForwardTest, RelpLosesNothingWhenEitherSideIsKilled) {
    if (!zmtest::Rsyslog::Available()) GTEST_SKIP() << "rsyslog or openssl not installed";
    zmtest::Rsyslog rsyslog(install.Root(), "relp");
    ASSERT_TRUE(rsyslog.Start()) << rsyslog.Errors();
    const std::vector<std::string> args = {"--forward=" + rsyslog.Url(), "-f", "--hostname=plc7",
                                           Cursor(), install.LogDir()};
    auto forwarder = install.StartZmlog(args);
    std::string killed;  // what the first forwarder said
    // The log grows by 100 records every 10 ms, and rolls once, while the
    // two sides are killed and started again.
    for (int i = 0; i < 100; ++i) {
        AppendRecords(i * 100, i * 100 + 100, i == 60 ? 6000 : -1);
        std::this_thread::sleep_for(10ms);
        if (i == 30) rsyslog.Kill();
        if (i == 40) {
            ASSERT_TRUE(rsyslog.Start()) << rsyslog.Errors();
        }
        if (i == 70) {
            forwarder->Signal(SIGKILL);
            killed = forwarder->Wait().err;
            forwarder = install.StartZmlog(args);
        }
    }
    const std::vector<std::string> expected = Expected();
    const bool all = zmtest::WaitUntil(
        [&] {
            const auto received = rsyslog.Received();
            return std::set<std::string>(received.begin(), received.end()).size() >=
                   expected.size();
        },
        15s);
    forwarder->Signal(SIGTERM);
    const auto r = forwarder->Wait();
    const Figures f = Count(expected, rsyslog.Received(), "relp-kill");
    EXPECT_TRUE(all) << r.err << rsyslog.Errors();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(f.distinct, expected.size()) << "lost " << expected.size() - f.distinct;
    EXPECT_TRUE(f.ordered);
    // Sent again: what the RELP window left unconfirmed (513) and what the
    // killed forwarder sent in its last 100 ms, at most.
    EXPECT_LE(f.duplicated, 513U + 2000U);
    EXPECT_NE(killed.find("zmlog: cannot forward to " + rsyslog.Url()), std::string::npos)
        << killed;
    EXPECT_NE(killed.find("zmlog: " + rsyslog.Url() + " takes messages again"), std::string::npos);
}

}  // namespace
