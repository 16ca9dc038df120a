#include <sys/syscall.h>

#include <regex>

#include "log/ZMRuntimeLog.h"
#include "support/Fixtures.h"
#include "transport/MEMManager.h"

using namespace PF::Utils::LOG;

TEST(ConsolePath, ConfiguredProcessEchoesItsLinesAndWritesItsOwnLog) {
    zmtest::Installation install("");  // the UP environment
    const std::string conf = install.Root() + "/demo.cfg";
    const std::string logDir = install.Root() + "/demo-log";
    zmtest::WriteFile(conf, "[log]\nconsole=true\n");
    auto child = install.Start("ConsoleDemo", {"private=" + conf + "," + logDir, "typed", "wait"});
    // Five line ends: the hex dump adds two. Then the process exits.
    const std::string file = logDir + "/ConsoleDemo.log";
    EXPECT_TRUE(zmtest::WaitUntil([&] {
        const std::string text = zmtest::ReadFile(file);
        return std::count(text.begin(), text.end(), '\n') >= 5;
    }));
    child->Send("");
    const zmtest::ProcessResult r = child->Wait();
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");

    // Date, time and thread id of each line replaced by "@".
    const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\|)" +
                           std::to_string(child->Pid()) + R"(\|)");
    const std::string records =
        "@|INFO|main|netlink up\n@|WARN|Poll|count42\n"
        "@|ERROR|Dump|raw\n0000  01-ab-41" +
        std::string(39, ' ') + "  ..A\n\n";
    EXPECT_EQ(std::regex_replace(r.out, stamp, "@|"),
              "configured\n" + records + "typed\nwaiting\n" +
                  "@|INFO|CloseReadThreadAndResource|"
                  "RingHead Deconstruction RingHead Set Nullptr\n");
    // The archiver wrote the same lines (the final notice may come too late
    // for its last drain).
    EXPECT_EQ(std::regex_replace(zmtest::ReadFile(file), stamp, "@|").substr(0, records.size()),
              records);
}

// A private ring in this process, as a process without an installation has.
TEST(ConsolePathInProcess, LinesOverOneMebibyteAreNeitherQueuedNorShown) {
    const bool savedMode = ConfManager::outputMode, savedConsole = ConfManager::sConsole;
    ConfManager::outputMode = ConfManager::sConsole = true;
    ASSERT_TRUE(MEMManager::CreateMEM(kSegmentSize));
    ASSERT_TRUE(RingHead::Init(MEMManager::memInfo.address, static_cast<int>(kSegmentSize),
                               RingHead::instance));
    // date and time 23, four "|", "INFO", the newline; function "f", tag "t".
    const std::size_t fixed = 23 + 4 + 4 + 1 + std::to_string(syscall(SYS_gettid)).size() + 2;
    std::vector<char> queued(kSegmentSize);
    for (std::size_t lineSize : {std::size_t{1048576}, std::size_t{1048577}}) {
        const std::string content(lineSize - fixed, 'x');
        const std::string shown = zmtest::CaptureFd(
            1, [&] { WriteLog<std::string>("t", content, kInfo, "f", 0, 0, 0, ""); });
        const std::size_t expected = lineSize <= 1048576 ? lineSize : 0;
        EXPECT_EQ(RingHead::instance->Dequeue(queued.data(), kSegmentSize), expected)
            << "line of " << lineSize;
        EXPECT_EQ(shown.size(), expected) << "line of " << lineSize;
    }
    RingHead::instance = nullptr;
    MEMManager::DeleteSHM();
    ConfManager::outputMode = savedMode;
    ConfManager::sConsole = savedConsole;
}
