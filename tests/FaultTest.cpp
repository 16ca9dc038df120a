// The log under faults, with real processes: the runtime killed and started
// again, its output file and directory taken away, a full disk, and records
// at the size limit. No process may hang or hold its writers up, and logging
// must resume; the figures measured are printed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/Fixtures.h"

using namespace zmtest;
namespace fs = std::filesystem;

namespace {

// A WriteLog call waits at most 1 ms for the lock: one of half a second is
// a hang, not a busy scheduler.
constexpr long kHangUs = 500000;

// The "logged ..." reports of a helper, one per log step.
std::vector<std::string> Reports(const std::string& out) {
    std::vector<std::string> reports;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("logged ", 0) == 0) reports.push_back(line.substr(0, line.find(':')));
    }
    return reports;
}

long MaxUs(const std::string& report) {
    const size_t at = report.find("max_us ");
    return at == std::string::npos ? -1 : std::strtol(report.c_str() + at + 7, nullptr, 10);
}

bool Increasing(const std::vector<long>& seqs) {
    return std::adjacent_find(seqs.begin(), seqs.end(), std::greater_equal<long>()) == seqs.end();
}

bool Running(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

// The seqs of role in the file behind fd (kept open across a deletion).
std::vector<long> SeqsIn(int fd, const std::string& role) {
    std::string bytes;
    char buf[65536];
    ssize_t n;
    for (off_t at = 0; (n = pread(fd, buf, sizeof buf, at)) > 0; at += n)
        bytes.append(buf, size_t(n));
    std::vector<long> seqs;
    for (const Record& r : WalkRecords(Unscramble(bytes))) {
        if (r.program == role)
            seqs.push_back(std::strtol(r.content.c_str() + role.size() + 1, nullptr, 10));
    }
    return seqs;
}

}  // namespace

// The runtime dies by SIGKILL while a writer logs a record every 2 ms, and
// a new one starts after a pause, five times; the writer never attaches by
// hand. Every record it wrote arrives, in order, with each new runtime's
// notice of what it recovered from the old ring; a writer started after the
// first restart logs beside it under the one lock; the writer ends up with
// one mapping of "ZMLOG".
TEST(Fault, RuntimeKilledAndStartedAgainLosesNothing) {
    Installation install;
    auto runtime = std::make_unique<Runtime>(install);
    auto cell = install.Start("CellEmulation", {"log=0,64,2000", "resources"});
    std::unique_ptr<Child> engine;
    const auto arrived = [&](const std::string& role) {
        return DecodedLog(install.DataFile()).Seqs(role).size();
    };
    for (int restart = 0; restart < 5; ++restart) {
        const size_t before = arrived("CellEmulation");
        ASSERT_TRUE(WaitUntil([&] { return arrived("CellEmulation") > before + 20; }));
        runtime->Process().Signal(SIGKILL);
        EXPECT_EQ(runtime->Process().Wait().signal, SIGKILL);
        std::this_thread::sleep_for(300ms);  // nobody drains meanwhile
        runtime = std::make_unique<Runtime>(install);
        if (restart == 0) engine = install.Start("EngineEmulation", {"log=300,64,2000"});
    }
    const size_t before = arrived("CellEmulation");
    ASSERT_TRUE(WaitUntil([&] { return arrived("CellEmulation") > before + 20; }));
    cell->Send("");
    const auto cellOut = cell->Wait().out;
    const auto engineOut = engine->Wait().out;
    EXPECT_NE(cellOut.find("zmlog 1 "), std::string::npos) << cellOut;
    runtime->Release();

    // A record that meets a restart waits for the new ring; on a busy machine
    // the deadline of the lock may still drop one now and then (a writer that
    // did not follow would drop hundreds).
    EXPECT_LE(DroppedSeqs(cellOut).size() + DroppedSeqs(engineOut).size(), 5U);
    const DecodedLog log(install.DataFile());
    EXPECT_EQ(log.damagedBytes, 0U);
    for (const auto& [role, out] :
         {std::pair{"CellEmulation", cellOut}, {"EngineEmulation", engineOut}}) {
        const auto reports = Reports(out);
        ASSERT_EQ(reports.size(), 1U) << out;
        const long written = std::strtol(reports[0].c_str() + 7, nullptr, 10);
        std::vector<long> expected(static_cast<size_t>(written));
        std::iota(expected.begin(), expected.end(), 0);
        for (long s : DroppedSeqs(out))
            expected.erase(std::find(expected.begin(), expected.end(), s));
        EXPECT_EQ(log.Seqs(role), expected) << role;
        Figure(std::string(role) + ": " + reports[0]);
    }
    int notices = 0;
    for (const Record& r : log.records) {
        if (r.function != "SalvageRing") continue;
        ++notices;
        EXPECT_EQ(r.content.rfind("recovered ", 0), 0U) << r.content;
        Figure(r.content);
    }
    EXPECT_EQ(notices, 5);
}

