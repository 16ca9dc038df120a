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

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
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

void Figure(const std::string& text) {
    std::printf("[ figures  ] %s\n", text.c_str());
    std::fflush(stdout);
}

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

ino_t Inode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
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

// The runtime dies by SIGKILL while two writers log, and a moment later a
// process dies holding the lock, as the runtime would inside its drain.
// Writers are never held up longer than the 1 ms lock deadline, neither while
// the ring fills with nobody draining nor while the lock is dead; the next
// runtime replaces the semaphores and reuses the segment, and writers that
// attach again write into the new ring.
TEST(Fault, RuntimeKilledAndStartedAgain) {
    Installation install;
    const std::vector<std::string> roles{"CellEmulation", "EngineEmulation"};
    // runtime alive, dead, dead with the lock held; then all stop before any
    // attaches again (two locks on one ring could break its publication).
    const std::vector<std::string> steps{"log=0,64,200", "log=0,8192,100", "log=0,64,0",
                                         "wait",         "attach",         "log=200,64,1000"};
    auto first = std::make_unique<Runtime>(install);
    std::vector<std::unique_ptr<Child>> writers;
    for (const auto& role : roles) writers.push_back(install.Start(role, steps));
    auto next = [&](const std::string& expect, int times = 1) {
        for (auto& w : writers) w->Send("");
        for (auto& w : writers) EXPECT_TRUE(w->WaitForOutput(expect, 10s, times)) << w->OutSoFar();
    };
    ASSERT_TRUE(WaitUntil([&] {
        const DecodedLog log(install.DataFile());
        return !log.Seqs(roles[0]).empty() && !log.Seqs(roles[1]).empty();
    }));

    const ino_t segment = Inode("/dev/shm/ZMLOG");
    const ino_t lock = Inode("/dev/shm/sem.WriteLOG");
    first->Process().Signal(SIGKILL);
    EXPECT_EQ(first->Process().Wait().signal, SIGKILL);
    next("logged ");
    std::this_thread::sleep_for(300ms);  // nobody drains: the writers fill the ring
    {
        auto holder = install.Start("BusBridge", {"hold-lock", "pause"});
        ASSERT_TRUE(holder->WaitForOutput("locked"));
        holder->Signal(SIGKILL);
        EXPECT_EQ(holder->Wait().signal, SIGKILL);
    }
    next("logged ", 2);
    std::this_thread::sleep_for(200ms);
    const long cutAt = FileSize(install.DataFile());
    Runtime second(install);
    EXPECT_EQ(Inode("/dev/shm/ZMLOG"), segment);      // reused
    EXPECT_NE(Inode("/dev/shm/sem.WriteLOG"), lock);  // replaced
    next("waiting");
    next("attached 1");
    const char* phases[] = {"runtime alive", "runtime dead",
                            "runtime dead, lock held by a dead process", "attached again"};
    for (auto& w : writers) {
        const auto r = w->Wait();
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        const auto reports = Reports(r.out);
        ASSERT_EQ(reports.size(), 4U) << r.out;
        for (size_t k = 0; k < reports.size(); ++k) {
            EXPECT_LT(MaxUs(reports[k]), kHangUs) << reports[k];
            Figure(reports[k] + " (" + phases[k] + ")");
        }
    }
    ASSERT_TRUE(WaitUntil([&] {
        const DecodedLog log(install.DataFile(), cutAt);
        return log.Seqs(roles[0]).size() >= 200 && log.Seqs(roles[1]).size() >= 200;
    })) << "records written after attaching again are missing";
    second.Release();

    // The second runtime's part is whole records, each writer's in order,
    // ending with the 200 it wrote after attaching again.
    const DecodedLog after(install.DataFile(), cutAt);
    EXPECT_EQ(after.damagedBytes, 0U);
    for (const auto& role : roles) {
        const auto seqs = after.Seqs(role);
        EXPECT_TRUE(Increasing(seqs)) << role;
        ASSERT_GE(seqs.size(), 200U) << role;
        for (size_t i = seqs.size() - 199; i < seqs.size(); ++i)
            ASSERT_EQ(seqs[i], seqs[i - 1] + 1) << role << " lost a record after attaching";
        Figure(role + ": " + std::to_string(seqs.size()) + " records in the second runtime's part");
    }
    EXPECT_EQ(after.records.back().function, "CloseReadThreadAndResource");
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
    ASSERT_EQ(records.size(), 3U);
    const auto& head = records[0].head;
    const std::string expected =
        MakeRecord(function, program, tag, content, 3, 0, false, head.threadId, head.timeUs);
    ASSERT_EQ(expected.size(), PF::Utils::LOG::kMaxRecordLength);
    EXPECT_TRUE(plain.compare(0, expected.size(), expected) == 0);
    EXPECT_EQ(records[1].program + ":" + records[1].content, "CellEmulation:after the limits");
    EXPECT_EQ(records[2].function, "CloseReadThreadAndResource");
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
    EXPECT_EQ(zmlog({"--program=" + program}).substr(23), line);  // that record alone
    EXPECT_NE(zmlog({"--stats"}).find("damaged bytes skipped: 0\n"), std::string::npos);
}
