// Crash reports. A process that dies of SIGSEGV, SIGBUS, SIGFPE, SIGILL or
// SIGABRT first writes one FATAL record: the signal, its code and address,
// the thread, and the backtrace as module and offset per frame. Then the
// signal goes on to the handler the process had before, or to its default
// action, so the exit status and the core dump are what they were without
// the report. A handler installed later replaces the library's, as sigaction
// does; one that hands the signal on to the handler it replaced keeps it.
//
// Module and offset rather than function names: the functions of a program
// linked without -rdynamic are only in its .symtab or a separate debug file,
// which dladdr does not read. Naming them here would take an ELF and DWARF
// reader in the library, run over every module at switch-on and holding all
// their symbols; zmlog names them with libdw when it prints the record, from
// the same binaries (which must still be there then).
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <iterator>

#include "lifecycle/ProcessRoles.h"
#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/LogMacros.h"
#include "transport/MEMManager.h"
#include "writer/CrashReport.h"
#include "writer/CrashText.h"
#include "writer/LibraryNotice.h"
#include "writer/SignalStack.h"

namespace PF::Utils::LOG {
namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr std::size_t kCount = std::size(kSignals);
constexpr int kMaxFrames = 48;
constexpr std::size_t kContentRoom = 12 * 1024;

// Each signal's handler before the library's, and whether the library's is set.
struct sigaction gPrevious[kCount];
bool gInstalled[kCount] = {};
char gExecutable[PATH_MAX] = {};
char gTextLog[PATH_MAX] = {};
long gUtcOffsetS = 0;            // of the switch-on: no localtime() in a handler
std::atomic<int> gReporting{0};  // the thread writing a report; 0: none

void WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

// What is still in the private ring goes to the file first: its archiver
// thread will not write it any more. Only when no thread is inside the ring
// (the crash may have come in the middle of a record).
void WritePendingLines(int fd) {
    if (!MEMManager::mMutex.try_lock()) return;
    RingHead* ring = RingHead::GetInstance();
    const unsigned capacity = ring != nullptr ? ring->LocalCapacity() : 0;
    if (capacity != 0 && ring->Sane()) {
        const char* data = reinterpret_cast<const char*>(ring) + sizeof(RingHead);
        const unsigned from = __atomic_load_n(&ring->consHead, __ATOMIC_ACQUIRE);
        const unsigned to = __atomic_load_n(&ring->prodTail, __ATOMIC_ACQUIRE);
        const unsigned at = from & (capacity - 1);
        const unsigned first = std::min(to - from, capacity - at);
        WriteAll(fd, data + at, first);
        WriteAll(fd, data, to - from - first);
        __atomic_store_n(&ring->consHead, to, __ATOMIC_RELEASE);
        __atomic_store_n(&ring->consTail, to, __ATOMIC_RELEASE);
    }
    MEMManager::mMutex.unlock();
}

void WriteToTextLog(std::string_view content, unsigned threadId, std::int64_t timeUs) {
    const int fd = open(gTextLog, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd < 0) return;
    WritePendingLines(fd);
    char line[kContentRoom + 128];
    const std::size_t size =
        detail::TextLine(line, sizeof line, timeUs, gUtcOffsetS, threadId, content);
    WriteAll(fd, line, size);
    close(fd);
    if (ConfManager::sConsole) WriteAll(STDOUT_FILENO, line, size);
}

void WriteReport(int sig, const siginfo_t& info, void* context) {
    if (!detail::LogEnabled(kFatal, 0)) return;
    void* frames[kMaxFrames];
    const int count = backtrace(frames, kMaxFrames);
    // The handler's own frames and the kernel's signal frame come first: the
    // report starts at the instruction that faulted or sent the signal.
    const auto* interrupted = static_cast<const ucontext_t*>(context);
    void* const pc = interrupted != nullptr
                         // The kernel hands the program counter over as an integer.
                         // NOLINTNEXTLINE(performance-no-int-to-ptr)
                         ? reinterpret_cast<void*>(interrupted->uc_mcontext.gregs[REG_RIP])
                         : nullptr;
    int first = 0;
    while (first < count && frames[first] != pc) ++first;
    if (first == count) first = 0;
    char content[kContentRoom];
    const std::string_view text(
        content, detail::DescribeCrash(content, sizeof content, sig, info, frames + first,
                                       count - first, gExecutable));
    const auto threadId = static_cast<unsigned>(syscall(SYS_gettid));
    const std::int64_t now = detail::NowUs();
    if (IsUPEnvironment()) return WriteToTextLog(text, threadId, now);
    RingHead* ring = RingHead::GetInstance();
    if (ring == nullptr) return;
    // The ring's lock within the writers' deadline, no longer: the crash may
    // have come while this very process held it.
    detail::EnqueueNotice(ring, {"CrashReport", "zmlog", text, now, kFatal, threadId},
                          kLockTimeoutNs);
}

void Default(int sig) {
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigaction(sig, &dfl, nullptr);
}

// As if the library's handler had never been there.
void HandOn(int sig, siginfo_t* info, void* context) {
    const struct sigaction& previous =
        gPrevious[std::find(kSignals, kSignals + kCount, sig) - kSignals];
    const bool sent = info->si_code <= 0;      // by kill, raise or abort, not by a fault
    const auto handler = previous.sa_handler;  // also SIG_DFL and SIG_IGN with SA_SIGINFO
    if (handler == SIG_IGN && sent) return;
    if (handler == SIG_DFL || handler == SIG_IGN) {
        // A fault is never ignored (the kernel kills for it): back at its
        // instruction, it faults again under the default action. A sent
        // signal is sent again and arrives as this handler returns.
        Default(sig);
        if (sent) raise(sig);
        return;
    }
    if ((previous.sa_flags & SA_RESETHAND) != 0) Default(sig);
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(sig, info, context);
    } else {
        handler(sig);
    }
}

