// Helper steps for crash reports. The program is linked without -rdynamic
// (CMake's ENABLE_EXPORTS is off): its functions are in .symtab only.
//   crash=<null|abort|overflow>  dies, without a core file: a null pointer read in
//                CrashByNullPointer, abort() in CrashByAbort, or OverflowStack recursing in
//                a thread "overflow" that logged a record first
//   own-handler  a SIGSEGV handler of the program's own, installed before the library's load
//                (preinit): it writes a record and leaves the signal to its default action
//   enable       EnableCrashReport: "enabled <result>"
//   handlers     "library handlers <n>": of SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT, how
//                many the library handles
#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>

#include "helpers/Steps.h"
#include "log/ZMRuntimeLog.h"

using namespace PF::Utils::LOG;
using namespace zmhelper;

namespace {
int* volatile gNowhere = nullptr;
volatile unsigned long gDepth = 0;  // not a constant: no specialised copy of OverflowStack
}  // namespace

// Of external linkage, so the compiler keeps them whole and under their names.
// A fault, not the sanitizer's report of one.
__attribute__((noinline, no_sanitize("null"))) void CrashByNullPointer() {
    *gNowhere = 1;
}

__attribute__((noinline)) void CrashByAbort() {
    std::abort();
}

__attribute__((noinline)) unsigned long OverflowStack(unsigned long depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (depth == ~0UL) return 0;
    return OverflowStack(depth + 1) + static_cast<unsigned long>(frame[0]);  // no tail call
}

namespace {

void Crash(const std::string&, const std::string& kind) {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    if (kind == "null") CrashByNullPointer();
    if (kind == "abort") CrashByAbort();
    std::thread([] {
        pthread_setname_np(pthread_self(), "overflow");
        ZMLOG_INFO("crash", " overflowing");  // the thread's first record
        OverflowStack(gDepth);
    }).join();
}

void OwnHandler(int sig) {
    ZMLOG_ERROR_F("app", " own handler of signal %d", sig);
    signal(sig, SIG_DFL);
}

// Runs before any library's constructor, so before the library's handler.
void InstallOwnHandler(int argc, char** argv, char**) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "own-handler") == 0) signal(SIGSEGV, OwnHandler);
}
__attribute__((section(".preinit_array"), used)) void (*const gPreinit)(int, char**,
                                                                        char**) = InstallOwnHandler;

void OwnHandlerInstalled(const std::string&, const std::string&) {}

void Enable(const std::string&, const std::string&) {
    Say("enabled " + std::to_string(EnableCrashReport()));
}

void Handlers(const std::string&, const std::string&) {
    int n = 0;
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        struct sigaction now {};
        sigaction(sig, nullptr, &now);
        Dl_info info{};
        if (dladdr(reinterpret_cast<void*>(now.sa_handler), &info) != 0 &&
            std::strstr(info.dli_fname, "libZMRuntimeLog") != nullptr)
            ++n;
    }
    Say("library handlers " + std::to_string(n));
}

}  // namespace

ZMHELPER_STEP("crash", Crash);
ZMHELPER_STEP("own-handler", OwnHandlerInstalled);
ZMHELPER_STEP("enable", Enable);
ZMHELPER_STEP("handlers", Handlers);
