// The configuration monitor of a process without a ring: edits reload the
// statics, and a file replaced by rename stays watched.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "log/ZMRuntimeLog.h"
#include "support/TestSupport.h"

using namespace PF::Utils::LOG;

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
        install.WriteConfig("[log]\nlogLevel=info\n");
        ASSERT_TRUE(ConfManager::ReadConfigFile(install.ConfPath()));
        before = MonitorThreads();
        ConfManager::StartThread();
    }
    void TearDown() override {
        // Wake the thread so it sees the stop request before the file goes.
        ConfManager::StopThread();
        EXPECT_TRUE(AppendUntil("\n", [&] { return MonitorThreads() == before; }));
    }
    // The thread learns of the file only through its events: edit until done holds.
    bool AppendUntil(const std::string& line, const std::function<bool()>& done) {
        return zmtest::WaitUntil([&] {
            std::ofstream(install.ConfPath(), std::ios::app) << line;
            return done();
        });
    }
    zmtest::TempInstall install;
    int before = 0;
};

TEST_F(ConfigMonitorTest, EditsReloadAlsoAfterTheFileIsReplacedByRename) {
    ASSERT_TRUE(AppendUntil("logLevel=error\n", [] { return ConfManager::logLevel == 4; }));
    const std::string fresh = install.ConfPath() + ".new";
    zmtest::WriteFile(fresh, "[log]\nlogLevel=warn\n");
    std::filesystem::rename(fresh, install.ConfPath());
    EXPECT_TRUE(zmtest::WaitUntil([] { return ConfManager::logLevel == 3; }));
    EXPECT_TRUE(AppendUntil("logLevel=fatal\n", [] { return ConfManager::logLevel == 5; }));
}

}  // namespace
