// Scrambling, rolling, directories and the archiver thread draining a real
// ring into its file.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>
#include <tuple>

#include "archive/Encrypt.h"
#include "archive/LogFileHelpers.h"
#include "archive/ShmArchiver.h"
#include "support/RingFixture.h"

using namespace PF::Utils::LOG;
using namespace std::chrono_literals;
using zmtest::Unscramble;  // its own inverse: scrambles as well
namespace fs = std::filesystem;

namespace {

int ThreadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string comm = zmtest::ReadFile(task.path().string() + "/comm");
        count += comm == name + "\n" ? 1 : 0;
    }
    return count;
}

// A file of the given size without writing its bytes.
void MakeSparse(const std::string& path, long size) {
    zmtest::WriteFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

}  // namespace

TEST(EncryptTest, InvertsBitSevenOfExactlySizeBytesAndUndoesItself) {
    std::string plain(40, '\0');
    for (size_t i = 0; i < plain.size(); ++i) plain[i] = static_cast<char>(i * 37 + 0x41);
    for (int size : {0, 1, 17, 32}) {
        std::string buf = plain;
        EXPECT_EQ(Encrypt::EncryptBlock(buf.data(), size), size);
        EXPECT_EQ(buf, Unscramble(plain.substr(0, size)) + plain.substr(size)) << size;
        Encrypt::EncryptBlock(buf.data(), size);
        EXPECT_EQ(buf, plain);
    }
    zmtest::TempInstall dir;
    FILE* file = std::fopen((dir.Root() + "/out").c_str(), "ab");
    std::string block = "A\xC1";
    EXPECT_EQ(Encrypt::WriteBlockWithEntry(block.data(), 0, file), 0);
    EXPECT_EQ(Encrypt::WriteBlockWithEntry(block.data(), 2, file), 2);
    CloseFile(file);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(block, "\xC1\x41");  // the caller's buffer is scrambled too
    EXPECT_EQ(zmtest::ReadFile(dir.Root() + "/out"), "\xC1\x41");
}

TEST(RollFileTest, Examples) {
    struct Case {
        std::vector<int> present;
        int index, max, indexAfter;
        std::map<int, int> after;  // file number -> number it had before (-1: absent)
        bool reports;
    };
    const std::vector<Case> cases = {
        {{0}, 1, 10, 1, {{0, -1}, {1, 0}}, false},
        {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9},
         10,
         10,
         9,
         {{0, -1}, {1, 0}, {5, 4}, {9, 8}, {10, -1}},
         false},
        {{0, 2}, 3, 10, 3, {{1, 0}, {2, -1}, {3, 2}}, true},  // "_1" missing
        {{0}, 1, 1, 0, {{0, -1}, {1, -1}}, false},            // one file: start over empty
    };
    for (const auto& c : cases) {
        zmtest::TempInstall dir;
        auto name = [&](int n) { return dir.Root() + "/R" + (n ? "_" + std::to_string(n) : ""); };
        for (int n : c.present) zmtest::WriteFile(name(n), "file" + std::to_string(n));
        int index = c.index;
        std::string err = zmtest::CaptureFd(2, [&] { RollFile(dir.Root() + "/R", index, c.max); });
        EXPECT_EQ(index, c.indexAfter);
        EXPECT_EQ(err, c.reports
                           ? std::string("Rename Fail errno msg: ") + std::strerror(ENOENT) + "\n"
                           : "");
        for (auto [n, was] : c.after) {
            EXPECT_EQ(zmtest::Exists(name(n)) ? zmtest::ReadFile(name(n)) : "-",
                      was < 0 ? "-" : "file" + std::to_string(was))
                << "file " << n << " of case with index " << c.index;
        }
    }
}

TEST(LogDirectoryTest, CreatesMissingLevels) {
    zmtest::TempInstall dir;
    fs::create_directory(dir.Root() + "/a");
    EXPECT_TRUE(CheckAndCreateDirectory(dir.Root() + "/a/b/c"));
    EXPECT_TRUE(fs::is_directory(dir.Root() + "/a/b/c"));
    EXPECT_TRUE(CheckAndCreateDirectory(dir.Root() + "/a/b/c"));
}

// The archiver of this process over a real shared ring.
class ArchiverTest : public zmtest::SharedRingTest {
  protected:
    void TearDown() override {
        archiver->StopThread();
        zmtest::SharedRingTest::TearDown();
    }
    void Start(const std::string& dir, const std::string& maxRoll = "10") {
        ConfManager::mp["maxFileRollNumber"] = maxRoll;
        archiver->SetBaseLogDir(dir);
        EXPECT_TRUE(archiver->init());
        archiver->StartThread();
    }
    void Enqueue(const std::string& bytes) {
        ASSERT_EQ(ring->Enqueue(const_cast<char*>(bytes.data()), bytes.size()), bytes.size());
    }
    std::shared_ptr<ShmArchiver>& archiver = ShmArchiver::GetInstancePtr();
    std::string file = install.DataFile();
};

