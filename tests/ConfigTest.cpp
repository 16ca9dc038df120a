// The configuration file syntax, the statics derived from it, and the paths
// taken from the environment.

#include "log/ZMRuntimeLog.h"
#include "support/Fixtures.h"

using namespace PF::Utils::LOG;

namespace {

class ConfigFileTest : public ::testing::Test {
  protected:
    void SetUp() override {  // the statics outlive each test
        ConfManager::mp.clear();
        ConfManager::logLevel = 2;
        ConfManager::sConsole = false;
        ConfManager::sALLMask = ~0UL;
    }
    bool Load(const std::string& text) {
        install.WriteConfig(text);
        return ConfManager::ReadConfigFile(install.ConfPath());
    }
    zmtest::Installation install{""};
};

TEST_F(ConfigFileTest, LineSyntaxAndDerivedStatics) {
    const unsigned long all = ~0UL;
    const struct {
        const char* text;
        unsigned level;
        unsigned long mask;
    } cases[] = {
        {"logLevel=debug\n", 2, all},                              // no section yet
        {"[log]\n[]\nlogLevel=debug\n", 2, all},                   // "[]" closes the gate
        {"[a]\nlogLevel=debug\n[b]\nlogLevel = WARN \n", 3, all},  // any section; blanks, case
        {"[log]\nlogLevel=warn ;note\n", 2, all},                  // a comment drops the line
        {"[log]\nloglevel=warn\n", 2, all},                        // key case matters
        {"[log]\nlogLevel=4\n", 2, all},                           // level names only
        {"[log]\nPFMask=0x00ff\n", 2, 0xFFFFFFFFFFFF00FFUL},
        {"[log]\nHWMask=1\nHCMask=2\nRTMask=3\nPFMask=4\n", 2, 0x0001000200030004UL},
        {"[log]\nRTMask=zz\n", 2, 0xFFFFFFFF0000FFFFUL},
    };
    for (const auto& c : cases) {
        SetUp();
        ASSERT_TRUE(Load(c.text));
        EXPECT_EQ(ConfManager::logLevel, c.level) << c.text;
        EXPECT_EQ(ConfManager::sALLMask, c.mask) << c.text;
    }
}

TEST_F(ConfigFileTest, ReloadsKeepWhatTheFileNoLongerSays) {
    ASSERT_TRUE(Load("[log]\nlogLevel=error\nmaxFileRollNumber=5\nconsole=true\n"));
    ASSERT_TRUE(Load("[log]\nconsole=false\nwriteMode=a ;comment\n"));
    EXPECT_EQ(ConfManager::mp.count("writeMode"), 0U);  // the comment drops the line
    EXPECT_EQ(ConfManager::logLevel, 4U);
    EXPECT_EQ(ConfManager::mp["maxFileRollNumber"], "5");
    EXPECT_TRUE(ConfManager::sConsole);  // never switched back off

    const std::string missing = install.Root() + "/nothing.cfg";
    EXPECT_EQ(zmtest::CaptureFd(2, [&] { EXPECT_FALSE(ConfManager::ReadConfigFile(missing)); }),
              missing + " not to open\n");

    std::string junk = "[log]\n";  // read without harm
    for (int i = 0; i < 4096; ++i) junk.push_back(static_cast<char>((i * 7919) & 0xFF));
    EXPECT_TRUE(Load(junk));
}

TEST(PathsTest, EnvironmentAndDefaults) {
    std::pair<std::string, std::string> paths;
    const auto run = [&](const char* home, const char* data) {
        for (const auto& [name, value] :
             {std::pair{"ZM_VELDOR_HOME", home}, {"ZM_VELDOR_DATA", data}})
            value ? setenv(name, value, 1) : unsetenv(name);
        return zmtest::CaptureFd(2, [&] { paths = InitConfAndLogPath(); }) + paths.first + " " +
               paths.second;
    };
    const char* const home = std::getenv("ZM_VELDOR_HOME");
    const char* const data = std::getenv("ZM_VELDOR_DATA");
    const std::string savedHome = home ? home : "", savedData = data ? data : "";
    EXPECT_EQ(run(nullptr, nullptr),
              "ZM_VELDOR_HOME ENVIRONMENT IS NOT SETTING\n"
              "ZM_VELDOR_DATA ENVIRONMENT IS NOT SETTING\n"
              "/usr/VeldorRuntime /data/VeldorRuntime/log");
    EXPECT_EQ(run("", "/d/"), "/conf/RUNTIMELOG.cfg /d//log");  // empty still counts as set
    EXPECT_EQ(run("/opt/r", nullptr),
              "ZM_VELDOR_DATA ENVIRONMENT IS NOT SETTING\n/opt/r/conf/RUNTIMELOG.cfg "
              "/data/VeldorRuntime/log");
    run(home ? savedHome.c_str() : nullptr, data ? savedData.c_str() : nullptr);
}

}  // namespace
