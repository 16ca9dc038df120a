// The one helper program of the multi-process tests. Its role comes from
// argv[0], from which the library's load-time set-up decides what the
// process is; its arguments are steps, run in order, each reporting on
// stdout when done:
//   probe             "up=<0|1> ring=<0|1> threads=<names>"
//   start, release    StartRuntimeLog, ReleaseRuntimeLog: "started", "released <result>"
//   attach            InitWriteLogEnv: "attached <result>"
//   private=<cfg>,<dir>  LogDoConfigure: "configured"
//   level=<n>         SetLogLevel: "level set"
//   wait-level=<n>    waits (10 s) for the shared header's level n: "level <n>", "level not seen"
//   bind=<cpu>        BindCPUCore: "bound"
//   wait              "waiting", then waits for a line on stdin
//   log=<n>[,<size>[,<us>[,<threads>[,<max>]]]]  each thread writes n records (n 0: until a
//                     line on stdin) of SeqContent (TestSupport.h), size to max bytes, one
//                     every us; seqs run on across log steps. Per thread: "logged <n> from
//                     <first> dropped <d> max_us <m>[: <seqs>]", the seqs a lock not had
//                     within 1 ms dropped
//   hold-lock, release-lock  takes "/WriteLOG" and keeps it, gives it back: "locked", "unlocked"
//   sleep=<ms>        "slept"
//   lock-free=<ms>    waits up to ms for "/WriteLOG" to be seen free: "free after <n> ms", "taken"
// Steps of a feature of their own live in a file of their own beside this
// one and register with ZMHELPER_STEP (Steps.h).
#include <semaphore.h>

#include <atomic>
#include <sstream>

#include "helpers/Steps.h"
#include "log/ZMRuntimeLog.h"
#include "support/ThreadNames.h"
#include "transport/SemManager.h"

using namespace PF::Utils::LOG;
using namespace zmhelper;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

long long UsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

void WaitForLine() {
    for (char c = 0; read(0, &c, 1) == 1 && c != '\n';) continue;
}

unsigned long gSeq[64] = {};  // per thread, run on across log steps
std::atomic<bool> gStop{false};

std::string Log(const std::string& role, unsigned t, const std::vector<unsigned long>& n) {
    const auto arg = [&](size_t i) { return i < n.size() ? n[i] : 0; };
    const unsigned long count = arg(0), size = arg(1), pauseUs = arg(2);
    const unsigned long span = std::max(arg(4), size) - size + 1;
    const unsigned long first = gSeq[t];
    long long maxUs = 0;
    std::string dropped;
    for (unsigned long& seq = gSeq[t]; count != 0 ? seq - first < count : !gStop.load(); ++seq) {
        const std::string text =
            zmtest::SeqContent(role, t, seq, size + (seq * 2654435761U + t) % span);
        const unsigned long unwritten = detail::tUnwrittenRecords;
        const auto start = Clock::now();
        WriteLog<std::string>("seq", text, kInfo, "main", 0, 0, 0, std::string());
        maxUs = std::max(maxUs, UsSince(start));
        if (detail::tUnwrittenRecords != unwritten) dropped += " " + std::to_string(seq);
        if (pauseUs != 0) usleep(static_cast<useconds_t>(pauseUs));
    }
    const auto drops = std::count(dropped.begin(), dropped.end(), ' ');
    return "logged " + std::to_string(gSeq[t] - first) + " from " + std::to_string(first) +
           " dropped " + std::to_string(drops) + " max_us " + std::to_string(maxUs) +
           (drops ? ":" + dropped : "");
}

void LogThreads(const std::string& role, const std::vector<unsigned long>& n) {
    const unsigned threads = n.size() > 3 && n[3] > 1 ? static_cast<unsigned>(n[3]) : 1;
    std::vector<std::string> reports(threads);
    std::vector<std::thread> writers;
    gStop = false;
    for (unsigned t = 0; t < threads; ++t)
        writers.emplace_back([&, t] { reports[t] = Log(role, t, n); });
    if (n.at(0) == 0) {
        WaitForLine();
        gStop = true;
    }
    for (auto& w : writers) w.join();
    for (const auto& r : reports) Say(r);
}

bool RunStep(const std::string& role, const std::string& step) {
    const size_t eq = step.find('=');
    const std::string name = step.substr(0, eq);
    const std::string args = eq == std::string::npos ? "" : step.substr(eq + 1);
    std::vector<unsigned long> n;  // "3,64,1000" -> {3, 64, 1000}
    std::istringstream numbers(args);
    for (unsigned long v; numbers >> v; numbers.ignore(1)) n.push_back(v);
    const unsigned long first = n.empty() ? 0 : n[0];
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
        SetLogLevel(static_cast<unsigned>(first));
        Say("level set");
    } else if (name == "wait-level") {
        const bool seen = zmtest::WaitUntil([&] {
            return RingHead::GetInstance() && RingHead::GetInstance()->LoadLevel() == first;
        });
        Say(seen ? "level " + args : "level not seen");
    } else if (name == "bind") {
        BindCPUCore(static_cast<int>(first));
        Say("bound");
    } else if (name == "wait") {
        Say("waiting");
        WaitForLine();
    } else if (name == "log") {
        LogThreads(role, n);
    } else if (name == "hold-lock" || name == "release-lock") {
        name == "hold-lock" ? sem_wait(SemManager::sem) : sem_post(SemManager::sem);
        Say(name == "hold-lock" ? "locked" : "unlocked");
    } else if (name == "sleep") {
        std::this_thread::sleep_for(first * 1ms);
        Say("slept");
    } else if (name == "lock-free") {
        // A live holder keeps the lock for microseconds; one that died with
        // it leaves it taken until the runtime repairs the ring.
        const auto start = Clock::now();
        const bool free = zmtest::WaitUntil([] { return GetWriteSemStatus() > 0; },
                                            std::chrono::milliseconds(first));
        Say(free ? "free after " + std::to_string(UsSince(start) / 1000) + " ms" : "taken");
    } else if (Steps().count(name) != 0) {
        Steps()[name](role, args);
    } else {
        Say("unknown step " + step);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (!RunStep(argv[0], argv[i])) return 2;
    return 0;
}
