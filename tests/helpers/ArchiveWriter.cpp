// Writer process for the archive tests: attaches to the runtime's ring (again,
// if the load-time attach found none) and writes one INFO record per command
// line argument, in order. Exit code 2: no ring to write into.
#include <string>

#include "log/ZMRuntimeLog.h"

int main(int argc, char** argv) {
    using namespace PF::Utils::LOG;
    if (RingHead::GetInstance() == nullptr) InitWriteLogEnv();
    if (RingHead::GetInstance() == nullptr) return 2;
    for (int i = 1; i < argc; ++i) {
        WriteLog<std::string>("archive", std::string(argv[i]), kInfo, "main", 0, 0, 0,
                              std::string());
    }
    return 0;
}
