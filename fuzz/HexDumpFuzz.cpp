// Feeds arbitrary bytes to the hex dump. The first byte picks the form:
// even, StringToHex over the rest, whose dump must read back to the very
// bytes it shows; odd, Format on its own with a hex and a text string it was
// never meant to get (the next byte is the length of hex, then four bytes of
// line number, then hex, then text), which must still build its line
// exactly as printf would.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log/HexDump.h"

using PF::Utils::LOG::Format;
using PF::Utils::LOG::StringToHex;

namespace {

void Require(bool ok) {
    if (!ok) std::abort();
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;  // upper case is for line numbers only
}

// Reads the dump back: line numbers, the byte values with their separators,
// the padding of a short last line and the text column.
void CheckDump(const std::string& data) {
    const std::string dump = StringToHex(data);
    const std::size_t lines = (data.size() + 15) / 16;
    // 4 digits, 2 blanks, 47 hex characters, 2 blanks, the text, a newline.
    Require(dump.size() == 1 + lines * 56 + data.size());
    Require(dump[0] == '\n');
    std::size_t at = 1;
    for (std::size_t line = 0; line < lines; ++line) {
        char number[16];
        std::snprintf(number, sizeof number, "%04zX  ", line);
        Require(dump.compare(at, 6, number) == 0);
        const std::size_t n = std::min<std::size_t>(16, data.size() - line * 16);
        const char* hex = dump.data() + at + 6;
        for (std::size_t i = 0; i < 16; ++i) {
            const char* cell = hex + i * 3;
            if (i < n) {
                const int hi = HexDigit(cell[0]);
                const int lo = HexDigit(cell[1]);
                Require(hi >= 0 && lo >= 0);
                Require(static_cast<unsigned char>(data[line * 16 + i]) == hi * 16 + lo);
            } else {
                Require(cell[0] == ' ' && cell[1] == ' ');
            }
            if (i == 15) break;
            // A dash inside a group of four, a blank between groups and in padding.
            const char sep = i + 1 < n && i % 4 != 3 ? '-' : ' ';
            Require(cell[2] == sep);
        }
        Require(dump.compare(at + 53, 2, "  ") == 0);
        for (std::size_t i = 0; i < n; ++i) {
            const auto b = static_cast<unsigned char>(data[line * 16 + i]);
            Require(dump[at + 55 + i] == (std::isprint(b) ? static_cast<char>(b) : '.'));
        }
        Require(dump[at + 55 + n] == '\n');
        at += 56 + n;
    }
}

void CheckFormat(const std::uint8_t* data, std::size_t size) {
    if (size < 5) return;
    const std::size_t hexLen = std::min<std::size_t>(data[0], size - 5);
    std::int32_t lineNumber;
    std::memcpy(&lineNumber, data + 1, sizeof lineNumber);
    const char* rest = reinterpret_cast<const char*>(data + 5);
    std::string hex(rest, hexLen);
    std::string text(rest + hexLen, size - 5 - hexLen);
    const std::string before = hex;

    const std::string line = Format(hex, text, lineNumber);
    if (before.empty()) {
        Require(line.empty() && hex.empty());
        return;
    }
    // hex loses its leading character and gets a blank at 11, 23, 35, ...
    Require(hex.size() == before.size() - 1);
    for (std::size_t i = 0; i < hex.size(); ++i) {
        Require(hex[i] == (i % 12 == 11 ? ' ' : before[i + 1]));
    }
    char number[16];
    std::snprintf(number, sizeof number, "%04X", lineNumber >= 1 ? lineNumber : 0);
    // %s stops at a zero byte, and the line is cut to 99 characters.
    const std::string whole = std::string(number) + "  " + hex.c_str() + "  " + text.c_str() + "\n";
    Require(line == whole.substr(0, 99));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    if (data[0] % 2 == 0) {
        CheckDump(std::string(reinterpret_cast<const char*>(data + 1), size - 1));
    } else {
        CheckFormat(data + 1, size - 1);
    }
    return 0;
}
