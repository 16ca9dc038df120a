#include "VerboseFormat.h"

#include <string_view>

#include "RecordFormatter.h"
#include "TypedValue.h"
#include "log/LogHead.h"

namespace PF::Utils::LOG::zmlog {
namespace {

const char kHex[] = "0123456789abcdef";

void AppendEscaped(std::string& out, std::string_view text) {
    for (const char c : text) {
        const auto b = static_cast<unsigned char>(c);
        if (b >= 0x20 && b < 0x7F && b != '\\') {
            out.push_back(c);
        } else if (b == '\\') {
            out.append("\\\\");
        } else if (b == '\n') {
            out.append("\\n");
        } else if (b == '\t') {
            out.append("\\t");
        } else if (b == '\r') {
            out.append("\\r");
        } else {
            out.append("\\x").append(1, kHex[b >> 4]).append(1, kHex[b & 0x0F]);
        }
    }
}

void Field(std::string& out, const char* name, const std::string& value) {
    out.append(name).append(1, '=').append(value).append(1, '\n');
}

std::string Hex(std::uint32_t value, int digits) {
    std::string text = "0x";
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        text.push_back(kHex[(value >> shift) & 0xF]);
    return text;
}

}  // namespace

void AppendVerboseRecord(const WalkedRecord& r, const std::string& rendered, const char* value,
                         LocalClock& clock, std::string& out) {
    const LogHead& h = r.head;
    const bool binary = (h.flags & kBinaryFlag) != 0;
    out.append("time=");
    clock.AppendIso(h.timeUs, out);
    out.push_back('\n');
    std::string level;
    AppendLevelName(level, h.flags & 7U);
    Field(out, "flags", Hex(h.flags, 4) + " (" + level + (binary ? ", binary)" : ")"));
    Field(out, "programLen", std::to_string(h.programLen));
    Field(out, "functionLen", std::to_string(h.functionLen));
    Field(out, "tagLen", std::to_string(h.tagLen));
    Field(out, "contentLen", std::to_string(h.contentLen));
    Field(out, "valueType", std::to_string(h.valueType) + " (" + TypeName(h.valueType) + ")");
    Field(out, "threadId", std::to_string(h.threadId));
    Field(out, "component", Hex(h.component, 8));
    Field(out, "timeUs", std::to_string(h.timeUs));
    const std::pair<const char*, std::string_view> texts[] = {
        {"function", r.function}, {"program", r.program}, {"tag", r.tag}};
    for (const auto& [name, text] : texts) {
        out.append(name).append(1, '=');
        AppendEscaped(out, text);
        out.push_back('\n');
    }
    out.append("content=");
    if (binary) {
        for (const char c : r.content) {
            const auto b = static_cast<unsigned char>(c);
            out.append(1, kHex[b >> 4]).append(1, kHex[b & 0x0F]);
        }
    } else {
        AppendEscaped(out, h.valueType != 0 ? std::string_view(rendered) : r.content);
    }
    out.push_back('\n');
    if (!binary && h.valueType != 0) {
        out.append("value=");
        AppendTypedNumber(out, h.valueType, value);
        out.push_back('\n');
    }
    out.push_back('\n');
}

}  // namespace PF::Utils::LOG::zmlog
