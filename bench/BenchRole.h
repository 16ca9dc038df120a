// Benchmarks own the ring themselves, as the runtime does. Under any other
// name the library's load-time set-up would already have given the process a
// private ring and an archiver thread (and a "<program>.log" in the working
// directory), so a benchmark re-executes itself as "ZMRuntime" first.
#pragma once

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "log/ZMRuntimeLog.h"
#include "transport/SHMManager.h"
#include "transport/SemManager.h"

namespace zmbench {

inline void RunAsRuntime(char** argv) {
    if (std::strcmp(program_invocation_short_name, "ZMRuntime") == 0) return;
    static char name[] = "ZMRuntime";
    argv[0] = name;
    execv("/proc/self/exe", argv);
}

// The shared ring created by this process, logging on at TRACE.
struct OwnRing {
    OwnRing() {
        using namespace PF::Utils::LOG;
        ConfManager::outputMode = false;
        SemManager::Create();
        SHMManager::CreateSHM(kSegmentSize);
        RingHead::Init(SHMManager::shmInfo.address, static_cast<int>(kSegmentSize),
                       RingHead::instance);
        RingHead::instance->SetActive(1);
        RingHead::instance->SetLevel(0);
        drain.resize(RingHead::instance->capacity);
    }
    ~OwnRing() {
        using namespace PF::Utils::LOG;
        RingHead::instance = nullptr;
        SemManager::Destory();
        SHMManager::DestroySHM();
        SHMManager::DeleteSHM();
    }
    unsigned Drain() {
        return PF::Utils::LOG::RingHead::instance->Dequeue(drain.data(),
                                                           static_cast<unsigned>(drain.size()));
    }
    std::vector<char> drain;
};

}  // namespace zmbench

// main() for Google Benchmark files that use the ring.
#define ZMBENCH_MAIN()                         \
    int main(int argc, char** argv) {          \
        zmbench::RunAsRuntime(argv);           \
        ::benchmark::Initialize(&argc, argv);  \
        ::benchmark::RunSpecifiedBenchmarks(); \
        ::benchmark::Shutdown();               \
        return 0;                              \
    }
