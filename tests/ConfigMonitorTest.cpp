// The configuration monitor of a process without a ring: edits reload the
// statics, a file replaced by rename stays watched, stopping is a request.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "log/ZMRuntimeLog.h"
#include "support/TestSupport.h"

using namespace PF::Utils::LOG;
using namespace std::chrono_literals;

namespace {

int MonitorThreads() {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        count += zmtest::ReadFile(task.path().string() + "/comm") == "MonitorConfi\n" ? 1 : 0;
    }
    return count;
}

class ConfigMonitorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(RingHead::instance, nullptr);
        ConfManager::logLevel = 2;
        install.WriteConfig("[log]\nlogLevel=info\n");
        ASSERT_TRUE(ConfManager::ReadConfigFile(install.ConfPath()));
        before = MonitorThreads();
        ConfManager::StartThread();
    }
    void TearDown() override {
        // Wake the thread so it sees the stop request before the file goes.
        ConfManager::StopThread();
        EXPECT_TRUE(zmtest::WaitUntil([&] {
            Append("\n");
            return MonitorThreads() == before;
        }));
    }
    void Append(const std::string& line) {
        std::ofstream(install.ConfPath(), std::ios::app) << line;
    }
    // The watch is set up by the thread itself: edit until the change shows.
    bool EditUntilLevel(const std::string& line, unsigned level) {
        return zmtest::WaitUntil(
            [&] {
                Append(line);
                return zmtest::WaitUntil([&] { return ConfManager::logLevel == level; }, 50ms);
            },
            1s);
    }
    zmtest::TempInstall install;
    int before = 0;
};

TEST_F(ConfigMonitorTest, EditsReloadAlsoAfterTheFileIsReplacedByRename) {
    EXPECT_EQ(MonitorThreads(), before + 1);
    ASSERT_TRUE(EditUntilLevel("PFMask=0x0f\nlogLevel=error\n", 4));
    EXPECT_EQ(ConfManager::sALLMask, 0xFFFFFFFFFFFF000FUL);

    const std::string fresh = install.ConfPath() + ".new";
    zmtest::WriteFile(fresh, "[log]\nlogLevel=warn\n");
    ASSERT_EQ(std::rename(fresh.c_str(), install.ConfPath().c_str()), 0);
    EXPECT_TRUE(zmtest::WaitUntil([] { return ConfManager::logLevel == 3; }, 1s));
    Append("logLevel=fatal\n");
    EXPECT_TRUE(zmtest::WaitUntil([] { return ConfManager::logLevel == 5; }, 1s));
}

TEST_F(ConfigMonitorTest, StopIsARequestHonouredAtTheNextEvent) {
    ASSERT_TRUE(EditUntilLevel("logLevel=debug\n", 1));
    ConfManager::StopThread();  // returns at once although the thread sleeps in read()
    EXPECT_TRUE(ConfManager::sStopflag.load());
    EXPECT_EQ(MonitorThreads(), before + 1);
    ConfManager::StopThread();  // twice is harmless
    Append("logLevel=trace\n");
    EXPECT_TRUE(zmtest::WaitUntil([&] { return MonitorThreads() == before; }, 1s));
    EXPECT_EQ(ConfManager::logLevel, 0U);  // that last event was still loaded
}

}  // namespace
