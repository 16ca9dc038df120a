#include "RecordFormatter.h"

#include <algorithm>
#include <charconv>

#include "JsonFormat.h"
#include "LossNotice.h"
#include "VerboseFormat.h"
#include "decode/ValueWidth.h"
#include "log/Decode.h"

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr const char* kLevelColors[8] = {"\x1b[2m",  "\x1b[36m",   "\x1b[32m", "\x1b[33m",
                                         "\x1b[31m", "\x1b[1;31m", "\x1b[35m", ""};
constexpr const char* kColorOff = "\x1b[0m";
constexpr const char* kGapColor = "\x1b[1;7;31m";  // bold, red, reversed

// Ends the record's text begun at start in out; a binary record's hex dump
// already ends its line.
void EndLine(std::string& out, std::size_t start) {
    if (out.size() == start || out.back() != '\n') out.push_back('\n');
}

}  // namespace

void AppendLevelName(std::string& out, unsigned level) {
    const auto it = gLevelMap.find(static_cast<int>(level));
    if (it != gLevelMap.end()) out += it->second;
}

RecordFormatter::RecordFormatter(const Options& o, bool color)
    : format_(o.output),
      micro_(o.micro),
      color_(color && (o.output == OutputFormat::kShort || o.output == OutputFormat::kPipe)) {
    for (unsigned level = 0; level < 8; ++level) AppendLevelName(levels_[level], level);
    if (format_ == OutputFormat::kPipe && micro_) gParseLogFunction = ParseLogLineMicroSecond;
}

char* RecordFormatter::Body(WalkedRecord& r) {
    if ((r.head.flags & kBinaryFlag) == 0 && r.head.contentLen < ValueWidth(r.head.valueType)) {
        // The decoder reads a typed value at its full width: give a damaged
        // short one zeros rather than the bytes of whatever follows it.
        padded_.assign(r.body,
                       static_cast<std::size_t>(r.content.data() + r.content.size() - r.body));
        padded_.append(8, '\0');
        return padded_.data();
    }
    return r.body;
}

std::string RecordFormatter::Content(WalkedRecord& r) {
    return ParseLogContent(r.head.flags, r.head.valueType, ContentBytes(r), r.head.contentLen);
}

void RecordFormatter::Append(WalkedRecord& r, std::string& out) {
    switch (format_) {
        case OutputFormat::kShort:
        case OutputFormat::kSyslog:  // syslog messages come from the forwarder, not from here
            AppendShort(r, out);
            break;
        case OutputFormat::kPipe:
            AppendPipe(r, out);
            break;
        case OutputFormat::kCat: {
            const std::size_t start = out.size();
            AppendTagAndContent(r, out);
            EndLine(out, start);
            break;
        }
        case OutputFormat::kJson:
        case OutputFormat::kVerbose: {
            const bool typed = (r.head.flags & kBinaryFlag) == 0 && r.head.valueType != 0;
            const std::string rendered = typed ? Content(r) : std::string();
            const char* value = typed ? ContentBytes(r) : nullptr;
            if (format_ == OutputFormat::kJson) {
                AppendJsonRecord(r, rendered, value, clock_, out);
            } else {
                AppendVerboseRecord(r, rendered, value, clock_, out);
            }
            break;
        }
    }
}

void RecordFormatter::AppendLevel(unsigned level, std::string& out) {
    if (color_ && kLevelColors[level][0] != '\0') {
        out.append(kLevelColors[level]).append(levels_[level]).append(kColorOff);
    } else {
        out.append(levels_[level]);
    }
}

// The tag and the content joined, as the library's line has them.
void RecordFormatter::AppendTagAndContent(WalkedRecord& r, std::string& out) {
    out.append(r.tag);
    if ((r.head.flags & kBinaryFlag) == 0 && r.head.valueType == 0) {
        out.append(r.content);
    } else {
        out.append(Content(r));
    }
}

void RecordFormatter::AppendShort(WalkedRecord& r, std::string& out) {
    const std::size_t start = out.size();
    // "time program[thread] LEVEL function: " in one piece: appending field
    // by field costs more than the rest of the line.
    char head[512];
    const unsigned level = r.head.flags & 7U;
    const std::string& name = levels_[level];
    // A gap the log states about itself stands out on a terminal.
    const bool gap = color_ && IsGapNotice(r);
    const bool colored = color_ && !gap && kLevelColors[level][0] != '\0';
    if (gap) out.append(kGapColor);
    if (!colored && r.program.size() + r.function.size() + name.size() + 64 <= sizeof head) {
        char* at = clock_.WritePlain(r.head.timeUs, head, micro_ ? 6 : 3);
        *at++ = ' ';
        at = std::copy(r.program.begin(), r.program.end(), at);
        *at++ = '[';
        at = std::to_chars(at, at + 16, r.head.threadId).ptr;
        *at++ = ']';
        *at++ = ' ';
        at = std::copy(name.begin(), name.end(), at);
        *at++ = ' ';
        at = std::copy(r.function.begin(), r.function.end(), at);
        *at++ = ':';
        *at++ = ' ';
        out.append(head, static_cast<std::size_t>(at - head));
    } else {
        clock_.AppendPlain(r.head.timeUs, out, micro_ ? 6 : 3);
        out.push_back(' ');
        out.append(r.program);
        out.push_back('[');
        out.append(head, std::to_chars(head, head + 16, r.head.threadId).ptr);
        out.append("] ");
        if (colored) {
            AppendLevel(level, out);
        } else {
            out.append(name);
        }
        out.push_back(' ');
        out.append(r.function);
        out.append(": ");
    }
    AppendTagAndContent(r, out);
    if (gap) out.append(kColorOff);
    EndLine(out, start);
}

void RecordFormatter::AppendPipe(WalkedRecord& r, std::string& out) {
    unsigned long offset = 0;
    std::string program;
    const std::string line = ContructLogLine(r.head, Body(r), offset, program);
    // The formatter's fixed-size buffer ends in zero bytes when a field held
    // one: they are not text.
    std::size_t end = line.size();
    while (end > 0 && line[end - 1] == '\0') --end;

    std::size_t from = 0;
    const unsigned level = r.head.flags & 7U;
    if (color_ && kLevelColors[level][0] != '\0') {
        // The level name follows the second '|' (date and thread id hold none).
        const std::size_t first = line.find('|');
        const std::size_t second = first == std::string::npos ? first : line.find('|', first + 1);
        const std::string& name = levels_[level];
        if (second != std::string::npos && second < end &&
            line.compare(second + 1, name.size(), name) == 0) {
            out.append(line, 0, second + 1);
            AppendLevel(level, out);
            from = second + 1 + name.size();
        }
    }
    if (end > from) out.append(line, from, end - from);
    if (end == 0 || line[end - 1] != '\n') out.push_back('\n');
}

}  // namespace PF::Utils::LOG::zmlog
