// Decoding: record content to text, a record to one text line, and buffers of
// records (as read from "RUNTIME.data", unscrambled) to lines per program.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "log/LogHead.h"

namespace PF::Utils::LOG {

// Renders a record's content: hex dump when bit 3 of flags is set, else the
// text (type 0) or the typed value (1..13); type 14 and above give "".
std::string ParseLogContent(unsigned short flags, unsigned int type, char* data, unsigned int len);

// Calendar cache of the line formatters: localtime() runs once per second of
// log time. Shared by the whole process and unguarded: decode on one thread.
struct Timestamp {
    int year;
    int month;
    int day;
    int hour;
    int minute;
    int second;
    long milliseconds;
    long microseconds;
    long cachedSecond;

    static Timestamp instance;
    static void ResetTime(unsigned long timeUs);
};

using LogLineFormatter =
    std::function<std::string(LogHead&, std::string&, std::string&, std::string&)>;

// Level names by level; an unknown level gains an empty row when looked up.
extern std::map<int, std::string>& gLevelMap;
// The line formatter in force (ParseLogLineMillSecond unless replaced).
extern LogLineFormatter& gParseLogFunction;
// Programs whose records the parser accepts. Only grows.
extern std::set<std::string>& gValidProgram;

// "2024-05-17 13:04:59.123|4711|INFO|main|netlink up" (tag and content joined).
std::string ParseLogLineMillSecond(LogHead& head, std::string& function, std::string& tag,
                                   std::string& content);
// The same with a six-digit microsecond fraction.
std::string ParseLogLineMicroSecond(LogHead& head, std::string& function, std::string& tag,
                                    std::string& content);

// Decodes the body that starts offset bytes into buf (head already holds the
// record's header), advances offset past it and stores the program name.
std::string ContructLogLine(LogHead& head, char* buf, unsigned long& offset, std::string& program);

using LinesByProgram = std::map<std::string, std::vector<std::string>>;

// Plausibility test of a header: its programLen equals the length of some
// name in gValidProgram (the name itself is compared once the body is cut).
bool ProgramNameCheck(LogHead& head);
// Accepts the records of one more program from now on.
void AddVaildProgram(const std::string& name);

// Walks a buffer of records into lines per program, resynchronising byte by
// byte over damage; "exist invalid bytes" on stdout once when bytes were
// skipped. A non-empty program is added to gValidProgram first.
//
// Caller beware: the fit test sums the four lengths in 32-bit arithmetic that
// wraps (kept as it always was), so a damaged header with contentLen near 2^32
// can make a record appear to fit, and its body is then read far past len.
// No real record is longer than kMaxRecordLength: before handing damaged or
// untrusted data to either form, check that no 32-byte window the walker may
// land on sums its four lengths to 2^32 or more.
std::uint64_t ParseLogline(LogHead& head, char* buf, unsigned int len, LinesByProgram& lines,
                           std::string program);

// Streaming form: returns (offset where it stopped, true when head holds the
// header of a record whose body starts at that offset and did not fit). Call
// again with headerPending true and buf starting at that offset, holding the
// whole body (it is not fit-tested) and more than 32 bytes (else nothing is
// done). A pending header found after damage may itself be junk: check its
// lengths first. A non-empty program keeps only that program's lines. Same
// 32-bit wrap hazard as above.
std::pair<std::uint64_t, bool> ParseLogline(LogHead& head, char* buf, unsigned int len,
                                            bool headerPending, LinesByProgram& lines,
                                            std::string program);

}  // namespace PF::Utils::LOG
