// Per-call latency of the writer: 1,000,000 calls after a warm-up, each timed
// with rdtsc (calibrated against steady_clock), printed as percentiles.
//   LatencyDriver [text|int|printf|float|hex|filtered|snprintf|snprintf-float|
//                  snprintf-hex] [--processes 2] [--calls N]
// printf: "link %d up on %s", float: "temp %.2f C", hex: "reg 0x%08x", each
// through ZMLOG_INFO_F; the snprintf modes format the same text alone.
// With --processes 2 a second process writes the same load at the same time
// into the same ring (one thread each); calls of 1 ms or more are counted as
// lock time-outs. Writers drain the ring themselves, outside the timed call,
// whenever it is half full, so it never fills; records that never reached
// the ring (lock time-outs) are counted from what the writers drained.
#include <sys/wait.h>
#include <unistd.h>
#include <x86intrin.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BenchRole.h"

using namespace PF::Utils::LOG;

namespace {

double NsPerTick() {
    const auto t0 = std::chrono::steady_clock::now();
    const std::uint64_t c0 = __rdtsc();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::uint64_t c1 = __rdtsc();
    const auto t1 = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(t1 - t0).count() / double(c1 - c0);
}

using Call = void (*)();

void TextCall() {
    WriteLog<char[18]>("net", "link 3 up on eth0", kInfo, __func__, 0, 0, 0, std::string());
}
void IntCall() {
    static int value = 3;
    ZMLOG_VALUE(kInfo, "net", value);
}
void PrintfCall() {
    static int link = 3;
    ZMLOG_INFO_F("net", "link %d up on %s", link, "eth0");
}
void FilteredCall() {
    ZMLOG_DEBUG("net", "never written");
}
// The same texts formatted by the C library alone, into a stack buffer: what
// the printf-style calls above are measured against.
char gSink[64];
void SnprintfCall() {
    static int link = 3;
    std::snprintf(gSink, sizeof gSink, "link %d up on %s", link, "eth0");
}
void FloatCall() {
    static double temp = 21.456;
    ZMLOG_INFO_F("net", "temp %.2f C", temp);
}
void SnprintfFloatCall() {
    static double temp = 21.456;
    std::snprintf(gSink, sizeof gSink, "temp %.2f C", temp);
}
void HexCall() {
    static unsigned reg = 0xbeef;
    ZMLOG_INFO_F("net", "reg 0x%08x", reg);
}
void SnprintfHexCall() {
    static unsigned reg = 0xbeef;
    std::snprintf(gSink, sizeof gSink, "reg 0x%08x", reg);
}

struct Result {
    std::vector<std::uint32_t> ticks;
    long long slow = 0;     // calls of 1 ms or more
    long long drained = 0;  // records this process took out of the ring
};

long long CountRecords(const std::vector<char>& bytes, unsigned n) {
    long long records = 0;
    for (size_t pos = 0; pos + sizeof(LogHead) <= n; ++records) {
        LogHead h;
        std::memcpy(&h, bytes.data() + pos, sizeof h);
        pos += sizeof h + h.functionLen + h.programLen + h.tagLen + h.contentLen;
    }
    return records;
}

Result Run(Call call, long calls, zmbench::OwnRing& ring, double nsPerTick) {
    Result r;
    r.ticks.resize(static_cast<size_t>(calls));
    const std::uint64_t slowTicks = static_cast<std::uint64_t>(1e6 / nsPerTick);
    RingHead* head = RingHead::instance;
    auto drain = [&] { r.drained += CountRecords(ring.drain, ring.Drain()); };
    for (long i = 0; i < calls; ++i) {
        if ((i & 1023) == 0 && head->Count() > head->capacity / 2) drain();
        const std::uint64_t t0 = __rdtsc();
        call();
        const std::uint64_t t1 = __rdtsc();
        const std::uint64_t d = t1 - t0;
        r.ticks[static_cast<size_t>(i)] =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(d, ~0U));
        if (d >= slowTicks) ++r.slow;
    }
    drain();
    return r;
}

void Print(const char* label, Result& r, double nsPerTick) {
    std::sort(r.ticks.begin(), r.ticks.end());
    auto at = [&](double q) {
        const size_t i = std::min(r.ticks.size() - 1, static_cast<size_t>(q * r.ticks.size()));
        return r.ticks[i] * nsPerTick;
    };
    std::printf(
        "%-18s p50 %6.0f  p90 %6.0f  p99 %6.0f  p99.9 %7.0f  max %9.0f ns  calls>=1ms %lld\n",
        label, at(0.50), at(0.90), at(0.99), at(0.999), r.ticks.back() * nsPerTick, r.slow);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    zmbench::RunAsRuntime(argv);
    std::string mode = "text";
    int processes = 1;
    long calls = 1000000;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--processes" && i + 1 < argc) {
            processes = std::atoi(argv[++i]);
        } else if (a == "--calls" && i + 1 < argc) {
            calls = std::atol(argv[++i]);
        } else {
            mode = a;
        }
    }
    Call call = mode == "int"              ? IntCall
                : mode == "printf"         ? PrintfCall
                : mode == "filtered"       ? FilteredCall
                : mode == "snprintf"       ? SnprintfCall
                : mode == "float"          ? FloatCall
                : mode == "snprintf-float" ? SnprintfFloatCall
                : mode == "hex"            ? HexCall
                : mode == "snprintf-hex"   ? SnprintfHexCall
                                           : TextCall;
    const double nsPerTick = NsPerTick();
    zmbench::OwnRing ring;
    RingHead::instance->SetLevel(kInfo);

    for (long i = 0; i < 100000; ++i) call();  // warm-up, before the writers split
    ring.Drain();
    // Each child reports the records it drained through a pipe.
    int counts[2];
    if (pipe(counts) != 0) return 1;
    std::vector<pid_t> children;
    for (int p = 1; p < processes; ++p) {
        const pid_t pid = fork();
        if (pid == 0) {
            Result r = Run(call, calls, ring, nsPerTick);
            Print((mode + " (process " + std::to_string(p + 1) + ")").c_str(), r, nsPerTick);
            if (write(counts[1], &r.drained, sizeof r.drained) != sizeof r.drained) std::_Exit(1);
            std::_Exit(0);
        }
        children.push_back(pid);
    }
    Result r = Run(call, calls, ring, nsPerTick);
    for (pid_t pid : children) waitpid(pid, nullptr, 0);
    long long drained = r.drained;
    for (size_t i = 0; i < children.size(); ++i) {
        long long n = 0;
        if (read(counts[0], &n, sizeof n) == sizeof n) drained += n;
    }
    Print((mode + (processes > 1 ? " (process 1)" : "")).c_str(), r, nsPerTick);
    if (mode != "filtered" && mode.rfind("snprintf", 0) != 0) {
        std::printf("records written %ld, reached the ring %lld, lock time-outs %lld\n",
                    calls * processes, drained, calls * processes - drained);
    }
    return 0;
}
