// Helper process for the transport tests. Started with argv[0] set to the
// role name; attaches to the runtime's ring and then:
//   write <count> [size]   writes <count> records "<argv0>-<i>" (padded to size)
//   hold                   takes "/WriteLOG", prints "locked", waits to be killed
//   repair                 watches "/WriteLOG" for 20 ms; prints "free" when it
//                          is ever free, else calls ResetShm and prints
//                          "reset <result> at <CLOCK_REALTIME us>"
#include <semaphore.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "log/ZMRuntimeLog.h"
#include "transport/SemManager.h"

using namespace PF::Utils::LOG;

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    if (RingHead::GetInstance() == nullptr && !InitWriteLogEnv()) {
        std::puts("attach failed");
        return 3;
    }
    const std::string command = argv[1];
    if (command == "write" && argc >= 3) {
        const long count = std::strtol(argv[2], nullptr, 10);
        const size_t size = argc >= 4 ? std::strtoul(argv[3], nullptr, 10) : 0;
        for (long i = 0; i < count; ++i) {
            std::string text = std::string(argv[0]) + "-" + std::to_string(i);
            if (text.size() < size) text.append(size - text.size(), '.');
            WriteLog<const char*>("seq", text.c_str(), kInfo, "main", 0, 0, 0, std::string());
        }
        std::puts("done");
        return 0;
    }
    if (command == "hold") {
        sem_wait(SemManager::sem);
        std::puts("locked");
        std::fflush(stdout);
        for (;;) pause();
    }
    if (command == "repair") {
        // A live holder keeps the lock for microseconds: 20 ms without ever
        // seeing it free means its holder is dead.
        for (int i = 0; i < 40; ++i) {
            if (GetWriteSemStatus() > 0) {
                std::puts("free");
                return 0;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        const bool reset = ResetShm();
        const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        std::printf("reset %d at %lld\n", reset ? 1 : 0, static_cast<long long>(now.count()));
        return 0;
    }
    return 2;
}
