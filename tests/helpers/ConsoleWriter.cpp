// A stand-alone program without an installation that configures its own
// private log: argv[1] configuration file, argv[2] log directory. Logs a text,
// a typed and a 3-byte binary record, waits until the archiver has written
// them, then exits normally.
#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "log/ZMRuntimeLog.h"

using namespace PF::Utils::LOG;

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    LogDoConfigure(argv[1], argv[2]);
    // The program name argument is ignored on this path.
    WriteLog<char[8]>("net", "link up", kInfo, "main", 0, 0, 0, "Ignored");
    WriteLog<int>("count", 42, kWarn, "Poll", 0, 0, 0, "");
    const unsigned char raw[3] = {0x01, 0xab, 0x41};
    WriteLog<unsigned char[3]>("raw", raw, kError, "Dump", 3, 1, 0, "");

    // Five line ends in all: the dump adds two. On a busy machine the exit's
    // 100 ms grace alone may not see a drain.
    const std::string path = std::string(argv[2]) + "/ConsoleDemo.log";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream in(path, std::ios::binary);
        const auto ends =
            std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n');
        if (ends >= 5) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}
