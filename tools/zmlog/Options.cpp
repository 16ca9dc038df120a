#include "Options.h"

#include <getopt.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "TimeSpec.h"
#include "forward/SyslogEncoder.h"

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
    kTag,
    kGrep,
    kUtc,
    kVersion,
    kForward,
    kTlsCa,
    kTlsCert,
    kTlsKey,
    kFacility,
    kHostname,
    kCursorFile,
};

const option kLongOptions[] = {
    {"output", required_argument, nullptr, 'o'},
    {"json", no_argument, nullptr, kJson},
    {"micro", no_argument, nullptr, kMicro},
    {"color", required_argument, nullptr, kColor},
    {"stats", no_argument, nullptr, kStats},
    {"program", required_argument, nullptr, kProgram},
    {"level", required_argument, nullptr, kLevel},
    {"since", required_argument, nullptr, 'S'},
    {"until", required_argument, nullptr, 'U'},
    {"tag", required_argument, nullptr, kTag},
    {"grep", required_argument, nullptr, kGrep},
    {"lines", required_argument, nullptr, 'n'},
    {"reverse", no_argument, nullptr, 'r'},
    {"follow", no_argument, nullptr, 'f'},
    {"utc", no_argument, nullptr, kUtc},
    {"quiet", no_argument, nullptr, 'q'},
    {"version", no_argument, nullptr, kVersion},
    {"forward", required_argument, nullptr, kForward},
    {"tls-ca", required_argument, nullptr, kTlsCa},
    {"tls-cert", required_argument, nullptr, kTlsCert},
    {"tls-key", required_argument, nullptr, kTlsKey},
    {"facility", required_argument, nullptr, kFacility},
    {"hostname", required_argument, nullptr, kHostname},
    {"cursor-file", required_argument, nullptr, kCursorFile},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

const std::pair<const char*, OutputFormat> kFormats[] = {
    {"short", OutputFormat::kShort},     {"pipe", OutputFormat::kPipe},
    {"json", OutputFormat::kJson},       {"cat", OutputFormat::kCat},
    {"verbose", OutputFormat::kVerbose}, {"syslog", OutputFormat::kSyslog},
};

// The option as the user wrote it, without an attached "=value".
std::string OptionText(char** argv, int index, int shortOption) {
    if (shortOption > 0 && shortOption < 256)
        return std::string("-") + static_cast<char>(shortOption);
    std::string text = argv[index];
    return text.substr(0, text.find('='));
}

std::int64_t TimeValue(const std::string& text, const char* option, std::int64_t nowUs) {
    std::int64_t us = 0;
    if (!ParseTimeSpec(text, nowUs, us)) {
        throw UsageError("bad time '" + text + "' for " + option +
                         " (use YYYY-MM-DD [HH:MM[:SS]], HH:MM[:SS], now, today, yesterday, "
                         "or -15min, -2h, -1d)");
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

Options ParseOptions(int argc, char** argv) {
    Options o;
    opterr = 0;
    optind = 0;  // full re-initialisation of getopt
    for (;;) {
        const int c = getopt_long(argc, argv, ":o:n:S:U:rfqh", kLongOptions, nullptr);
        if (c == -1) break;
        const std::string value = optarg != nullptr ? optarg : "";
        switch (c) {
            case 'o': {
                bool known = false;
                for (const auto& [name, format] : kFormats) {
                    if (value == name) {
                        o.output = format;
                        known = true;
                    }
                }
                if (!known) {
                    throw UsageError("unknown output format '" + value +
                                     "' (short, pipe, json, cat, verbose, syslog)");
                }
                break;
            }
            case kJson:
                o.output = OutputFormat::kJson;
                break;
            case kMicro:
                o.micro = true;
                break;
            case kStats:
                o.stats = true;
                break;
            case 'r':
                o.reverse = true;
                break;
            case 'f':
                o.follow = true;
                break;
            case kUtc:
                o.utc = true;
                break;
            case 'q':
                o.quiet = true;
                break;
            case kVersion:
                o.version = true;
                break;
            case 'h':
                o.help = true;
                break;
            case kForward:
                o.forward = value;
                break;
            case kTlsCa:
                o.tlsCa = value;
                break;
            case kTlsCert:
                o.tlsCert = value;
                break;
            case kTlsKey:
                o.tlsKey = value;
                break;
            case kHostname:
                o.hostname = value;
                break;
            case kCursorFile:
                o.cursorFile = value;
                break;
            case kFacility:
                o.facility = ParseFacility(value);
                if (o.facility < 0) {
                    throw UsageError("unknown facility '" + value +
                                     "' (kern, user, daemon, ..., local0 ... local7, or 0 to 23)");
                }
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
            case 'S':
                o.since = value;
                break;
            case 'U':
                o.until = value;
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
    if (o.reverse && o.follow) throw UsageError("--reverse cannot be combined with --follow");
    const bool forwarding = !o.forward.empty() || o.output == OutputFormat::kSyslog;
    if (!o.forward.empty() && o.output != OutputFormat::kShort) {
        throw UsageError("--forward cannot be combined with --output");
    }
    if (forwarding) {
        const char* option = o.forward.empty() ? "--output=syslog" : "--forward";
        if (o.stats || o.lastOnly || o.reverse) {
            throw UsageError(std::string(option) + " cannot be combined with " +
                             (o.stats      ? "--stats"
                              : o.lastOnly ? "-n"
                                           : "--reverse"));
        }
    } else if (!o.cursorFile.empty()) {
        throw UsageError("--cursor-file needs --forward or --output=syslog");
    }
    if ((!o.tlsCert.empty()) != (!o.tlsKey.empty()))
        throw UsageError("--tls-cert and --tls-key go together");
    return o;
}

void ResolveTimes(Options& o, std::int64_t nowUs) {
    if (!o.since.empty()) o.sinceUs = TimeValue(o.since, "--since", nowUs);
    if (!o.until.empty()) o.untilUs = TimeValue(o.until, "--until", nowUs);
}

const char* HelpText() {
    return R"(Usage: zmlog [OPTION]... [DIRECTORY | FILE...]
Print the records of the runtime's binary log ("RUNTIME.data"), of every
program, one line each:

  2024-05-17 13:04:59.123 PressLine7[4711] INFO main: net link up
  (local time, program[thread id], level, function: tag and content)

With no argument zmlog reads the installation's log directory: $ZM_VELDOR_DATA/log,
or /data/VeldorRuntime/log when ZM_VELDOR_DATA is not set. A directory is read as
a rolled set, oldest first: RUNTIME.data_N ... RUNTIME.data_1, RUNTIME.data. Files
named on the command line are read in the order given, except that the members
of one rolled set are put oldest first. A record cut by a roll is joined again.
Lines come in file order, which is the order of arrival from all programs.

Output:
  -o, --output=FORMAT  short (the default, as above); pipe (the library's own
                       line: time|thread|LEVEL|function|tag+content); json (JSON
                       Lines: time, time_us, thread, level, program, function,
                       tag, content, type, value, component, binary); cat (tag
                       and content only); verbose (every field of the record,
                       one per line, a blank line after each record);
                       syslog (see Forwarding)
      --json           the same as --output=json
      --micro          time stamps with microseconds instead of milliseconds
      --utc            times in UTC, printed and read (--since, --until)
      --color=WHEN     colour the level names: auto (only on a terminal and
                       when NO_COLOR is not set), always or never
  -r, --reverse        newest first (holds the selected lines in memory)
      --stats          instead of lines: records per program and level, the time
                       span and the damaged bytes skipped (as JSON with --json)
  -q, --quiet          no notes on standard error (damaged bytes, text logs)

Filters (a record must pass all that are given):
      --program=NAME   only records of program NAME (may be repeated)
      --level=LEVEL    only records of LEVEL or above: trace, debug, info, warn,
                       error, fatal, record (any case) or 0 to 6
  -S, --since=TIME     only records at or after TIME
  -U, --until=TIME     only records at or before TIME
                       TIME: YYYY-MM-DD[ HH:MM[:SS[.ffffff]]] ('T' may replace
                       the blank), HH:MM[:SS] (today), now, today, yesterday,
                       tomorrow, or relative to now: -15min, -2h, -1d, +30s,
                       -1h30min (units us, ms, s, m or min, h, d, w)
      --tag=TAG        only records with tag TAG (may be repeated)
      --grep=TEXT      only records whose function, tag or content contains TEXT
                       (plain text, case sensitive)
  -n, --lines=N        only the last N records that pass the filters (with -f,
                       then every new one; with -r, the last N newest first)
  -f, --follow         after the existing records wait for new ones, like
                       tail -f; every file of the rolled set is read as it
                       appears, however often the log rolls meanwhile

Forwarding to a syslog collector (RFC 5424 messages; the filters apply):
      --forward=URL    send every record to URL: tcp://HOST:PORT (octet-counted,
                       RFC 6587), tls://HOST:PORT (RFC 5425), udp://HOST:PORT or
                       relp://HOST:PORT (acknowledged); without -f zmlog exits
                       once everything was taken, with -f it keeps following
  -o syslog            print those messages instead, one a line
      --cursor-file=PATH  start after the last record delivered, as PATH
                       records it, and keep it up to date
      --tls-ca=FILE    CA certificates that the collector's certificate must
                       come from (tls://, and relp:// in TLS); default: the
                       system's
      --tls-cert=FILE --tls-key=FILE  our certificate, for collectors that ask
      --facility=NAME  kern, user, daemon, ..., local0 (the default) ... local7
      --hostname=NAME  HOSTNAME of the messages (default: this machine's name)

      --version        show the version
  -h, --help           show this text

Records are found by their framing, whatever program wrote them. Damaged bytes
are skipped and counted: one line on standard error says how many, and where.
A file without a single record is printed as it is when it holds text (the
text log of a process without an installation), and is an error otherwise.

Exit status: 0 on success, 1 when an input cannot be read, 2 for a bad command
line, 3 when the input holds no log record and no text.
)";
}

}  // namespace PF::Utils::LOG::zmlog
