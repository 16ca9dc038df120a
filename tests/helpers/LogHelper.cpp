// The one helper program of the multi-process tests. Its role comes from
// argv[0], from which the library's load-time set-up decides what the
// process is; its arguments are steps, run in order, each reporting on
// stdout when done:
//   probe                 "up=<0|1> ring=<0|1> threads=<names>"
//   start, release        StartRuntimeLog, ReleaseRuntimeLog: "started",
//                         "released <result>"
//   attach                InitWriteLogEnv: "attached <result>"
//   private=<cfg>,<dir>   LogDoConfigure: "configured"
//   level=<n>             SetLogLevel: "level set"
//   wait-level=<n>        waits (10 s) for the shared header's level n:
//                         "level <n>" or "level not seen"
//   bind=<cpu>            BindCPUCore: "bound"
//   wait                  "waiting", then waits for a line on stdin
//   pause                 "paused", then waits to be killed
//   log=<n>[,<size>[,<us>]]  n records "<role>-<seq>" (padded with '.' to
//                         size), one every us; n 0: until a line on stdin.
//                         "logged <n> dropped <d> max_us <m> slow <k>" and
//                         the dropped seqs (a lock not had within 1 ms)
//   typed                 a text, an int and a 3-byte binary record: "typed"
//   limit                 the largest record there is, one byte more, and a
//                         normal one: "content <bytes> max_us <m>"
//   hold-lock, release-lock  takes "/WriteLOG" and keeps it, gives it back:
//                         "locked", "unlocked"
//   sleep=<ms>            "slept"
//   lock-free=<ms>        waits up to ms for "/WriteLOG" to be seen free:
//                         "free after <n> ms", else "taken"
//   stream=<p>,<threads>,<rate>,<min>,<max>,<count>[,burst]  the stress
//                         stream of support/StressStream.h; count 0: until a
//                         line on stdin; burst: "burst done", then one record
//                         more per thread after a line on stdin. One line per
//                         thread: "thread <t> written <n> timeouts <k>
//                         max_us <m> over2ms <c> dropped <seqs>"
//   victim=<p>,<min>,<max>,<count>  "go", then count stream records at once
// Steps of a feature of their own live in a file of their own beside this
// one and register with ZMHELPER_STEP (Steps.h).
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "helpers/Steps.h"
#include "log/ZMRuntimeLog.h"
#include "support/StressStream.h"
#include "support/ThreadNames.h"
#include "transport/SemManager.h"

using namespace PF::Utils::LOG;
using namespace zmhelper;
using Clock = std::chrono::steady_clock;

