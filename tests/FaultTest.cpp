// The log under faults, with real processes: the runtime killed and started
// again, its output file and directory taken away, a full disk, and records
// at the size limit. Every scenario checks that no process hangs or blocks
// its writers and that logging resumes; the figures it measures are printed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log/LogHead.h"
#include "support/TestSupport.h"

using namespace std::chrono_literals;
using zmtest::Child;
namespace fs = std::filesystem;

namespace {

constexpr const char* kProbe = "RoleProbe";
constexpr const char* kWriter = "FaultWriter";
const std::string kZmlog = ZMLOG_TOOLS_DIR "/zmlog/zmlog";
// A WriteLog call waits at most 1 ms for the lock: one of half a second is a
// hang, not a busy scheduler.
constexpr double kHangMs = 500;

void Figure(const std::string& text) {
    std::printf("[ figures  ] %s\n", text.c_str());
    std::fflush(stdout);
}

std::vector<zmtest::Record> FileRecords(const std::string& path, size_t from = 0,
                                        size_t* consumed = nullptr) {
    const std::string plain = zmtest::Unscramble(zmtest::ReadFile(path));
    return zmtest::WalkRecords(from < plain.size() ? plain.substr(from) : "", consumed);
}

// Sequence number of a FaultWriter record of role, -1 for any other record.
long Seq(const zmtest::Record& r, const std::string& role) {
    if (r.program != role || r.content.compare(0, role.size() + 1, role + "-") != 0) return -1;
    return std::strtol(r.content.c_str() + role.size() + 1, nullptr, 10);
}

std::vector<long> Seqs(const std::vector<zmtest::Record>& records, const std::string& role) {
    std::vector<long> seqs;
    for (const auto& r : records) {
        if (Seq(r, role) >= 0) seqs.push_back(Seq(r, role));
    }
    return seqs;
}

bool Increasing(const std::vector<long>& seqs) {
    for (size_t i = 1; i < seqs.size(); ++i) {
        if (seqs[i] <= seqs[i - 1]) return false;
    }
    return true;
}

// The record content FaultWriter wrote for seq, padding included.
bool Intact(const zmtest::Record& r, const std::string& role) {
    const std::string head = role + "-" + std::to_string(Seq(r, role));
    return r.content.compare(0, head.size(), head) == 0 &&
           r.content.find_first_not_of('.', head.size()) == std::string::npos;
}

// "max WriteLog <ms> ms" of phase k in a FaultWriter's output.
double MaxMs(const std::string& out, int k) {
    const std::string key = "phase " + std::to_string(k) + ": ";
    const size_t at = out.find(key);
    if (at == std::string::npos) return -1;
    const size_t max = out.find("max WriteLog ", at);
    return std::strtod(out.c_str() + max + 13, nullptr);
}

std::string PhaseSummary(const std::string& out, int k) {
    const size_t at = out.find("phase " + std::to_string(k) + ": ");
    return at == std::string::npos ? "" : out.substr(at, out.find('\n', at) - at);
}

// Alive and not yet a zombie.
bool Running(pid_t pid) {
    const std::string stat = zmtest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

ino_t Inode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

std::string ReadAll(int fd) {
    std::string bytes;
    char buf[65536];
    ssize_t n;
    for (off_t at = 0; (n = pread(fd, buf, sizeof buf, at)) > 0; at += n) {
        bytes.append(buf, static_cast<size_t>(n));
    }
    return bytes;
}

// A tmpfs of the given size over dir for the life of the object.
class TmpfsMount {
  public:
    TmpfsMount(const std::string& dir, const std::string& options) : dir_(dir) {
        mounted_ = mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
        error_ = mounted_ ? 0 : errno;
    }
    ~TmpfsMount() {
        // Lazily: a process killed a moment ago may still hold a file open.
        if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
    }
    TmpfsMount(const TmpfsMount&) = delete;
    TmpfsMount& operator=(const TmpfsMount&) = delete;
    bool Mounted() const { return mounted_; }
    bool Remount(const std::string& options) {
        return mount("tmpfs", dir_.c_str(), "tmpfs", MS_REMOUNT, options.c_str()) == 0;
    }
    std::string Error() const { return std::strerror(error_); }

  private:
    std::string dir_;
    bool mounted_ = false;
    int error_ = 0;
};

class Fault : public ::testing::Test {
  protected:
    void SetUp() override { install.WriteConfig("[log]\nlogActive=true\nlogLevel=trace\n"); }

    std::string Flag() const { return install.Root() + "/release"; }
    std::unique_ptr<Child> StartRuntime() {
        auto runtime = std::make_unique<Child>(
            kProbe, "ZMRuntime", std::vector<std::string>{"runtime", Flag()}, install.Env());
        EXPECT_TRUE(runtime->WaitForOutput("started", 10s)) << runtime->OutSoFar();
        return runtime;
    }
    // Releases the runtime; it must end by itself, silent on stderr.
    void Release(Child& runtime) {
        zmtest::WriteFile(Flag(), "");
        const auto r = runtime.Wait(20s);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_NE(r.out.find("released 1"), std::string::npos) << r.out;
        EXPECT_EQ(r.err, "");
    }
    std::unique_ptr<Child> StartWriter(const std::string& role,
                                       const std::vector<std::string>& phases) {
        auto writer = std::make_unique<Child>(kWriter, role, phases, install.Env());
        EXPECT_TRUE(writer->WaitForOutput("phase 0\n", 10s)) << writer->OutSoFar();
        return writer;
    }
    // Moves a writer to phase k.
    void Advance(Child& writer, int k) {
        writer.Signal(SIGUSR1);
        EXPECT_TRUE(writer.WaitForOutput("phase " + std::to_string(k) + "\n", 10s))
            << writer.OutSoFar();
    }
    // Ends a writer in its last phase; it must exit within the deadline.
    zmtest::ProcessResult Finish(Child& writer, bool signal = true) {
        if (signal) writer.Signal(SIGUSR1);
        auto r = writer.Wait(20s);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_EQ(r.err, "");
        return r;
    }
    bool WaitForRecords(const std::string& path, size_t n,
                        std::chrono::milliseconds timeout = 10s) {
        return zmtest::WaitUntil([&] { return FileRecords(path).size() >= n; }, timeout);
    }

    zmtest::GlobalNamesLock names;
    zmtest::TempInstall install;
    const std::string file = install.DataFile();
};

}  // namespace

// The runtime dies by SIGKILL while two writers log, and a moment later a
// process dies holding the lock, as the runtime would inside its drain.
// Writers are never held up longer than the 1 ms lock deadline, neither while
// the ring fills with nobody draining nor while the lock is dead; the next
// runtime replaces the semaphores and reuses the segment, and writers that
// attach again write into the new ring.
TEST_F(Fault, RuntimeKilledAndStartedAgain) {
    const int kAfter = 200;
    auto first = StartRuntime();
    // runtime alive, dead, dead with the lock held, idle, attach again, a
    // known number of records
    const std::vector<std::string> phases{
        "64/200", "8192/100", "64/0", "idle", "attach", "64/1000/" + std::to_string(kAfter)};
    auto cell = StartWriter("CellEmulation", phases);
    auto engine = StartWriter("EngineEmulation", phases);
    const std::vector<Child*> writers{cell.get(), engine.get()};
    ASSERT_TRUE(zmtest::WaitUntil([&] {
        const auto records = FileRecords(file);
        return !Seqs(records, "CellEmulation").empty() && !Seqs(records, "EngineEmulation").empty();
    }));

    const ino_t segment = Inode("/dev/shm/ZMLOG");
    const ino_t lock = Inode("/dev/shm/sem.WriteLOG");
    first->Signal(SIGKILL);
    EXPECT_EQ(first->Wait(10s).signal, SIGKILL);
    const auto killedAt = std::chrono::steady_clock::now();
    for (Child* w : writers) Advance(*w, 1);
    // Nobody drains: long enough for the writers to fill the 8 MiB ring, which
    // then throws its unread records away.
    std::this_thread::sleep_for(300ms);
    {
        Child holder("TransportWriter", "BusBridge", {"hold"}, install.Env());
        ASSERT_TRUE(holder.WaitForOutput("locked", 10s));
        holder.Signal(SIGKILL);
        EXPECT_EQ(holder.Wait(10s).signal, SIGKILL);
    }
    for (Child* w : writers) Advance(*w, 2);
    std::this_thread::sleep_for(200ms);

    const long cutAt = zmtest::FileSize(file);
    auto second = StartRuntime();
    const double deadMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - killedAt)
            .count();
    EXPECT_EQ(Inode("/dev/shm/ZMLOG"), segment);      // reused
    EXPECT_NE(Inode("/dev/shm/sem.WriteLOG"), lock);  // replaced
    // All stop before any attaches again: writers on two different locks
    // could break the ring's one-producer-at-a-time publication.
    for (Child* w : writers) Advance(*w, 3);
    for (Child* w : writers) Advance(*w, 4);

