// Cost of one WriteLog on the binary path: a process with the shared ring
// mapped, the lock free, and the ring drained between batches so it never
// fills (a full ring would add the cost of emptying it).
#include <benchmark/benchmark.h>
#include <semaphore.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "BenchRole.h"
#include "log/ZMRuntimeLog.h"

using namespace PF::Utils::LOG;

namespace {

using zmbench::OwnRing;

constexpr int kBatch = 20000;  // ~1.6 MB of records: far from full

void BM_WriteLogText(benchmark::State& state) {
    OwnRing ring;
    while (state.KeepRunningBatch(kBatch)) {
        for (int i = 0; i < kBatch; ++i) {
            WriteLog<char[18]>("net", "link 3 up on eth0", kInfo, "Poll", 0, 0, 0, std::string());
        }
        state.PauseTiming();
        ring.Drain();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriteLogText);

void BM_WriteLogInt(benchmark::State& state) {
    OwnRing ring;
    int value = 3;
    while (state.KeepRunningBatch(kBatch)) {
        for (int i = 0; i < kBatch; ++i) {
            WriteLog<int>("net", value, kInfo, "Poll", 0, 0, 0, std::string());
        }
        state.PauseTiming();
        ring.Drain();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriteLogInt);

// A call below the level threshold: the macro's filter alone.
void BM_FilteredOut(benchmark::State& state) {
    OwnRing ring;
    RingHead::instance->SetLevel(kInfo);
    int evaluated = 0;
    for (auto _ : state) {
        ZMLOG_DEBUG("net", (++evaluated, "never written"));
        benchmark::ClobberMemory();
    }
    if (evaluated != 0) state.SkipWithError("a filtered-out call evaluated its argument");
}
BENCHMARK(BM_FilteredOut);

// The same event as the latency table: printf-style into the stack buffer.
void BM_PrintfStyle(benchmark::State& state) {
    OwnRing ring;
    int link = 3;
    while (state.KeepRunningBatch(kBatch)) {
        for (int i = 0; i < kBatch; ++i) ZMLOG_INFO_F("net", "link %d up on %s", link, "eth0");
        state.PauseTiming();
        ring.Drain();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_PrintfStyle);

}  // namespace

ZMBENCH_MAIN()
