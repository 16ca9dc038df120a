// zmlog: reads the runtime's binary log and prints its records, of every
// program, in one of several formats or as statistics. See HelpText() for
// the command line.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <vector>

#include "CrashFrames.h"
#include "DamageReport.h"
#include "Follower.h"
#include "LogFiles.h"
#include "LogReader.h"
#include "Options.h"
#include "OutputSink.h"
#include "TimeSpec.h"
#include "forward/Forwarder.h"
#include "forward/Transport.h"

using namespace PF::Utils::LOG::zmlog;

namespace {

// The input held neither a record nor text.
constexpr int kNoRecords = 3;

volatile std::sig_atomic_t gStop = 0;

void OnStopSignal(int sig) {
    // A second request, or one while output blocks, ends at once.
    if (gStop != 0) {
        std::signal(sig, SIG_DFL);
        std::raise(sig);
    }
    gStop = 1;
}

void Note(const std::string& text) {
    std::fprintf(stderr, "zmlog: %s\n", text.c_str());
    std::fflush(stderr);
}

bool UseColor(ColorMode mode) {
    if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
    const char* noColor = std::getenv("NO_COLOR");
    return ::isatty(STDOUT_FILENO) == 1 && (noColor == nullptr || noColor[0] == '\0');
}

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The installation's log directory by the library's rule, without the notes
// its set-up prints on standard error: zmlog only reads files.
std::string DefaultLogDirectory() {
    const char* data = std::getenv("ZM_VELDOR_DATA");
    return data != nullptr ? std::string(data) + "/log" : "/data/VeldorRuntime/log";
}

// A file without records: text (a private process's log) is shown as it
// is. Allows a few control bytes, never a zero byte.
bool LooksLikeText(int fd) {
    char buf[1 << 16];
    std::uint64_t total = 0;
    std::uint64_t control = 0;
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(fd, buf, sizeof buf, at);
        if (n < 0) return false;
        if (n == 0) break;
        for (ssize_t i = 0; i < n; ++i) {
            const auto c = static_cast<unsigned char>(buf[i]);
            if (c == 0) return false;
            if ((c < 0x20 && c != '\n' && c != '\t' && c != '\r' && c != 0x1B) || c == 0x7F)
                ++control;
        }
        total += static_cast<std::uint64_t>(n);
        at += n;
    }
    return total > 0 && control * 100 <= total;
}

// A crash report's frames are named here too.
void Cat(int fd, OutputSink& out) {
    std::string text;
    char buf[1 << 16];
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(fd, buf, sizeof buf, at);
        if (n <= 0) break;
        text.append(buf, static_cast<std::size_t>(n));
        at += n;
    }
    out.Write(CrashFrames().Name(text));
}