    for (Child* w : writers) {
        const auto r = Finish(*w, false);
        EXPECT_NE(r.out.find("attached 1"), std::string::npos) << r.out;
        for (int k : {0, 1, 2, 5}) {
            EXPECT_GE(MaxMs(r.out, k), 0) << r.out;
            EXPECT_LT(MaxMs(r.out, k), kHangMs) << r.out;
        }
        Figure(PhaseSummary(r.out, 0) + " (runtime alive)");
        Figure(PhaseSummary(r.out, 1) + " (runtime dead)");
        Figure(PhaseSummary(r.out, 2) + " (runtime dead, lock held by a dead process)");
        Figure(PhaseSummary(r.out, 5) + " (attached again)");
    }
    char dead[80];
    std::snprintf(dead, sizeof dead, "runtime dead for %.0f ms", deadMs);
    Figure(dead);
    ASSERT_TRUE(zmtest::WaitUntil([&] {
        const auto records = FileRecords(file, static_cast<size_t>(cutAt));
        return Seqs(records, "CellEmulation").size() >= kAfter &&
               Seqs(records, "EngineEmulation").size() >= kAfter;
    })) << "records written after attaching again are missing";
    Release(*second);

    // What the killed runtime left: whole records, unless it died in a write.
    size_t consumed = 0;
    const auto before = zmtest::WalkRecords(
        zmtest::Unscramble(zmtest::ReadFile(file)).substr(0, static_cast<size_t>(cutAt)),
        &consumed);
    Figure("first runtime's file: " + std::to_string(before.size()) + " records, " +
           std::to_string(cutAt - static_cast<long>(consumed)) + " bytes of a cut block");
    // The second runtime's part is whole records only, each writer's in order,
    // ending with the last kAfter records it wrote.
    const auto after = FileRecords(file, static_cast<size_t>(cutAt), &consumed);
    EXPECT_EQ(static_cast<long>(consumed), zmtest::FileSize(file) - cutAt);
    for (const std::string role : {"CellEmulation", "EngineEmulation"}) {
        const auto seqs = Seqs(after, role);
        EXPECT_TRUE(Increasing(seqs)) << role;
        ASSERT_GE(seqs.size(), size_t{kAfter}) << role;
        for (size_t i = seqs.size() - kAfter + 1; i < seqs.size(); ++i) {
            ASSERT_EQ(seqs[i], seqs[i - 1] + 1) << role << " lost a record after attaching";
        }
        Figure(role + ": " + std::to_string(seqs.size()) + " records in the second runtime's part");
    }
    EXPECT_EQ(after.back().function, "CloseReadThreadAndResource");
}

