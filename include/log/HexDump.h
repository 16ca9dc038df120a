// Hex dump of raw record contents: 16 bytes a line, numbered lines, a hex
// column and a text column.
//
//   0000  41-42-43-44 45-46-47-48 49-4a-4b-4c 4d-4e-4f-50  ABCDEFGHIJKLMNOP
//
// Inline so that every user gets its own copy.
#pragma once

#include <cctype>
#include <cstdio>
#include <string>

namespace PF::Utils::LOG {

// One line of the dump. hex holds "-xx" per byte (a short last line padded
// with blanks to 48 characters); it is rewritten in place: the leading dash
// goes and the dashes after every fourth byte become group separators.
inline std::string Format(std::string& hex, std::string& text, int lineNumber) {
    if (hex.empty()) return std::string();
    hex.erase(0, 1);
    for (std::string::size_type i = 11; i < hex.size(); i += 12) hex[i] = ' ';

    // Line numbers are upper case while byte values are lower case, on purpose.
    static const char kUpper[] = "0123456789ABCDEF";
    std::string number;
    for (unsigned n = lineNumber >= 1 ? static_cast<unsigned>(lineNumber) : 0U; n != 0; n /= 16) {
        number.insert(number.begin(), kUpper[n % 16]);
    }
    while (number.size() < 4) number.insert(number.begin(), '0');

    char line[100] = {};
    std::snprintf(line, sizeof line, "%s  %s  %s\n", number.c_str(), hex.c_str(), text.c_str());
    return std::string(line);
}

// The whole dump: a leading newline, then one Format() line per 16 bytes.
inline std::string StringToHex(const std::string& data) {
    static const char kLower[] = "0123456789abcdef";
    std::string out("\n");
    out.reserve(1 + (data.size() + 15) / 16 * 72);
    std::string hex;
    std::string text;
    hex.reserve(48);
    text.reserve(16);
    int line = 0;
    for (char c : data) {
        const auto b = static_cast<unsigned char>(c);
        hex.push_back('-');
        hex.push_back(kLower[b >> 4]);
        hex.push_back(kLower[b & 0x0F]);
        text.push_back(std::isprint(b) ? static_cast<char>(b) : '.');
        if (text.size() == 16) {
            out += Format(hex, text, line);
            hex.clear();
            text.clear();
            ++line;
        }
    }
    if (!hex.empty()) {
        hex.resize(48, ' ');
        out += Format(hex, text, line);
    }
    return out;
}

}  // namespace PF::Utils::LOG
