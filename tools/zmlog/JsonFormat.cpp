#include "JsonFormat.h"

#include <charconv>

#include "RecordFormatter.h"
#include "TypedValue.h"
#include "log/LogHead.h"

namespace PF::Utils::LOG::zmlog {
namespace {

template <class T>
void AppendNumber(std::string& out, T value) {
    char text[24];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

}  // namespace

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

void AppendJsonRecord(const WalkedRecord& r, const std::string& rendered, const char* value,
                      LocalClock& clock, std::string& out) {
    static const char kHex[] = "0123456789abcdef";
    const bool binary = (r.head.flags & kBinaryFlag) != 0;
    const bool typed = !binary && r.head.valueType != 0;
    out.append("{\"time\":\"");
    clock.AppendIso(r.head.timeUs, out);
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
    } else {
        AppendJsonString(out, typed ? std::string_view(rendered) : r.content);
    }
    out.append(",\"type\":\"");
    out.append(binary ? "binary" : TypeName(r.head.valueType));
    out.push_back('"');
    if (typed) {
        out.append(",\"value\":");
        AppendTypedNumber(out, r.head.valueType, value);
    }
    out.append(",\"component\":");
    AppendNumber(out, r.head.component);
    out.append(binary ? ",\"binary\":true}\n" : ",\"binary\":false}\n");
}

}  // namespace PF::Utils::LOG::zmlog