// The output file is deleted, later its whole directory, while a writer logs.
// A deleted file is recreated at the next drain without losing a record. With
// the directory gone the archiver cannot reopen the file: it says nothing,
// does not recreate the directory, drops the blocks it drains and goes on;
// once the directory is back, a new file takes the records.
TEST_F(Fault, OutputFileAndDirectoryRemoved) {
    auto runtime = StartRuntime();
    auto writer = StartWriter("CellEmulation", {"64/1000"});
    ASSERT_TRUE(WaitForRecords(file, 20));

    // The archiver may still append to the deleted file: read it through a
    // descriptor kept open.
    int oldFd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(oldFd, 0);
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_TRUE(WaitForRecords(file, 20));
    const auto deleted =
        Seqs(zmtest::WalkRecords(zmtest::Unscramble(ReadAll(oldFd))), "CellEmulation");
    close(oldFd);
    const auto recreated = Seqs(FileRecords(file), "CellEmulation");
    ASSERT_FALSE(deleted.empty());
    ASSERT_FALSE(recreated.empty());
    EXPECT_EQ(recreated.front(), deleted.back() + 1) << "a record was lost to the deletion";

    oldFd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(oldFd, 0);
    // Moved away in one step, so that the archiver cannot recreate the file
    // between the file's removal and the directory's.
    const std::string gone = install.Root() + "/gone";
    ASSERT_EQ(rename(install.LogDir().c_str(), gone.c_str()), 0);
    fs::remove_all(gone);
    const auto removedAt = std::chrono::steady_clock::now();
    // Nothing brings the directory back, and the runtime stays up.
    EXPECT_FALSE(zmtest::WaitUntil([&] { return zmtest::Exists(install.LogDir()); }, 500ms));
    EXPECT_TRUE(Running(runtime->Pid()));
    ASSERT_TRUE(fs::create_directory(install.LogDir()));
    const double goneMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - removedAt)
            .count();
    const auto lastBefore =
        Seqs(zmtest::WalkRecords(zmtest::Unscramble(ReadAll(oldFd))), "CellEmulation").back();
    close(oldFd);
    ASSERT_TRUE(WaitForRecords(file, 20));

    const auto r = Finish(*writer);
    EXPECT_LT(MaxMs(r.out, 0), kHangMs) << r.out;
    Release(*runtime);  // its stderr stayed empty throughout
    size_t consumed = 0;
    const auto records = FileRecords(file, 0, &consumed);
    EXPECT_EQ(static_cast<long>(consumed), zmtest::FileSize(file));
    const auto seqs = Seqs(records, "CellEmulation");
    ASSERT_FALSE(seqs.empty());
    EXPECT_TRUE(Increasing(seqs));
    EXPECT_GT(seqs.front(), lastBefore);
    EXPECT_EQ(records.back().function, "CloseReadThreadAndResource");
    char text[160];
    std::snprintf(text, sizeof text,
                  "directory gone for %.0f ms: %ld records dropped, no message; %s", goneMs,
                  seqs.front() - lastBefore - 1, PhaseSummary(r.out, 0).c_str());
    Figure(text);
}