// A runtime killed while no one drains a ring that overflows: the next one
// finds the newest records and writes them first. One that finds a ring
// whose header makes no sense recovers nothing, says so, and runs.
TEST(Fault, NewRuntimeRecoversTheNewestRecordsOrNothingOfADamagedRing) {
    Installation install;
    std::make_unique<Runtime>(install)->Process().Signal(SIGKILL);
    ASSERT_EQ(install.Run("CellEmulation", {"log=30000,1000"}).exitCode, 0);  // 30 MB into 8 MiB
    {
        Runtime runtime(install);
        ASSERT_TRUE(WaitUntil([&] { return !DecodedLog(install.DataFile()).records.empty(); }));
        runtime.Process().Signal(SIGKILL);
    }
    const DecodedLog recovered(install.DataFile());
    const auto seqs = recovered.Seqs("CellEmulation");
    ASSERT_FALSE(seqs.empty());
    EXPECT_EQ(seqs.back(), 29999);
    EXPECT_EQ(seqs.back() - seqs.front() + 1,
              static_cast<long>(seqs.size()));  // newest, none missing
    const auto notice = std::find_if(recovered.records.begin(), recovered.records.end(),
                                     [](const Record& r) { return r.function == "SalvageRing"; });
    ASSERT_NE(notice, recovered.records.end());
    EXPECT_EQ(notice->content, "recovered " + std::to_string(notice - recovered.records.begin()) +
                                   " records from the previous runtime's ring");

    // The header written over with junk.
    WriteFile("/dev/shm/ZMLOG", std::string(48, '\x5a'));
    const long cutAt = FileSize(install.DataFile());
    Runtime runtime(install);
    ASSERT_TRUE(WaitUntil([&] { return !DecodedLog(install.DataFile(), cutAt).records.empty(); }));
    runtime.Release();
    EXPECT_EQ(DecodedLog(install.DataFile(), cutAt).records.at(0).content,
              "the previous runtime's ring was damaged: nothing recovered");
}

// The output file is deleted, later its whole directory, while a writer logs.
// A deleted file is recreated at the next drain without losing a record. With
// the directory gone the archiver cannot reopen the file: it says nothing,
// does not recreate the directory, drops the blocks it drains and goes on;
// once the directory is back, a new file takes the records.
TEST(Fault, OutputFileAndDirectoryRemoved) {
    Installation install;
    const std::string file = install.DataFile();
    Runtime runtime(install);
    auto writer = install.Start("CellEmulation", {"log=0,64,1000"});
    auto recordsArrive = [&] {
        return WaitUntil([&] { return DecodedLog(file).records.size() >= 20; });
    };
    ASSERT_TRUE(recordsArrive());

    // The archiver may still append to the deleted file: read it through a
    // descriptor kept open.
    int oldFd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_TRUE(recordsArrive());
    const auto deleted = SeqsIn(oldFd, "CellEmulation");
    close(oldFd);
    const auto recreated = DecodedLog(file).Seqs("CellEmulation");
    ASSERT_FALSE(deleted.empty());
    ASSERT_FALSE(recreated.empty());
    EXPECT_EQ(recreated.front(), deleted.back() + 1) << "a record was lost to the deletion";

    oldFd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    // Moved away in one step, so that the archiver cannot recreate the file
    // between the file's removal and the directory's.
    ASSERT_EQ(rename(install.LogDir().c_str(), (install.Root() + "/gone").c_str()), 0);
    fs::remove_all(install.Root() + "/gone");
    EXPECT_FALSE(WaitUntil([&] { return Exists(install.LogDir()); }, 500ms));
    EXPECT_TRUE(Running(runtime.Process().Pid()));
    ASSERT_TRUE(fs::create_directory(install.LogDir()));
    const long lastBefore = SeqsIn(oldFd, "CellEmulation").back();
    close(oldFd);
    ASSERT_TRUE(recordsArrive());

    writer->Send("");
    const auto r = writer->Wait();
    EXPECT_LT(MaxUs(r.out), kHangUs) << r.out;
    runtime.Release();  // its stderr stayed empty throughout
    const DecodedLog log(file);
    EXPECT_EQ(log.damagedBytes, 0U);
    const auto seqs = log.Seqs("CellEmulation");
    EXPECT_TRUE(Increasing(seqs));
    EXPECT_GT(seqs.front(), lastBefore);
    EXPECT_EQ(log.records.back().function, "CloseReadThreadAndResource");
    Figure("directory gone for 500 ms: " + std::to_string(seqs.front() - lastBefore - 1) +
           " records dropped, no message; " + Reports(r.out)[0]);
}

