// Writer process of the stress tests. Its threads write the stream of
// support/StressStream.h through the public macros and note which of their
// records the ring's lock deadline dropped.
//   StressWriter <p> <threads> <rate> <min> <max> count <n>
//       n records per thread, each thread paced at <rate> records/s
//       (0: as fast as it can)
//   StressWriter <p> <threads> <rate> <min> <max> until <file>
//       records until <file> exists
//   StressWriter <p> <threads> <rate> <min> <max> burst <n> <file>
//       n records per thread, prints "burst done", waits for <file>, then
//       writes one record more per thread
//   StressWriter <p> 1 0 <min> <max> victim <n>
//       prints "go", writes n records at full speed, then waits to be killed
// At the end each thread prints one line:
//   "thread <t> written <n> timeouts <k> max_us <m> over2ms <c> dropped <s>..."
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log/ZMRuntimeLog.h"
#include "support/StressStream.h"
#include "transport/SemManager.h"

using namespace PF::Utils::LOG;
using Clock = std::chrono::steady_clock;

namespace {

struct Plan {
    unsigned process = 0;
    unsigned threads = 1;
    double rate = 0;
    unsigned minSize = 0;
    unsigned maxSize = 0;
    std::string mode;
    unsigned long count = 0;
    std::string file;
};

struct ThreadReport {
    unsigned long written = 0;
    unsigned long timeouts = 0;
    long long maxNs = 0;
    unsigned long over2ms = 0;
    std::vector<unsigned long> dropped;
};

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

void WaitForFile(const std::string& path) {
    while (!Exists(path)) std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

// One record through the public macro, timed; a lock time-out shows in the
// thread's counter.
void WriteStream(const Plan& plan, unsigned t, unsigned long s, ThreadReport& report) {
    const std::string text = zmtest::StressContent(plan.process, t, s, plan.minSize, plan.maxSize);
    const unsigned long before = SemManager::ThreadLockTimeouts();
    const auto start = Clock::now();
    ZMLOG_INFO(zmtest::kStressTag, text);
    const long long ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    ++report.written;
    report.maxNs = std::max(report.maxNs, ns);
    if (ns > 2000000) ++report.over2ms;
    if (SemManager::ThreadLockTimeouts() != before) {
        ++report.timeouts;
        report.dropped.push_back(s);
    }
}

void RunThread(const Plan& plan, unsigned t, ThreadReport& report,
               std::atomic<unsigned>& burstsDone) {
    const auto start = Clock::now();
    const bool endless = plan.mode == "until";
    for (unsigned long s = 0; endless || s < plan.count; ++s) {
        if (plan.rate > 0) {
            std::this_thread::sleep_until(
                start + std::chrono::nanoseconds(static_cast<long long>(s * 1e9 / plan.rate)));
        }
        if (endless && s % 64 == 0 && Exists(plan.file)) break;
        WriteStream(plan, t, s, report);
    }
    if (plan.mode == "burst") {
        ++burstsDone;
        WaitForFile(plan.file);
        WriteStream(plan, t, plan.count, report);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 8) return 2;
    Plan plan;
    plan.process = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
    plan.threads = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    plan.rate = std::strtod(argv[3], nullptr);
    plan.minSize = static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10));
    plan.maxSize = static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10));
    plan.mode = argv[6];
    if (plan.mode == "until") {
        plan.file = argv[7];
    } else {
        plan.count = std::strtoul(argv[7], nullptr, 10);
        if (plan.mode == "burst" && argc > 8) plan.file = argv[8];
    }

    if (RingHead::GetInstance() == nullptr && !InitWriteLogEnv()) {
        std::puts("attach failed");
        return 3;
    }
    if (plan.mode == "victim") {
        ThreadReport report;
        std::puts("go");
        std::fflush(stdout);
        for (unsigned long s = 0; s < plan.count; ++s) WriteStream(plan, 0, s, report);
        for (;;) pause();
    }

    std::vector<ThreadReport> reports(plan.threads);
    std::atomic<unsigned> burstsDone{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < plan.threads; ++t) {
        threads.emplace_back(RunThread, std::cref(plan), t, std::ref(reports[t]),
                             std::ref(burstsDone));
    }
    if (plan.mode == "burst") {
        while (burstsDone.load() < plan.threads) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::puts("burst done");
        std::fflush(stdout);
    }
    for (auto& th : threads) th.join();

    for (unsigned t = 0; t < plan.threads; ++t) {
        const ThreadReport& r = reports[t];
        std::printf("thread %u written %lu timeouts %lu max_us %lld over2ms %lu dropped", t,
                    r.written, r.timeouts, r.maxNs / 1000, r.over2ms);
        for (unsigned long s : r.dropped) std::printf(" %lu", s);
        std::printf("\n");
    }
    return 0;
}