// The log directory on a 1 MiB tmpfs that fills up. Writers are not held
// up, the archiver goes on draining, and since it counts the bytes of failed
// writes too, the file rolls at the usual limit while the disk is still full.
// Once the disk has room again, the records of the fresh file arrive whole.
TEST_F(Fault, FullDisk) {
    if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
    ASSERT_TRUE(fs::create_directories(install.LogDir()));
    TmpfsMount disk(install.LogDir(), "size=1m");
    if (!disk.Mounted()) GTEST_SKIP() << "cannot mount a tmpfs: " << disk.Error();
    auto runtime = StartRuntime();
    // 256 KiB records: the disk is full after four, and about 80 make the
    // archiver's count reach the roll.
    auto writer = StartWriter("CellEmulation", {"262144/10000", "64/1000"});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(zmtest::WaitUntil([&] { return zmtest::Exists(file + "_1"); }, 30s))
        << "no roll while the disk was full";
    const double rollMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(Running(runtime->Pid()));
    Advance(*writer, 1);
    EXPECT_EQ(zmtest::FileSize(file + "_1"), 1048576);  // filled the disk
    EXPECT_EQ(zmtest::FileSize(file), 0);               // nothing fits yet
    size_t consumed = 0;
    const auto full = FileRecords(file + "_1", 0, &consumed);
    Figure("full file: " + std::to_string(full.size()) + " whole records, then " +
           std::to_string(1048576 - consumed) + " bytes of a cut one");

    // Room for whatever the ring still holds, so that no block is cut.
    ASSERT_TRUE(disk.Remount("size=64m")) << std::strerror(errno);
    ASSERT_TRUE(WaitForRecords(file, 20));
    const auto r = Finish(*writer);
    for (int k : {0, 1}) EXPECT_LT(MaxMs(r.out, k), kHangMs) << r.out;
    Release(*runtime);  // silent: failed writes are not reported

    const auto records = FileRecords(file, 0, &consumed);
    EXPECT_EQ(static_cast<long>(consumed), zmtest::FileSize(file));
    ASSERT_GE(records.size(), 21U);
    for (size_t i = 0; i + 1 < records.size(); ++i) {
        ASSERT_TRUE(Intact(records[i], "CellEmulation")) << i;
    }
    EXPECT_TRUE(Increasing(Seqs(records, "CellEmulation")));
    EXPECT_EQ(records.back().function, "CloseReadThreadAndResource");
    char text[200];
    std::snprintf(text, sizeof text, "rolled %.0f ms after the start with the disk full; %s",
                  rollMs, PhaseSummary(r.out, 0).c_str());
    Figure(text);
}

