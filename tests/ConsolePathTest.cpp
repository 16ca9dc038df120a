#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "log/ZMRuntimeLog.h"
#include "support/TestSupport.h"
#include "transport/MEMManager.h"

using namespace PF::Utils::LOG;

namespace {

// Replaces every "date time.mmm|thread id|" with "@|"; the thread ids found
// are returned.
std::string Unstamp(const std::string& text, std::vector<std::string>* threadIds = nullptr) {
    static const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\|(\d+)\|)");
    if (threadIds != nullptr) {
        for (std::sregex_iterator it(text.begin(), text.end(), stamp), end; it != end; ++it) {
            threadIds->push_back((*it)[1]);
        }
    }
    return std::regex_replace(text, stamp, "@|");
}

// The child leaves a log of its load-time set-up in its working directory.
class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::string& dir) : saved_(getcwd(nullptr, 0)) {
        EXPECT_EQ(chdir(dir.c_str()), 0);
    }
    ~WorkingDirectory() {
        EXPECT_EQ(chdir(saved_), 0);
        free(saved_);
    }

  private:
    char* saved_;
};

// A private ring in this process, as a process without an installation has.
class ConsolePathInProcess : public ::testing::Test {
  protected:
    void SetUp() override {
        savedMode_ = ConfManager::outputMode;
        savedConsole_ = ConfManager::sConsole;
        ConfManager::outputMode = true;
        ASSERT_TRUE(MEMManager::CreateMEM(kSegmentSize));
        ASSERT_TRUE(RingHead::Init(MEMManager::memInfo.address, static_cast<int>(kSegmentSize),
                                   RingHead::instance));
    }
    void TearDown() override {
        RingHead::instance = nullptr;
        MEMManager::DeleteSHM();
        ConfManager::outputMode = savedMode_;
        ConfManager::sConsole = savedConsole_;
    }
    std::string Drain() {
        std::vector<char> buf(kSegmentSize);
        const unsigned n =
            RingHead::instance->Dequeue(buf.data(), static_cast<unsigned>(buf.size()));
        return std::string(buf.data(), n);
    }

  private:
    bool savedMode_ = true;
    bool savedConsole_ = false;
};

}  // namespace

TEST_F(ConsolePathInProcess, LineGoesToTheRingAndToStdoutOnlyWhenConsoleIsOn) {
    ConfManager::sConsole = false;
    std::string shown = zmtest::CaptureFd(
        1, [] { WriteLog<char[8]>("net", "link up", kInfo, "main", 0, 0, 0, "Ignored"); });
    EXPECT_EQ(shown, "");
    std::vector<std::string> threadIds;
    const std::string queued = Drain();
    EXPECT_EQ(Unstamp(queued, &threadIds), "@|INFO|main|netlink up\n");
    EXPECT_EQ(threadIds, std::vector<std::string>{std::to_string(syscall(SYS_gettid))});

    ConfManager::sConsole = true;
    shown = zmtest::CaptureFd(1, [] {
        const char raw[3] = {'\x01', '\xab', 'A'};
        WriteLog<char[3]>("raw", raw, kError, "Dump", 3, 1, 0, "");
    });
    EXPECT_EQ(shown, Drain());
    EXPECT_EQ(Unstamp(shown),
              "@|ERROR|Dump|raw\n0000  01-ab-41" + std::string(39, ' ') + "  ..A\n\n");
}

TEST_F(ConsolePathInProcess, LinesOverOneMebibyteAreNeitherQueuedNorShown) {
    ConfManager::sConsole = true;
    // date and time 23, four "|", "INFO", the newline; function "f", tag "t".
    const std::size_t fixed = 23 + 4 + 4 + 1 + std::to_string(syscall(SYS_gettid)).size() + 2;
    for (std::size_t lineSize : {std::size_t{1048576}, std::size_t{1048577}}) {
        const std::string content(lineSize - fixed, 'x');
        const std::string shown = zmtest::CaptureFd(
            1, [&] { WriteLog<std::string>("t", content, kInfo, "f", 0, 0, 0, ""); });
        const std::string queued = Drain();
        const std::size_t expected = lineSize <= 1048576 ? lineSize : 0;
        EXPECT_EQ(queued.size(), expected) << "line of " << lineSize;
        EXPECT_EQ(shown.size(), expected) << "line of " << lineSize;
    }
}

TEST(ConsolePath, ConfiguredProcessEchoesItsLinesAndWritesItsOwnLog) {
    zmtest::GlobalNamesLock lock;
    zmtest::TempInstall install;  // no configuration file: the UP environment
    const std::string conf = install.Root() + "/demo.cfg";
    const std::string logDir = install.Root() + "/demo-log";
    zmtest::WriteFile(conf, "[log]\nconsole=true\n");
    WorkingDirectory cwd(install.Root());

    zmtest::Child child("ConsoleWriter", "ConsoleDemo", {conf, logDir}, install.Env());
    const zmtest::ProcessResult r = child.Wait();
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");

    const std::string records =
        "@|INFO|main|netlink up\n"
        "@|WARN|Poll|count42\n"
        "@|ERROR|Dump|raw\n0000  01-ab-41" +
        std::string(39, ' ') + "  ..A\n\n";
    std::vector<std::string> threadIds;
    EXPECT_EQ(
        Unstamp(r.out, &threadIds),
        records +
            "@|INFO|CloseReadThreadAndResource|RingHead Deconstruction RingHead Set Nullptr\n");
    EXPECT_EQ(threadIds, std::vector<std::string>(4, std::to_string(child.Pid())));

    // The archiver wrote the same bytes, unscrambled (the final notice may
    // come too late for its last drain).
    const std::string file = zmtest::ReadFile(logDir + "/ConsoleDemo.log");
    EXPECT_EQ(r.out.compare(0, file.size(), file), 0);
    EXPECT_EQ(Unstamp(file).substr(0, records.size()), records);
}
