#include "Options.h"

#include <getopt.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr const char* kLevelNames[] = {"trace", "debug", "info",  "warn",
                                       "error", "fatal", "record"};

enum LongOnly {
    kMicro = 256,
    kJson,
    kColor,
    kStats,
    kProgram,
    kLevel,
    kSince,
    kUntil,
    kTag,
    kGrep,
};

const option kLongOptions[] = {
    {"micro", no_argument, nullptr, kMicro},
    {"json", no_argument, nullptr, kJson},
    {"color", required_argument, nullptr, kColor},
    {"stats", no_argument, nullptr, kStats},
    {"program", required_argument, nullptr, kProgram},
    {"level", required_argument, nullptr, kLevel},
    {"since", required_argument, nullptr, kSince},
    {"until", required_argument, nullptr, kUntil},
    {"tag", required_argument, nullptr, kTag},
    {"grep", required_argument, nullptr, kGrep},
    {"lines", required_argument, nullptr, 'n'},
    {"follow", no_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

// The option as the user wrote it, without an attached "=value".
std::string OptionText(char** argv, int index, int shortOption) {
    if (shortOption > 0 && shortOption < 256)
        return std::string("-") + static_cast<char>(shortOption);
    std::string text = argv[index];
    return text.substr(0, text.find('='));
}

bool Digits(const char*& p, int count, int& value) {
    value = 0;
    for (int i = 0; i < count; ++i, ++p) {
        if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
        value = value * 10 + (*p - '0');
    }
    return true;
}

bool Literal(const char*& p, char c) {
    if (*p != c) return false;
    ++p;
    return true;
}

std::int64_t TimeValue(const std::string& text, const char* option) {
    std::int64_t us = 0;
    if (!ParseLocalTime(text, us)) {
        throw UsageError("bad time '" + text + "' for " + option +
                         " (use YYYY-MM-DD[ HH:MM[:SS[.ffffff]]])");
    }
    return us;
}

}  // namespace

int ParseLevel(const std::string& text) {
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '6') return text[0] - '0';
    std::string lower;
    for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (int i = 0; i < 7; ++i) {
        if (lower == kLevelNames[i]) return i;
    }
    return -1;
}

bool ParseLocalTime(const std::string& text, std::int64_t& us) {
    const char* p = text.c_str();
    std::tm tm{};
    int hour = 0;
    int minute = 0;
    int second = 0;
    long fraction = 0;
    if (!Digits(p, 4, tm.tm_year) || !Literal(p, '-') || !Digits(p, 2, tm.tm_mon) ||
        !Literal(p, '-') || !Digits(p, 2, tm.tm_mday)) {
        return false;
    }
    if (*p == ' ' || *p == 'T') {
        ++p;
        if (!Digits(p, 2, hour) || !Literal(p, ':') || !Digits(p, 2, minute)) return false;
        if (Literal(p, ':')) {
            if (!Digits(p, 2, second)) return false;
            if (Literal(p, '.')) {
                int digits = 0;
                for (; std::isdigit(static_cast<unsigned char>(*p)) && digits < 6; ++p, ++digits) {
                    fraction = fraction * 10 + (*p - '0');
                }
                if (digits == 0) return false;
                for (; digits < 6; ++digits) fraction *= 10;
            }
        }
    }
    if (*p != '\0') return false;
    if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || hour > 23 ||
        minute > 59 || second > 60) {
        return false;
    }
    const int day = tm.tm_mday;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    if (tm.tm_mday != day) return false;  // 31 April and the like were normalised
    us = static_cast<std::int64_t>(t) * 1000000 + fraction;
    return true;
}

