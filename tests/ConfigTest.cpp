// The configuration file syntax, the statics derived from it, and the paths
// taken from the environment.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <vector>

#include "log/ZMRuntimeLog.h"
#include "support/TestSupport.h"

using namespace PF::Utils::LOG;

namespace {

class ConfigFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The statics live for the whole test process.
        ConfManager::mp.clear();
        ConfManager::logActive = 1;
        ConfManager::logLevel = 2;
        ConfManager::sConsole = false;
        ConfManager::sALLMask = ~0UL;
    }
    bool Load(const std::string& text) {
        install.WriteConfig(text);
        return ConfManager::ReadConfigFile(install.ConfPath());
    }
    std::optional<std::string> Value(const std::string& key) {
        auto it = ConfManager::mp.find(key);
        return it == ConfManager::mp.end() ? std::nullopt : std::optional(it->second);
    }
    zmtest::TempInstall install;
};

TEST_F(ConfigFileTest, LineSyntaxAndDerivedStatics) {
    struct Case {
        const char* text;
        unsigned level, active;
        unsigned long mask;
    };
    const unsigned long all = ~0UL;
    const std::vector<Case> cases = {
        {"logLevel=debug\n", 2, 1, all},              // no section yet
        {"[log]\nlogLevel = WARN \n", 3, 1, all},     // blanks, case of the value
        {"[log]\nlogLevel=warn ;note\n", 2, 1, all},  // a comment drops the line
        {"[log]\nloglevel=warn\n", 2, 1, all},        // key case matters
        {"[log]\nlogLevel=2\n", 2, 1, all},           // level names only
        {"[log]\n\tlogLevel=error\n", 2, 1, all},     // a tab is not a blank
        {"[log]\n  # x\nlogLevel=Fatal\nlogActive=yes\n", 5, 0, all},
        {"[log]\n[]\nlogLevel=error\n", 2, 1, all},                  // "[]" closes the gate
        {"[log\nlogLevel=error\nlogActive=TRUE", 4, 1, all},         // no "]", no last newline
        {"[a]\nlogLevel=debug\n[b]\nlogLevel=record\n", 6, 1, all},  // flat keys, last wins
        {"[log]\nPFMask=0x00ff\n", 2, 1, 0xFFFFFFFFFFFF00FFUL},
        {"[log]\nHWMask=1\nHCMask=2\nRTMask=3\nPFMask=4\n", 2, 1, 0x0001000200030004UL},
        {"[log]\nRTMask=zz\n", 2, 1, 0xFFFFFFFF0000FFFFUL},
        {"[log]\nHCMask=12345\n", 2, 1, 0xFFFF2345FFFFFFFFUL},  // 16 bits survive
        {"[log]\nPFMask=123456789abcdef0123\n", 2, 1, all},     // saturates, not 0
    };
    for (const auto& c : cases) {
        SetUp();
        ASSERT_TRUE(Load(c.text));
        EXPECT_EQ(ConfManager::logLevel, c.level) << c.text;
        EXPECT_EQ(ConfManager::logActive, c.active) << c.text;
        EXPECT_EQ(ConfManager::sALLMask, c.mask) << c.text;
    }
    EXPECT_EQ(Value("RTMask"), "-1");  // absent groups are written back as "-1"
}

TEST_F(ConfigFileTest, ReloadsKeepWhatTheFileNoLongerSays) {
    ASSERT_TRUE(Load("[log]\nlogLevel=error\nmaxFileRollNumber=5\nconsole=true\nprogram= A=B\n"));
    ASSERT_TRUE(Load("[log]\nconsole=false\n"));
    EXPECT_EQ(ConfManager::logLevel, 4U);
    EXPECT_EQ(Value("maxFileRollNumber"), "5");
    EXPECT_EQ(Value("program"), "a=b");
    EXPECT_TRUE(ConfManager::sConsole);  // never switched back off

    const std::string missing = install.Root() + "/nothing.cfg";
    EXPECT_EQ(zmtest::CaptureFd(2, [&] { EXPECT_FALSE(ConfManager::ReadConfigFile(missing)); }),
              missing + " not to open\n");
    EXPECT_EQ(ConfManager::sFilePath, missing);
    EXPECT_EQ(ConfManager::logLevel, 4U);
    EXPECT_EQ(zmtest::CaptureFd(2, [&] { EXPECT_FALSE(ReadCFGFile("")); }), "");
}

TEST_F(ConfigFileTest, OddInputIsReadWithoutHarm) {
    std::string junk = "[log]\n";
    for (int i = 0; i < 4096; ++i) junk.push_back(static_cast<char>((i * 7919) & 0xFF));
    EXPECT_TRUE(Load(junk));

    const std::string longValue(1 << 20, 'v');
    ASSERT_TRUE(Load("[log]\nprogram=" + longValue + "\nlogLevel=debug\n"));
    EXPECT_EQ(Value("program"), longValue);
    EXPECT_EQ(ConfManager::logLevel, 1U);

    // Carriage returns are kept: the level text no longer matches.
    ASSERT_TRUE(Load("[log]\r\nlogLevel=warn\r\nmaxFileRollNumber=5\r\n"));
    EXPECT_EQ(ConfManager::logLevel, 1U);
    EXPECT_EQ(Value("maxFileRollNumber"), "5\r");
}

TEST(PathsTest, EnvironmentAndDefaults) {
    std::vector<std::pair<const char*, std::optional<std::string>>> saved;
    for (const char* name : {"ZM_VELDOR_HOME", "ZM_VELDOR_DATA"}) {
        const char* v = std::getenv(name);
        saved.emplace_back(name, v ? std::optional<std::string>(v) : std::nullopt);
        unsetenv(name);
    }
    std::pair<std::string, std::string> paths;
    auto run = [&] { return zmtest::CaptureFd(2, [&] { paths = InitConfAndLogPath(); }); };
    ConfManager::sFilePath = "untouched";

    EXPECT_EQ(run(),
              "ZM_VELDOR_HOME ENVIRONMENT IS NOT SETTING\n"
              "ZM_VELDOR_DATA ENVIRONMENT IS NOT SETTING\n");
    EXPECT_EQ(paths.first + " " + paths.second, "/usr/VeldorRuntime /data/VeldorRuntime/log");
    setenv("ZM_VELDOR_HOME", "", 1);  // empty still counts as set
    setenv("ZM_VELDOR_DATA", "/d/", 1);
    EXPECT_EQ(run(), "");
    EXPECT_EQ(paths.first + " " + paths.second, "/conf/RUNTIMELOG.cfg /d//log");
    setenv("ZM_VELDOR_HOME", "/opt/r", 1);
    unsetenv("ZM_VELDOR_DATA");
    EXPECT_EQ(run(), "ZM_VELDOR_DATA ENVIRONMENT IS NOT SETTING\n");
    EXPECT_EQ(paths.first, "/opt/r/conf/RUNTIMELOG.cfg");
    EXPECT_EQ(ConfManager::sFilePath, "untouched");

    for (auto& [name, v] : saved) v ? (void)setenv(name, v->c_str(), 1) : (void)unsetenv(name);
}

}  // namespace
