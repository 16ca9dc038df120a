// Scrambling, rolling and the archiver thread draining a real ring into its
// file; and the log state table: switching logging and the USB medium
// restarts the archiver and sets the shared header's switch.

#include <tuple>

#include "archive/Encrypt.h"
#include "archive/ShmArchiver.h"
#include "lifecycle/LogStateManager.h"
#include "support/RingFixture.h"
#include "support/ThreadNames.h"

using namespace PF::Utils::LOG;
using namespace std::chrono_literals;
using zmtest::Unscramble;  // its own inverse: scrambles as well

static std::string ContentOr(const std::string& path, const std::string& absent) {
    return zmtest::Exists(path) ? zmtest::ReadFile(path) : absent;
}

TEST(EncryptTest, InvertsBitSevenOfExactlySizeBytesAndUndoesItself) {
    std::string plain;
    for (int i = 0; i < 40; ++i) plain.push_back(static_cast<char>(i * 37 + 0x41));
    for (int size : {0, 1, 17, 32}) {
        std::string buf = plain;
        EXPECT_EQ(Encrypt::EncryptBlock(buf.data(), size), size);
        EXPECT_EQ(buf, Unscramble(plain.substr(0, size)) + plain.substr(size)) << size;
        Encrypt::EncryptBlock(buf.data(), size);
        EXPECT_EQ(buf, plain) << size;
    }
}

TEST(RollFileTest, Examples) {
    // Files R, R_1 ... hold their own number; the result is the index after
    // the roll, for R to R_10 the number each holds then ('-': absent), and stderr.
    const std::string enoent = "Rename Fail errno msg: No such file or directory\n";
    const struct {
        const char* present;
        int index, max;
        std::string result;
    } cases[] = {
        {"0123456789", 10, 10, "9 -012345678- "},
        {"03", 4, 10, "4 -0--3------ " + enoent},  // two renames fail, one line
        {"0", 1, 1, "0 ----------- "},             // one file: start over empty
    };
    for (const auto& c : cases) {
        zmtest::Installation dir("");
        auto name = [&](int n) { return dir.Root() + "/R" + (n ? "_" + std::to_string(n) : ""); };
        for (const char* p = c.present; *p; ++p) zmtest::WriteFile(name(*p - '0'), {*p});
        int index = c.index;
        std::string err = zmtest::CaptureFd(2, [&] { RollFile(name(0), index, c.max); });
        std::string result = std::to_string(index) + " ";
        for (int n = 0; n <= 10; ++n) result += ContentOr(name(n), "-");
        EXPECT_EQ(result + " " + err, c.result);
    }
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
    std::shared_ptr<ShmArchiver>& archiver = ShmArchiver::GetInstancePtr();
    std::string file = install.DataFile();
};

TEST_F(ArchiverTest, RecordsOfAnotherProcessReachTheFileScrambled) {
    Start(install.LogDir());
    ASSERT_EQ(install.Run("CellEmulation", {"log=3"}).exitCode, 0);
    ASSERT_TRUE(zmtest::WaitUntil([&] { return zmtest::DecodedLog(file).records.size() == 3; }));
    const zmtest::DecodedLog log(file);
    EXPECT_EQ(log.damagedBytes + log.corrupt, 0U);  // nothing but the records themselves
    EXPECT_EQ(log.Seqs("CellEmulation"), (std::vector<long>{0, 1, 2}));

    const std::string raw = zmtest::ReadFile(file);
    std::this_thread::sleep_for(350ms);  // empty ticks leave the file alone
    EXPECT_EQ(zmtest::ReadFile(file), raw);
    ASSERT_EQ(unlink(file.c_str()), 0);  // a vanished file is recreated at the next drain
    ASSERT_EQ(Put("xyz"), 3U);
    ASSERT_TRUE(zmtest::WaitUntil([&] { return zmtest::ReadFile(file) == Unscramble("xyz"); }));
}

