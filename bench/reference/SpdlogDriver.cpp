// Reference row for the latency table: the same event through spdlog's async
// logger (file sink), timed the same way as LatencyDriver. Built by
// scripts/bench.sh only; the library does not use spdlog.
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <x86intrin.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

int main() {
    const auto t0 = std::chrono::steady_clock::now();
    const std::uint64_t c0 = __rdtsc();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double nsPerTick =
        std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count() /
        double(__rdtsc() - c0);

    spdlog::init_thread_pool(8192, 1);
    auto logger = spdlog::create_async<spdlog::sinks::basic_file_sink_mt>(
        "ref", "/tmp/zmlog-spdlog-reference.log", true);
    const int link = 3;
    for (int i = 0; i < 100000; ++i) logger->info("link {} up on {}", link, "eth0");

    const long calls = 1000000;
    std::vector<std::uint32_t> ticks(calls);
    for (long i = 0; i < calls; ++i) {
        const std::uint64_t a = __rdtsc();
        logger->info("link {} up on {}", link, "eth0");
        ticks[i] = static_cast<std::uint32_t>(std::min<std::uint64_t>(__rdtsc() - a, ~0U));
    }
    spdlog::shutdown();
    std::remove("/tmp/zmlog-spdlog-reference.log");
    std::sort(ticks.begin(), ticks.end());
    auto at = [&](double q) { return ticks[static_cast<size_t>(q * (calls - 1))] * nsPerTick; };
    std::printf("%-18s p50 %6.0f  p90 %6.0f  p99 %6.0f  p99.9 %7.0f  max %9.0f ns\n",
                "spdlog async", at(0.5), at(0.9), at(0.99), at(0.999), ticks.back() * nsPerTick);
    return 0;
}
