// A line of the text path, as a process without an installation writes it:
// echoed on the console when it asks for that, and never beyond a mebibyte.
#include <sys/syscall.h>

#include "log/ZMRuntimeLog.h"
#include "support/Fixtures.h"
#include "transport/MEMManager.h"

using namespace PF::Utils::LOG;

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
