#include "RecordFormatter.h"

#include <charconv>

#include "decode/ValueWidth.h"
#include "log/Decode.h"

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr const char* kLevelColors[8] = {"\x1b[2m",  "\x1b[36m",   "\x1b[32m", "\x1b[33m",
                                         "\x1b[31m", "\x1b[1;31m", "\x1b[35m", ""};
constexpr const char* kColorOff = "\x1b[0m";

template <class T>
void AppendNumber(std::string& out, T value) {
    char text[24];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

// Length of a valid UTF-8 sequence at text[i], 0 when there is none.
std::size_t Utf8Length(std::string_view text, std::size_t i) {
    const auto b = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const auto cont = [&](std::size_t k) { return i + k < text.size() && (b(k) & 0xC0) == 0x80; };
    const unsigned char c = b(0);
    if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        if (!cont(1) || !cont(2)) return 0;
        if (c == 0xE0 && b(1) < 0xA0) return 0;   // overlong
        if (c == 0xED && b(1) >= 0xA0) return 0;  // surrogate
        return 3;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) return 0;
        if (c == 0xF0 && b(1) < 0x90) return 0;   // overlong
        if (c == 0xF4 && b(1) >= 0x90) return 0;  // above U+10FFFF
        return 4;
    }
    return 0;
}

}  // namespace

void AppendLevelName(std::string& out, unsigned level) {
    const auto it = gLevelMap.find(static_cast<int>(level));
    if (it != gLevelMap.end()) out += it->second;
}

void AppendJsonString(std::string& out, std::string_view text) {
    static const char kHex[] = "0123456789abcdef";
    out.push_back('"');
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t run = i;
        while (run < text.size()) {
            const auto c = static_cast<unsigned char>(text[run]);
            if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\') break;
            ++run;
        }
        out.append(text.data() + i, run - i);
        i = run;
        if (i == text.size()) break;
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            const std::size_t n = Utf8Length(text, i);
            if (n == 0) {
                out.append("\xEF\xBF\xBD");
                ++i;
            } else {
                out.append(text.data() + i, n);
                i += n;
            }
            continue;
        }
        switch (c) {
            case '"':
                out.append("\\\"");
                break;
            case '\\':
                out.append("\\\\");
                break;
            case '\n':
                out.append("\\n");
                break;
            case '\r':
                out.append("\\r");
                break;
            case '\t':
                out.append("\\t");
                break;
            case '\b':
                out.append("\\b");
                break;
            case '\f':
                out.append("\\f");
                break;
            default:
                out.append("\\u00");
                out.push_back(kHex[c >> 4]);
                out.push_back(kHex[c & 0x0F]);
        }
        ++i;
    }
    out.push_back('"');
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
    char* body = Body(r);
    char* content = body + (r.content.data() - r.body);
    return ParseLogContent(r.head.flags, r.head.valueType, content, r.head.contentLen);
}

void RecordFormatter::Append(WalkedRecord& r, std::string& out) {
    if (json_) {
        AppendJson(r, out);
    } else {
        AppendText(r, out);
    }
}

void RecordFormatter::AppendText(WalkedRecord& r, std::string& out) {
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
        const auto name = gLevelMap.find(static_cast<int>(level));
        if (second != std::string::npos && second < end && name != gLevelMap.end() &&
            line.compare(second + 1, name->second.size(), name->second) == 0) {
            out.append(line, 0, second + 1).append(kLevelColors[level]).append(name->second);
            out.append(kColorOff);
            from = second + 1 + name->second.size();
        }
    }
    if (end > from) out.append(line, from, end - from);
    // A binary record's hex dump already ends its line.
    if (end == 0 || line[end - 1] != '\n') out.push_back('\n');
}

void RecordFormatter::AppendJson(WalkedRecord& r, std::string& out) {
    static const char kHex[] = "0123456789abcdef";
    const bool binary = (r.head.flags & kBinaryFlag) != 0;
    out.append("{\"time\":\"");
    clock_.AppendIso(r.head.timeUs, out);
    out.append("\",\"time_us\":");
    AppendNumber(out, r.head.timeUs);
    out.append(",\"thread\":");
    AppendNumber(out, r.head.threadId);
    out.append(",\"level\":\"");
    AppendLevelName(out, r.head.flags & 7U);
    out.append("\",\"program\":");
    AppendJsonString(out, r.program);
    out.append(",\"function\":");
    AppendJsonString(out, r.function);
    out.append(",\"tag\":");
    AppendJsonString(out, r.tag);
    out.append(",\"content\":");
    if (binary) {
        // Raw bytes as one plain hex string: easier for shippers than the dump.
        out.push_back('"');
        for (char c : r.content) {
            const auto b = static_cast<unsigned char>(c);
            out.push_back(kHex[b >> 4]);
            out.push_back(kHex[b & 0x0F]);
        }
        out.push_back('"');
    } else if (r.head.valueType == 0) {
        AppendJsonString(out, r.content);
    } else {
        AppendJsonString(out, Content(r));
    }
    out.append(",\"component\":");
    AppendNumber(out, r.head.component);
    out.append(binary ? ",\"binary\":true}\n" : ",\"binary\":false}\n");
}

}  // namespace PF::Utils::LOG::zmlog
