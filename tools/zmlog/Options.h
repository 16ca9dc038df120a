// Command line of zmlog.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace PF::Utils::LOG::zmlog {

// A failure worth one line on standard error: exit status 1.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A bad command line: exit status 2.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class ColorMode { kAuto, kAlways, kNever };

// short: "2024-05-17 13:04:59.123 PressLine7[4711] INFO main: net link up";
// pipe: the library's own line; json: JSON Lines; cat: tag and content;
// verbose: every field of the record, one per line; syslog: the RFC 5424
// messages --forward sends, one per line.
enum class OutputFormat { kShort, kPipe, kJson, kCat, kVerbose, kSyslog };

struct Options {
    std::vector<std::string> inputs;  // one directory, or files
    bool help = false;
    bool version = false;
    OutputFormat output = OutputFormat::kShort;
    bool micro = false;
    bool stats = false;
    bool follow = false;
    bool reverse = false;
    bool utc = false;
    bool quiet = false;
    ColorMode color = ColorMode::kAuto;

    std::vector<std::string> programs;
    std::vector<std::string> tags;
    int minLevel = 0;
    std::string since;  // as given; ResolveTimes turns them into sinceUs, untilUs
    std::string until;
    std::int64_t sinceUs = INT64_MIN;
    std::int64_t untilUs = INT64_MAX;
    std::string grep;
    bool lastOnly = false;  // -n given
    std::uint64_t last = 0;

    // Forwarding (--forward, or --output=syslog).
    std::string forward;  // the collector's URL
    std::string tlsCa;
    std::string tlsCert;
    std::string tlsKey;
    int facility = 16;  // local0
    std::string hostname;
    std::string cursorFile;
};

// Throws UsageError.
Options ParseOptions(int argc, char** argv);
// --since and --until against the clock, in the process's time zone (after
// --utc took effect). Throws UsageError.
void ResolveTimes(Options& o, std::int64_t nowUs);
const char* HelpText();

// "trace" ... "record" in any case, or 0 to 6.
int ParseLevel(const std::string& text);

}  // namespace PF::Utils::LOG::zmlog