int Run(Options& o, OutputSink& out) {
    if (o.utc) {
        // Also the library's line formatter reads local time.
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }
    ResolveTimes(o, NowUs());

    std::vector<std::string> paths;
    RolledSet followed;
    const bool directory = o.inputs.empty() || (o.inputs.size() == 1 && IsDirectory(o.inputs[0]));
    if (directory) {
        followed = {o.inputs.empty() ? DefaultLogDirectory() : o.inputs[0], kDataFileName};
        paths = ListRolledSet(followed.dir);
        if (paths.empty() && !o.follow) {
            throw Error(std::string("no ") + kDataFileName + " in " + followed.dir);
        }
    } else {
        paths = OrderRolledFiles(o.inputs);
        followed = RolledSetOf(paths.back());
    }
    // In a directory a file may be rolled away between listing and opening.
    std::vector<InputFile> files = OpenFiles(paths, directory);

    LogReader reader(o, UseColor(o.color), out);
    RecordSource& source = reader.Source();
    for (const InputFile& f : files) {
        source.BeginFile(f.Path(), f.Id());
        ReadToEnd(f.Fd(), f.Path(), source);
    }
    DamageReport damage;
    const auto report = [&] {
        const std::string text = damage.Text(source);
        if (!o.quiet && !text.empty()) Note(text);
    };
    if (!o.follow) {
        source.EndOfStream();
        if (source.Records() == 0 && source.Bytes() > 0) {
            const std::string what = directory           ? followed.dir
                                     : files.size() == 1 ? files[0].Path()
                                                         : "the files";
            for (const InputFile& f : files) {
                if (!LooksLikeText(f.Fd())) {
                    Note("no log record in " + what + " (" + std::to_string(source.Bytes()) +
                         " bytes): not a log of the runtime");
                    return kNoRecords;
                }
            }
            if (!o.quiet) Note(what + " holds text, not log records: shown as it is");
            for (const InputFile& f : files) Cat(f.Fd(), out);
            out.Flush();
            return 0;
        }
        reader.Finish();
        out.Flush();
        report();
        return 0;
    }
    reader.Finish();
    out.Flush();
    report();

    InputFile current;
    std::vector<FileId> older;
    for (InputFile& f : files) {
        if (current.IsOpen()) older.push_back(current.Id());
        current = std::move(f);
    }
    files.clear();
    struct sigaction stop {};
    stop.sa_handler = OnStopSignal;
    sigemptyset(&stop.sa_mask);
    ::sigaction(SIGINT, &stop, nullptr);
    ::sigaction(SIGTERM, &stop, nullptr);
    Follower follower(followed, std::move(current), std::move(older), source);
    follower.Run(gStop, [&] {
        out.Flush();
        report();
    });
    out.Flush();
    report();
    return 0;
}

// --forward and --output=syslog.
int Forward(Options& o) {
    ResolveTimes(o, NowUs());
    std::unique_ptr<Transport> transport = MakeTransport(o);
    RolledSet set;
    // A path that does not exist yet is taken for a log directory to come.
    struct stat st {};
    if (o.inputs.empty() || (o.inputs.size() == 1 &&
                             (IsDirectory(o.inputs[0]) || ::stat(o.inputs[0].c_str(), &st) != 0))) {
        set = {o.inputs.empty() ? DefaultLogDirectory() : o.inputs[0], kDataFileName};
        if (!o.follow && ListRolledSet(set.dir).empty())
            throw Error(std::string("no ") + kDataFileName + " in " + set.dir);
    } else if (o.inputs.size() == 1) {
        set = RolledSetOf(o.inputs[0]);
    } else {
        throw UsageError("forwarding reads one rolled set: a directory or one file of it");
    }
    // A collector that drops the connection must not end zmlog.
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction stop {};
    stop.sa_handler = OnStopSignal;
    sigemptyset(&stop.sa_mask);
    ::sigaction(SIGINT, &stop, nullptr);
    ::sigaction(SIGTERM, &stop, nullptr);
    Forwarder forwarder(o, set, *transport, Note);
    const bool complete = forwarder.Run(gStop);
    if (!o.forward.empty() && !o.quiet) {
        Note("forwarded " + std::to_string(forwarder.Forwarded()) + " records to " + o.forward);
    }
    if (!complete) Note("stopped before everything was forwarded");
    return complete ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    OutputSink out(STDOUT_FILENO);
    try {
        Options o = ParseOptions(argc, argv);
        if (o.help || o.version) {
            out.Write(o.help ? HelpText() : "zmlog " ZMLOG_VERSION "\n");
            out.Flush();
            return 0;
        }
        if (!o.forward.empty() || o.output == OutputFormat::kSyslog) return Forward(o);
        return Run(o, out);
    } catch (const UsageError& e) {
        Note(e.what());
        return 2;
    } catch (const std::bad_alloc&) {
        Note("out of memory");
    } catch (const std::exception& e) {
        // What was read before the failure is still shown, then the reason.
        try {
            out.Flush();
        } catch (...) {
        }
        Note(e.what());
    }
    return 1;
}