Options ParseOptions(int argc, char** argv) {
    Options o;
    opterr = 0;
    optind = 0;  // full re-initialisation of getopt
    for (;;) {
        const int c = getopt_long(argc, argv, ":n:fh", kLongOptions, nullptr);
        if (c == -1) break;
        const std::string value = optarg != nullptr ? optarg : "";
        switch (c) {
            case kMicro:
                o.micro = true;
                break;
            case kJson:
                o.json = true;
                break;
            case kStats:
                o.stats = true;
                break;
            case 'f':
                o.follow = true;
                break;
            case 'h':
                o.help = true;
                break;
            case kProgram:
                o.programs.push_back(value);
                break;
            case kTag:
                o.tags.push_back(value);
                break;
            case kGrep:
                o.grep = value;
                break;
            case kSince:
                o.sinceUs = TimeValue(value, "--since");
                break;
            case kUntil:
                o.untilUs = TimeValue(value, "--until");
                break;
            case kColor:
                if (value == "auto") {
                    o.color = ColorMode::kAuto;
                } else if (value == "always") {
                    o.color = ColorMode::kAlways;
                } else if (value == "never") {
                    o.color = ColorMode::kNever;
                } else {
                    throw UsageError("bad value '" + value + "' for --color (auto, always, never)");
                }
                break;
            case kLevel:
                o.minLevel = ParseLevel(value);
                if (o.minLevel < 0) {
                    throw UsageError("unknown level '" + value +
                                     "' (trace, debug, info, warn, error, fatal, record)");
                }
                break;
            case 'n': {
                char* end = nullptr;
                errno = 0;
                const unsigned long long n = std::strtoull(value.c_str(), &end, 10);
                if (value.empty() || !std::isdigit(static_cast<unsigned char>(value[0])) ||
                    *end != '\0' || errno != 0) {
                    throw UsageError("bad count '" + value + "' for -n");
                }
                o.lastOnly = true;
                o.last = n;
                break;
            }
            case ':':
                throw UsageError("option '" + OptionText(argv, optind - 1, optopt) +
                                 "' needs a value");
            default:
                throw UsageError("unknown option '" + OptionText(argv, optind - 1, optopt) +
                                 "' (see zmlog --help)");
        }
    }
    for (int i = optind; i < argc; ++i) o.inputs.emplace_back(argv[i]);
    if (o.stats && o.follow) throw UsageError("--stats cannot be combined with --follow");
    if (o.stats && o.lastOnly) throw UsageError("--stats cannot be combined with -n");
    return o;
}

const char* HelpText() {
    return R"(Usage: zmlog [OPTION]... [DIRECTORY | FILE...]
Print the records of the runtime's binary log ("RUNTIME.data") as text lines.

With no argument zmlog reads the installation's log directory: $ZM_VELDOR_DATA/log,
or /data/VeldorRuntime/log when ZM_VELDOR_DATA is not set. A directory is read as
a rolled set, oldest first: RUNTIME.data_N ... RUNTIME.data_1, RUNTIME.data. Files
named on the command line are read in the order given, except that the members
of one rolled set are put oldest first. A record cut by a roll is joined again.
Lines come in file order, which is the order of arrival from all programs.

Output:
      --micro         time stamps with microseconds instead of milliseconds
      --json          JSON Lines, one object per record with the fields time
                      (local, ISO 8601 with offset), time_us, thread, level,
                      program, function, tag, content, component and binary;
                      the content of a binary record is its bytes as one
                      lower-case hex string, and binary is true
      --color=WHEN    colour the level names: auto (only on a terminal and
                      when NO_COLOR is not set), always or never
      --stats         instead of lines: records per program and level, the time
                      span and the damaged bytes skipped (as JSON with --json)

Filters (a record must pass all that are given):
      --program=NAME  only records of program NAME (may be repeated); NAME is
                      also added to the program names the decoder accepts
      --level=LEVEL   only records of LEVEL or above: trace, debug, info, warn,
                      error, fatal, record (any case) or 0 to 6
      --since=TIME    only records at or after TIME, a local time stamp
                      YYYY-MM-DD[ HH:MM[:SS[.ffffff]]] ('T' may replace the blank)
      --until=TIME    only records at or before TIME
      --tag=TAG       only records with tag TAG (may be repeated)
      --grep=TEXT     only records whose function, tag or content contains TEXT
                      (plain text, case sensitive)
  -n, --lines=N       only the last N records that pass the filters (with -f,
                      then every new one)
  -f, --follow        after the existing records wait for new ones, like
                      tail -f; keeps following when RUNTIME.data is rolled or
                      created anew (with files: follows the newest one)
  -h, --help          show this text

Records of programs the decoder does not know and damaged bytes are skipped;
--stats counts the damaged bytes.
Exit status: 0 on success, 1 when an input cannot be read, 2 for a bad command line.
)";
}

}  // namespace PF::Utils::LOG::zmlog