void OnCrash(int sig, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    const auto self = static_cast<int>(syscall(SYS_gettid));
    int reporter = 0;
    if (gReporting.compare_exchange_strong(reporter, self)) {
        WriteReport(sig, *info, context);
        gReporting.store(0);
    } else if (reporter != self) {
        // Another thread's report must not be cut short by this signal's end
        // of the process. (The same thread: its report faulted; no second.)
        for (int waited = 0; gReporting.load() != 0 && waited < 100; ++waited) {
            timespec pause{0, 1000000};
            nanosleep(&pause, nullptr);
        }
    }
    HandOn(sig, info, context);
    errno = savedErrno;
}

bool Prepare() {
    // Now rather than in the handler: the first backtrace() loads the
    // unwinder with dlopen.
    void* warm[1];
    backtrace(warm, 1);
    const ssize_t n = readlink("/proc/self/exe", gExecutable, sizeof gExecutable - 1);
    gExecutable[n > 0 ? n : 0] = '\0';
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    gUtcOffsetS = localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0L;
    // The handlers and the signal stacks' destructor live in the library.
    PinLibraryInMemory();
    return true;
}

}  // namespace

bool EnableCrashReport() {
    static const bool prepared = Prepare();
    detail::EnableSignalStacks();
    bool all = prepared;
    for (std::size_t i = 0; i < kCount; ++i) {
        if (gInstalled[i]) continue;
        struct sigaction ours {};
        ours.sa_sigaction = OnCrash;
        ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&ours.sa_mask);
        gInstalled[i] = sigaction(kSignals[i], &ours, &gPrevious[i]) == 0;
        all = all && gInstalled[i];
    }
    return all;
}

namespace detail {

void ApplyCrashReportKey() {
    const auto it = ConfManager::mp.find("crashReport");
    if (it != ConfManager::mp.end() && it->second == "true") EnableCrashReport();
}

void NoteTextLogPath(const std::string& path) {
    std::string absolute = path;
    char cwd[PATH_MAX];
    if (path[0] != '/' && getcwd(cwd, sizeof cwd) != nullptr) absolute = cwd + ("/" + path);
    if (absolute.size() >= sizeof gTextLog) absolute.clear();
    gTextLog[absolute.copy(gTextLog, absolute.size())] = '\0';
}

}  // namespace detail
}  // namespace PF::Utils::LOG
