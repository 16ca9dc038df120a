// Archiver throughput: the scrambling of one full 8 MiB block, and one whole
// drain tick of a full ring (dequeue, scramble, write, flush) into a file.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "archive/Encrypt.h"
#include "log/ZMRuntimeLog.h"
#include "transport/MEMManager.h"

using namespace PF::Utils::LOG;

namespace {

constexpr int kBlock = 0x800000;

void BM_EncryptBlock(benchmark::State& state) {
    std::vector<char> block(kBlock, 'x');
    for (auto _ : state) {
        Encrypt::EncryptBlock(block.data(), kBlock);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kBlock));
}
BENCHMARK(BM_EncryptBlock)->Unit(benchmark::kMicrosecond)->UseRealTime();

// A private ring (no machine-global names), filled before every tick.
void BM_DrainTickOfFullRing(benchmark::State& state) {
    MEMManager::CreateMEM(kSegmentSize);
    RingHead* ring = nullptr;
    RingHead::Init(MEMManager::memInfo.address, static_cast<int>(kSegmentSize), ring);
    std::vector<char> record(1048000, 'r');
    std::vector<char> buffer(kBlock);
    char path[] = "/tmp/zmlog-bench-XXXXXX";
    const int fd = mkstemp(path);
    FILE* file = fdopen(fd, "ab");
    unsigned total = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (ftruncate(fd, 0) != 0) state.SkipWithError("ftruncate");
        while (ring->Count() + record.size() < ring->mask)
            ring->Enqueue(record.data(), record.size());
        state.ResumeTiming();
        const unsigned n = ring->Dequeue(buffer.data(), kBlock);
        Encrypt::EncryptBlock(buffer.data(), static_cast<int>(n));
        std::fwrite(buffer.data(), n, 1, file);
        std::fflush(file);
        total += n;
    }
    state.SetBytesProcessed(static_cast<int64_t>(total));
    std::fclose(file);
    unlink(path);
    MEMManager::DeleteSHM();
}
BENCHMARK(BM_DrainTickOfFullRing)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
