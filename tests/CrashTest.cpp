// Crash reports: a process that dies of a signal leaves one FATAL record
// naming the signal and, once zmlog has named the frames, the function that
// crashed; and it dies of that signal, as it would have without the report.

#include <iterator>
#include <regex>
#include <sstream>

#include "CrashFrames.h"
#include "support/Fixtures.h"

using namespace zmtest;
using PF::Utils::LOG::zmlog::CrashFrames;

namespace {

const std::string kWithReport = std::string(Installation::kConfig) + "crashReport=true\n";

struct CrashCase {
    const char* role;
    const char* steps;
    int signal;
    std::vector<std::string> shown;  // in zmlog's output, in this order; none: no report
    const char* named;               // a line of the frames zmlog named, as a regex
    bool privateLog = false;         // no runtime: the report goes to "<role>.log"
};

// The children leave the crash signals to the library: AddressSanitizer's
// own handlers would end them with its report and an exit status of its own.
std::string NoSanitizerHandlers() {
    const char* asan = std::getenv("ASAN_OPTIONS");
    return "ASAN_OPTIONS=" + std::string(asan != nullptr ? asan : "") +
           ":handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_abort=0:handle_sigill=0";
}

}  // namespace

TEST(Crash, EachKindIsReportedAndEndsTheProcessAsBefore) {
    const std::string segv = " SIGSEGV (SEGV_MAPERR) at 0x0 in thread ";
    const char* top = "#0 .*CrashByNullPointer\\(\\)";  // the top frame names it
    const std::vector<CrashCase> cases = {
        {"CrashNull", "log=1 crash=null", SIGSEGV, {"CrashNull-0", segv}, top},
        {"CrashAbort", "crash=abort", SIGABRT, {"SIGABRT (SI_TKILL) from pid"}, "#.*CrashByAbort"},
        // In a thread that logged, and so has a signal stack to report on.
        {"CrashStack", "crash=overflow", SIGSEGV, {"\"overflow\"", "the same"}, "#0 .*Overflow"},
        // The program's own handler, there before the library's, still runs:
        // its record, written in the handler, follows the report.
        {"CrashOwn", "own-handler crash=null", SIGSEGV, {segv, "own handler of signal 11"}, top},
        // The process holds the ring's lock itself: the report gives up at
        // the deadline and the process ends all the same.
        {"CrashLocked", "hold-lock crash=null", SIGSEGV, {}, ""},
        // No runtime: the lines still in the private ring, then the report,
        // straight into the text file.
        {"CrashPrivate", "enable log=2 crash=null", SIGSEGV, {"CrashPrivate-1", segv}, top, true},
    };
    for (const CrashCase& c : cases) {
        SCOPED_TRACE(c.role);
        Installation install(c.privateLog ? "" : kWithReport);
        auto runtime = c.privateLog ? nullptr : std::make_unique<Runtime>(install);
        std::istringstream steps(c.steps);
        const std::vector<std::string> words{std::istream_iterator<std::string>(steps), {}};
        const ProcessResult r = install.Start(c.role, words, {NoSanitizerHandlers()})->Wait(5s);
        EXPECT_EQ(r.signal, c.signal) << r.out << r.err;
        if (runtime != nullptr) runtime->Release();
        const std::string log =
            c.privateLog ? install.Root() + "/" + c.role + ".log" : install.DataFile();
        const std::string shown = install.Zmlog({log}).out;
        if (c.shown.empty()) {
            EXPECT_EQ(shown.find("CrashReport"), std::string::npos) << shown;
        }
        size_t at = 0;
        for (const std::string& text : c.shown) {
            at = shown.find(text, at);
            ASSERT_NE(at, std::string::npos) << "\"" << text << "\" not in order in:\n" << shown;
        }
        if (!c.shown.empty() && CrashFrames::CanName()) {
            EXPECT_TRUE(std::regex_search(shown, std::regex(c.named))) << shown;
        }
    }
}

// Nothing of the library catches a signal unless the key says so.
TEST(Crash, OnlyTheKeyInstallsHandlers) {
    for (const auto& [config, expected] :
         {std::pair{std::string(Installation::kConfig), "library handlers 0\n"},
          std::pair{kWithReport, "library handlers 5\n"}}) {
        Installation install(config);
        EXPECT_EQ(install.Run("CrashProbe", {"handlers"}).out, expected);
    }
}