TEST_F(ArchiverTest, StartProbesRolledFilesAndRollsOnlyPastTheLimit) {
    // Found index 2; with at most 2 files it is capped at 1 and "_2" stays;
    // a setting that is no number means the default, 10.
    for (auto [maxRoll, two, three] : {std::tuple("10", "one", "two"), std::tuple("2", "two", "-"),
                                       std::tuple("x", "one", "two")}) {
        const std::string dir = install.LogDir() + "/max" + maxRoll, path = dir + "/RUNTIME.data";
        std::filesystem::create_directories(dir);
        zmtest::WriteFile(path, "");
        ASSERT_EQ(truncate(path.c_str(), 20971519 - 100), 0);  // sparse
        zmtest::WriteFile(path + "_1", "one");
        zmtest::WriteFile(path + "_2", "two");
        Start(dir, maxRoll);
        auto fillThenRoll = [&] {
            ASSERT_EQ(Put(std::string(100, 'x')), 100U);  // exactly reaches the limit: no roll yet
            EXPECT_TRUE(zmtest::WaitUntil([&] { return zmtest::FileSize(path) == 20971519; }));
            ASSERT_EQ(Put("A"), 1U);
            EXPECT_TRUE(zmtest::WaitUntil([&] { return zmtest::FileSize(path) == 1; }));
            archiver->StopThread();
        };
        // A probe one too far would rename a missing file and say so.
        EXPECT_EQ(zmtest::CaptureFd(2, fillThenRoll), "");
        EXPECT_EQ(zmtest::ReadFile(path), "\xC1");
        EXPECT_EQ(zmtest::FileSize(path + "_1"), 20971519);
        EXPECT_EQ(zmtest::ReadFile(path + "_2"), two);
        EXPECT_EQ(ContentOr(path + "_3", "-"), three);
    }
}

TEST_F(ArchiverTest, UnopenableFileIsReportedAndTextModeWritesPlain) {
    const std::string notADir = install.Root() + "/plain";
    zmtest::WriteFile(notADir, "x");
    // The thread opens its file first thing: once joined, it has spoken.
    EXPECT_EQ(zmtest::CaptureFd(2,
                                [&] {
                                    Start(notADir);
                                    archiver->StopThread();
                                }),
              "file open fail\n");

    ConfManager::outputMode = true;  // as in a process without an installation
    Start(install.LogDir());
    ASSERT_EQ(Put("a text line\n"), 12U);
    const std::string path = install.LogDir() + "/LogAutoTest.log";
    EXPECT_TRUE(zmtest::WaitUntil([&] { return zmtest::ReadFile(path) == "a text line\n"; }));
}

static bool ArchiverRunning() {
    return !zmtest::Tasks("ShmReadToBinary").empty();
}

class LogStateTest : public zmtest::SharedRingTest {
  protected:
    void SetUp() override {
        SharedRingTest::SetUp();
        install.ExportEnv();
        LogStateManager::sInstance.reset();  // built afresh from the header
    }
    void TearDown() override {
        ShmArchiver::GetInstancePtr()->StopThread();
        LogStateManager::sInstance.reset();
        SharedRingTest::TearDown();
    }
};

// Walks the state table: no restart for an unchanged value, stop and start
// on a change, and unplugging the medium stops logging for good.
TEST_F(LogStateTest, TransitionsOfTheStateTable) {
    auto& state = LogStateManager::GetInstance();
    EXPECT_EQ(state->active, 1U);  // copied from the header
    SetLogActive(1);
    SetUSBDeviceState(false);
    EXPECT_FALSE(ArchiverRunning());

    SetLogActive(0);
    EXPECT_EQ(ring->LoadActive(), 0U);
    SetLogActive(1);
    EXPECT_EQ(ring->LoadActive(), 1U);
    EXPECT_TRUE(ArchiverRunning());
    EXPECT_EQ(ShmArchiver::GetInstancePtr()->GetBaseLogDir(), install.LogDir());

    SetUSBDeviceState(true);
    EXPECT_TRUE(ArchiverRunning());
    EXPECT_EQ(state->active, 1U);
    SetUSBDeviceState(false);
    EXPECT_FALSE(ArchiverRunning());
    EXPECT_EQ(ring->LoadActive(), 0U);
    EXPECT_EQ(state->active, 0U);
}
