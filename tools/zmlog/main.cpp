// zmlog: reads the runtime's binary log and prints its records as text lines,
// JSON Lines or statistics. See HelpText() for the command line.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "Follower.h"
#include "LogFiles.h"
#include "LogReader.h"
#include "Options.h"
#include "OutputSink.h"
#include "log/ConfManager.h"
#include "log/Decode.h"

using namespace PF::Utils::LOG;
using namespace PF::Utils::LOG::zmlog;

namespace {

bool UseColor(ColorMode mode) {
    if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
    const char* noColor = std::getenv("NO_COLOR");
    return ::isatty(STDOUT_FILENO) == 1 && (noColor == nullptr || noColor[0] == '\0');
}

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int Run(const Options& o, OutputSink& out) {
    // As the library's parser does for the program it is asked for: a name
    // outside the built-in list is accepted once it is named.
    for (const std::string& name : o.programs) AddVaildProgram(name);
    if (o.micro) gParseLogFunction = ParseLogLineMicroSecond;

    std::vector<std::string> paths;
    std::string followPath;
    const bool directory = o.inputs.empty() || (o.inputs.size() == 1 && IsDirectory(o.inputs[0]));
    if (directory) {
        // The library's own log directory; it may say on stderr that the
        // environment is not set, as every process of the library does.
        const std::string dir = o.inputs.empty() ? InitConfAndLogPath().second : o.inputs[0];
        paths = ListRolledSet(dir);
        followPath = PathIn(dir, kDataFileName);
        if (paths.empty() && !o.follow) {
            throw Error(std::string("no ") + kDataFileName + " in " + dir);
        }
    } else {
        paths = OrderRolledFiles(o.inputs);
        followPath = paths.back();
    }
    // In a directory a file may be rolled away between listing and opening.
    std::vector<InputFile> files = OpenFiles(paths, directory);

    LogReader reader(o, UseColor(o.color), out);
    for (const InputFile& f : files) ReadToEnd(f.Fd(), f.Path(), reader);
    if (!o.follow) {
        reader.EndOfStream();
        reader.Finish();
        out.Flush();
        return 0;
    }
    reader.Finish();
    out.Flush();
    const int fd =
        !files.empty() && files.back().Path() == followPath ? files.back().Release() : -1;
    files.clear();
    Follower(followPath, fd, reader, out).Run();
}

void Fail(const char* message) {
    std::fprintf(stderr, "zmlog: %s\n", message);
    std::fflush(stderr);
}

}  // namespace

int main(int argc, char** argv) {
    OutputSink out(STDOUT_FILENO);
    try {
        const Options o = ParseOptions(argc, argv);
        if (o.help) {
            out.Write(HelpText());
            out.Flush();
            return 0;
        }
        return Run(o, out);
    } catch (const UsageError& e) {
        Fail(e.what());
        return 2;
    } catch (const std::bad_alloc&) {
        Fail("out of memory");
    } catch (const std::exception& e) {
        // What was read before the failure is still shown, then the reason.
        try {
            out.Flush();
        } catch (...) {
        }
        Fail(e.what());
    }
    return 1;
}