TEST_F(ArchiverTest, RecordsOfAnotherProcessReachTheFileScrambled) {
    Start(install.LogDir());
    auto result = zmtest::RunHelper("ArchiveWriter", "CellEmulation", {"first", "second", "third"},
                                    install.Env());
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::vector<zmtest::Record> records;
    size_t consumed = 0;
    std::string raw;
    ASSERT_TRUE(zmtest::WaitUntil([&] {
        raw = zmtest::ReadFile(file);
        records = zmtest::WalkRecords(Unscramble(raw), &consumed);
        return records.size() == 3;
    }));
    EXPECT_EQ(consumed, raw.size());  // nothing but the records themselves
    const char* contents[] = {"first", "second", "third"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(records[i].program + "|" + records[i].function + "|" + records[i].tag + "|" +
                      records[i].content,
                  std::string("CellEmulation|main|archive|") + contents[i]);
        EXPECT_EQ(records[i].head.flags, kInfo);
    }

    std::this_thread::sleep_for(350ms);  // empty ticks leave the file alone
    EXPECT_EQ(zmtest::ReadFile(file), raw);
    ASSERT_EQ(unlink(file.c_str()), 0);  // a vanished file is recreated at the next drain
    Enqueue("xyz");
    ASSERT_TRUE(zmtest::WaitUntil([&] { return zmtest::ReadFile(file) == Unscramble("xyz"); }));
}

TEST_F(ArchiverTest, RollsOnlyWhenTheBlockWouldPassTheLimit) {
    fs::create_directories(install.LogDir());
    MakeSparse(file, 20971519 - 100);
    Start(install.LogDir());
    Enqueue(std::string(100, 'x'));
    ASSERT_TRUE(zmtest::WaitUntil([&] { return zmtest::FileSize(file) == 20971519; }));
    EXPECT_FALSE(zmtest::Exists(file + "_1"));
    Enqueue("A");
    ASSERT_TRUE(zmtest::WaitUntil([&] { return zmtest::FileSize(file) == 1; }));
    EXPECT_EQ(zmtest::ReadFile(file), "\xC1");
    EXPECT_EQ(zmtest::FileSize(file + "_1"), 20971519);
}

TEST_F(ArchiverTest, StartProbesExistingRolledFiles) {
    // Found index 2; with at most 2 files it is capped at 1 and "_2" stays.
    for (auto [maxRoll, two, three] :
         {std::tuple("10", "one", "two"), std::tuple("2", "two", "-")}) {
        const std::string dir = install.LogDir() + "/max" + maxRoll;
        const std::string path = dir + "/RUNTIME.data";
        fs::create_directories(dir);
        MakeSparse(path, 20971519);
        zmtest::WriteFile(path + "_1", "one");
        zmtest::WriteFile(path + "_2", "two");
        Start(dir, maxRoll);
        auto rollOnce = [&] {
            Enqueue("A");
            EXPECT_TRUE(zmtest::WaitUntil([&] { return zmtest::FileSize(path) == 1; }));
            archiver->StopThread();
        };
        // A probe one too far would rename a missing file and say so.
        EXPECT_EQ(zmtest::CaptureFd(2, rollOnce), "");
        EXPECT_EQ(zmtest::FileSize(path + "_1"), 20971519);
        EXPECT_EQ(zmtest::ReadFile(path + "_2"), two);
        EXPECT_EQ(zmtest::Exists(path + "_3") ? zmtest::ReadFile(path + "_3") : "-", three);
    }
}

TEST_F(ArchiverTest, UnopenableFileEndsOnlyTheThread) {
    const std::string notADir = install.Root() + "/plain";
    zmtest::WriteFile(notADir, "x");
    const int before = ThreadsNamed("ShmReadToBinary");
    std::string err = zmtest::CaptureFd(2, [&] {
        Start(notADir);
        EXPECT_TRUE(zmtest::WaitUntil([&] { return ThreadsNamed("ShmReadToBinary") == before; }));
    });
    EXPECT_EQ(err, "file open fail\n");
    archiver->StartThread();  // the flag is still set: nothing starts
    EXPECT_EQ(ThreadsNamed("ShmReadToBinary"), before);
}

TEST(ArchiverTextModeTest, PrivateRingIsWrittenPlainToTheProgramsLogFile) {
    zmtest::TempInstall install;
    ASSERT_TRUE(ConfManager::outputMode);
    ASSERT_TRUE(MEMManager::CreateMEM(kSegmentSize));
    ASSERT_TRUE(RingHead::Init(MEMManager::memInfo.address, static_cast<int>(kSegmentSize),
                               RingHead::instance));
    auto& archiver = ShmArchiver::GetInstancePtr();
    archiver->SetBaseLogDir(install.LogDir());
    archiver->init();
    archiver->StartThread();
    std::string line = "a text line\n";
    RingHead::instance->Enqueue(line.data(), static_cast<unsigned>(line.size()));
    const std::string path = install.LogDir() + "/LogAutoTest.log";
    EXPECT_TRUE(zmtest::WaitUntil([&] { return zmtest::ReadFile(path) == line; }));
    archiver->StopThread();
    RingHead::instance = nullptr;
    MEMManager::DeleteSHM();
}