namespace {

long long UsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

bool WaitFor(const std::function<bool()>& pred, int ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

unsigned long gSeq = 0;  // runs on across log steps

void Log(const std::string& role, unsigned long n, unsigned long size, unsigned long pauseUs) {
    unsigned long written = 0;
    unsigned long slow = 0;
    long long maxUs = 0;
    std::string dropped;
    // Without a pause, stdin is looked at every 64 records only.
    while (n != 0 ? written < n : !((pauseUs >= 100 || written % 64 == 0) && LineArrived(false))) {
        std::string text = role + "-" + std::to_string(gSeq);
        if (text.size() < size) text.resize(size, '.');
        const unsigned long unwritten = detail::tUnwrittenRecords;
        const auto start = Clock::now();
        WriteLog<std::string>("seq", text, kInfo, "main", 0, 0, 0, std::string());
        const long long us = UsSince(start);
        maxUs = std::max(maxUs, us);
        slow += us > 500 ? 1 : 0;
        if (detail::tUnwrittenRecords != unwritten) dropped += " " + std::to_string(gSeq);
        ++gSeq;
        ++written;
        if (pauseUs != 0) usleep(static_cast<useconds_t>(pauseUs));
    }
    const auto drops = std::count(dropped.begin(), dropped.end(), ' ');
    Say("logged " + std::to_string(written) + " dropped " + std::to_string(drops) + " max_us " +
        std::to_string(maxUs) + " slow " + std::to_string(slow) + (drops ? ":" + dropped : ""));
}

struct StreamPlan {
    unsigned p = 0;
    unsigned threads = 1;
    double rate = 0;  // records/s per thread, 0: at once
    unsigned minSize = 0;
    unsigned maxSize = 0;
    unsigned long count = 0;  // 0: until a line on stdin
    bool burst = false;
};

struct StreamReport {
    unsigned long written = 0;
    unsigned long timeouts = 0;
    long long maxUs = 0;
    unsigned long over2ms = 0;
    std::string dropped;
};

std::atomic<bool> gStop{false};

// One stream record through the public macro, timed; a lock time-out shows
// in the thread's counter.
void StreamRecord(const StreamPlan& plan, unsigned t, unsigned long s, StreamReport& report) {
    const std::string text = zmtest::StressContent(plan.p, t, s, plan.minSize, plan.maxSize);
    const unsigned long timeouts = detail::tUnwrittenRecords;
    const auto start = Clock::now();
    ZMLOG_INFO(zmtest::kStressTag, text);
    const long long us = UsSince(start);
    ++report.written;
    report.maxUs = std::max(report.maxUs, us);
    report.over2ms += us > 2000 ? 1 : 0;
    if (detail::tUnwrittenRecords != timeouts) {
        ++report.timeouts;
        report.dropped += " " + std::to_string(s);
    }
}

void StreamThread(const StreamPlan& plan, unsigned t, StreamReport& report,
                  std::atomic<unsigned>& done) {
    const auto start = Clock::now();
    unsigned long s = 0;
    for (; plan.count == 0 ? !gStop.load() : s < plan.count; ++s) {
        if (plan.rate > 0) {
            std::this_thread::sleep_until(
                start + std::chrono::nanoseconds(static_cast<long long>(s * 1e9 / plan.rate)));
        }
        StreamRecord(plan, t, s, report);
    }
    ++done;
    if (!plan.burst) return;
    while (!gStop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    StreamRecord(plan, t, s, report);
}

void Stream(const StreamPlan& plan) {
    std::vector<StreamReport> reports(plan.threads);
    std::atomic<unsigned> done{0};
    gStop = false;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < plan.threads; ++t) {
        threads.emplace_back(StreamThread, std::cref(plan), t, std::ref(reports[t]),
                             std::ref(done));
    }
    if (plan.count == 0) {
        LineArrived(true);
        gStop = true;
    } else if (plan.burst) {
        while (done.load() < plan.threads)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        Say("burst done");
        LineArrived(true);
        gStop = true;
    }
    for (auto& th : threads) th.join();
    for (unsigned t = 0; t < plan.threads; ++t) {
        const StreamReport& r = reports[t];
        Say("thread " + std::to_string(t) + " written " + std::to_string(r.written) + " timeouts " +
            std::to_string(r.timeouts) + " max_us " + std::to_string(r.maxUs) + " over2ms " +
            std::to_string(r.over2ms) + " dropped" + r.dropped);
    }
}

std::string Repeat(const std::string& unit, size_t size) {
    std::string text;
    while (text.size() < size) text += unit;
    return text.substr(0, size);
}

// The largest record there is: names of 65535 bytes (the program's through
// argv[0]) and the content filling the rest of 1 MiB; then one byte more.
void Limit() {
    const std::string function = Repeat("Function", 65535);
    const std::string tag = Repeat("Tag", 65535);
    const size_t used =
        32 + function.size() + tag.size() + std::strlen(program_invocation_short_name);
    std::string content = Repeat("content", kMaxRecordLength - used);
    long long maxUs = 0;
    for (int extra = 0; extra < 2; ++extra) {
        const auto start = Clock::now();
        WriteLog<std::string>(tag.c_str(), content + (extra ? "+" : ""), kWarn, function.c_str(), 0,
                              0, 0, std::string());
        maxUs = std::max(maxUs, UsSince(start));
    }
    WriteLog<std::string>("limits", std::string("after the limits"), kInfo, "main", 0, 0, 0,
                          "CellEmulation");
    Say("content " + std::to_string(content.size()) + " max_us " + std::to_string(maxUs));
}

bool RunStep(const std::string& role, const std::string& step) {
    const size_t eq = step.find('=');
    const std::string name = step.substr(0, eq);
    const std::string args = eq == std::string::npos ? "" : step.substr(eq + 1);
    const std::vector<unsigned long> n = Numbers(args);
    auto arg = [&](size_t i, unsigned long fallback = 0) { return i < n.size() ? n[i] : fallback; };
    if (name == "probe") {
        Say("up=" + std::to_string(IsUPEnvironment()) +
            " ring=" + std::to_string(RingHead::GetInstance() != nullptr) +
            " threads=" + zmtest::ThreadNames());
    } else if (name == "start") {
        Say(StartRuntimeLog() ? "started" : "start failed");
    } else if (name == "release") {
        Say("released " + std::to_string(ReleaseRuntimeLog()));
    } else if (name == "attach") {
        Say("attached " + std::to_string(InitWriteLogEnv()));
    } else if (name == "private") {
        const size_t comma = args.find(',');
        LogDoConfigure(args.substr(0, comma), args.substr(comma + 1));
        Say("configured");
    } else if (name == "level") {
        SetLogLevel(static_cast<unsigned>(arg(0)));
        Say("level set");
    } else if (name == "wait-level") {
        const bool seen = WaitFor(
            [&] {
                return RingHead::GetInstance() && RingHead::GetInstance()->LoadLevel() == arg(0);
            },
            10000);
        Say(seen ? "level " + args : "level not seen");
    } else if (name == "bind") {
        BindCPUCore(static_cast<int>(std::strtol(args.c_str(), nullptr, 10)));
        Say("bound");
    } else if (name == "wait") {
        Say("waiting");
        LineArrived(true);
    } else if (name == "pause") {
        Say("paused");
        for (;;) pause();
    } else if (name == "log") {
        Log(role, arg(0), arg(1), arg(2));
    } else if (name == "typed") {
        // The program name argument is ignored on a private log's text path.
        WriteLog<char[8]>("net", "link up", kInfo, "main", 0, 0, 0, "Ignored");
        WriteLog<int>("count", 42, kWarn, "Poll", 0, 0, 0, "");
        const unsigned char raw[3] = {0x01, 0xab, 0x41};
        WriteLog<unsigned char[3]>("raw", raw, kError, "Dump", 3, 1, 0, "");
        Say("typed");
    } else if (name == "limit") {
        Limit();
    } else if (name == "hold-lock") {
        sem_wait(SemManager::sem);
        Say("locked");
    } else if (name == "release-lock") {
        sem_post(SemManager::sem);
        Say("unlocked");
    } else if (name == "sleep") {
        std::this_thread::sleep_for(std::chrono::milliseconds(arg(0)));
        Say("slept");
    } else if (name == "lock-free") {
        // A live holder keeps the lock for microseconds; one that died with
        // it leaves it taken until the runtime repairs the ring.
        const auto start = std::chrono::steady_clock::now();
        if (WaitFor([] { return GetWriteSemStatus() > 0; }, arg(0))) {
            Say("free after " +
                std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now() - start)
                                   .count()) +
                " ms");
        } else {
            Say("taken");
        }
    } else if (name == "stream") {
        Stream({static_cast<unsigned>(arg(0)), static_cast<unsigned>(arg(1, 1)),
                static_cast<double>(arg(2)), static_cast<unsigned>(arg(3)),
                static_cast<unsigned>(arg(4)), arg(5), args.find("burst") != std::string::npos});
    } else if (name == "victim") {
        const StreamPlan plan{
            static_cast<unsigned>(arg(0)), 1,      0,    static_cast<unsigned>(arg(1)),
            static_cast<unsigned>(arg(2)), arg(3), false};
        StreamReport report;
        Say("go");
        for (unsigned long s = 0; s < plan.count; ++s) StreamRecord(plan, 0, s, report);
    } else if (const zmhelper::Step* registered = FindStep(name)) {
        (*registered)(role, args);
    } else {
        Say("unknown step " + step);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (!RunStep(argv[0], argv[i])) return 2;
    }
    return 0;
}