// The log directory on a 1 MiB tmpfs that fills up. Writers are not held
// up, the archiver goes on draining, and since it counts the bytes of failed
// writes too, the file rolls at the usual limit while the disk is still full.
// Once the disk has room again, the records of the fresh file arrive whole.
TEST(Fault, FullDisk) {
    Installation install;
    const std::string file = install.DataFile();
    ASSERT_TRUE(fs::create_directories(install.LogDir()));
    if (mount("tmpfs", install.LogDir().c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs: " << std::strerror(errno);
    struct Unmount {
        std::string dir;
        ~Unmount() { umount2(dir.c_str(), MNT_DETACH); }  // lazily: a file may still be open
    } unmount{install.LogDir()};
    Runtime runtime(install);
    // 256 KiB records: the disk is full after four, and about 80 make the
    // archiver's count reach the roll.
    auto writer = install.Start("CellEmulation", {"log=0,262144,10000", "log=0,64,1000"});
    ASSERT_TRUE(WaitUntil([&] { return Exists(file + "_1"); }, 30s))
        << "no roll with the disk full";
    EXPECT_TRUE(Running(runtime.Process().Pid()));
    writer->Send("");
    EXPECT_EQ(FileSize(file + "_1"), 1048576);  // filled the disk
    EXPECT_EQ(FileSize(file), 0);               // nothing fits yet

    // Room for whatever the ring still holds, so that no block is cut.
    ASSERT_EQ(mount("tmpfs", install.LogDir().c_str(), "tmpfs", MS_REMOUNT, "size=64m"), 0);
    ASSERT_TRUE(WaitUntil([&] { return WalkRecords(Unscramble(ReadFile(file))).size() >= 20; }));
    writer->Send("");
    const auto r = writer->Wait();
    for (const auto& report : Reports(r.out)) EXPECT_LT(MaxUs(report), kHangUs) << report;
    runtime.Release();  // silent: failed writes are not reported

    size_t consumed = 0;
    const std::string plain = Unscramble(ReadFile(file));
    const auto records = WalkRecords(plain, &consumed);
    EXPECT_EQ(consumed, plain.size());
    ASSERT_GE(records.size(), 21U);
    for (size_t i = 0; i + 1 < records.size(); ++i) {  // whole: "CellEmulation-<seq>...."
        const std::string& c = records[i].content;
        ASSERT_EQ(c.rfind("CellEmulation-", 0), 0U) << i;
        ASSERT_TRUE(c.find_first_not_of('.', c.find('.')) == std::string::npos &&
                    (c.size() == 64 || c.size() == 262144))
            << i;
    }
    EXPECT_EQ(records.back().function, "CloseReadThreadAndResource");
    Figure("full disk: " + Reports(r.out)[0] + "; then " + Reports(r.out)[1]);
}

// The largest record there is, written by a program whose name is 65535
// bytes long, reaches the file byte for byte; one byte more is dropped; the
// next record arrives; zmlog reads the file.
TEST(Fault, RecordAtTheSizeLimit) {
    Installation install;
    auto repeat = [](const std::string& unit, size_t size) {
        std::string text;
        while (text.size() < size) text += unit;
        return text.substr(0, size);
    };
    const std::string program = repeat("Prog", 65535);
    const std::string function = repeat("Function", 65535);
    const std::string tag = repeat("Tag", 65535);
    const std::string content =
        repeat("content", PF::Utils::LOG::kMaxRecordLength - 32 - 3 * 65535);
    Runtime runtime(install);
    const auto r = install.Run(program, {"limit"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(r.out.rfind("content " + std::to_string(content.size()) + " ", 0), 0U) << r.out;
    ASSERT_TRUE(WaitUntil([&] {
        const DecodedLog log(install.DataFile());
        return !log.records.empty() && log.records.back().content == "after the limits";
    }));
    runtime.Release();

    const std::string plain = Unscramble(ReadFile(install.DataFile()));
    const auto records = WalkRecords(plain);
    ASSERT_EQ(records.size(), 4U);
    const auto& head = records[0].head;
    const std::string expected =
        MakeRecord(function, program, tag, content, 3, 0, false, head.threadId, head.timeUs);
    ASSERT_EQ(expected.size(), PF::Utils::LOG::kMaxRecordLength);
    EXPECT_TRUE(plain.compare(0, expected.size(), expected) == 0);
    // The record one byte too long is reported lost before the next one.
    EXPECT_EQ(records[1].content.rfind("lost 1 records: lock busy 0, ring full 0, too long 1, "
                                       "rate limited 0, since ",
                                       0),
              0U);
    EXPECT_EQ(records[2].program + ":" + records[2].content, "CellEmulation:after the limits");
    EXPECT_EQ(records[3].function, "CloseReadThreadAndResource");
    Figure("1 MiB record: " + r.out.substr(r.out.find("max_us")));

    // Every program's records are shown, whatever its name.
    auto zmlog = [&](const std::vector<std::string>& args) {
        const auto z = zmtest::Run(ZmlogPath(), "zmlog", args, install.Env(), install.Root());
        EXPECT_EQ(z.exitCode, 0) << z.err;
        return z.out;
    };
    const std::string line = " " + program + "[" + std::to_string(head.threadId) + "] WARN " +
                             function + ": " + tag + content + "\n";
    EXPECT_NE(zmlog({}).find(line), std::string::npos);
    // That record, and the notice of the one lost as too long.
    const std::string asked = zmlog({"--program=" + program});
    EXPECT_TRUE(asked.compare(23, line.size(), line) == 0);
    EXPECT_EQ(std::count(asked.begin(), asked.end(), '\n'), 2);
    EXPECT_NE(zmlog({"--stats"}).find("damaged bytes skipped: 0\n"), std::string::npos);
}