// The largest record there is, written by a program whose name is 65535
// bytes long, reaches the file byte for byte; one byte more is dropped; the
// next record arrives; zmlog reads the file.
TEST_F(Fault, RecordAtTheSizeLimit) {
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
    auto runtime = StartRuntime();
    const auto r = zmtest::RunHelper("LimitWriter", program, {}, install.Env());
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("content " + std::to_string(content.size()) + "\n"), std::string::npos)
        << r.out.substr(0, 200);
    ASSERT_TRUE(zmtest::WaitUntil([&] {
        const auto records = FileRecords(file);
        return !records.empty() && records.back().content == "after the limits";
    }));
    Release(*runtime);

    const std::string plain = zmtest::Unscramble(zmtest::ReadFile(file));
    const auto records = zmtest::WalkRecords(plain);
    ASSERT_EQ(records.size(), 3U);
    const auto& head = records[0].head;
    const std::string expected = zmtest::MakeRecord(function, program, tag, content, 3, 0, false,
                                                    head.threadId, head.timeUs);
    ASSERT_EQ(expected.size(), PF::Utils::LOG::kMaxRecordLength);
    EXPECT_TRUE(plain.compare(0, expected.size(), expected) == 0);
    EXPECT_EQ(records[1].program, "CellEmulation");
    EXPECT_EQ(records[1].content, "after the limits");
    EXPECT_EQ(records[2].function, "CloseReadThreadAndResource");
    Figure("1 MiB record: " + r.out.substr(r.out.find("max WriteLog")));

    const auto runZmlog = [&](const std::vector<std::string>& args) {
        auto z = zmtest::RunHelper(kZmlog, "zmlog", args, install.Env(), 30s, install.Root());
        EXPECT_EQ(z.signal, 0);
        EXPECT_EQ(z.exitCode, 0) << z.err;
        return z.out;
    };
    // Every program's records are shown, whatever its name.
    const std::string plainOut = runZmlog({});
    EXPECT_NE(plainOut.find("] INFO main: limitsafter the limits\n"), std::string::npos);
    const std::string line = " " + program + "[" + std::to_string(head.threadId) + "] WARN " +
                             function + ": " + tag + content + "\n";
    EXPECT_NE(plainOut.find(line), std::string::npos);
    const std::string asked = runZmlog({"--program=" + program});
    ASSERT_GE(asked.size(), line.size());
    EXPECT_EQ(asked.substr(asked.size() - line.size()), line);
    EXPECT_EQ(asked.find('\n'), asked.size() - 1);  // that record alone
    const std::string stats = runZmlog({"--stats"});
    EXPECT_NE(stats.find("damaged bytes skipped: 0\n"), std::string::npos) << stats;
}
