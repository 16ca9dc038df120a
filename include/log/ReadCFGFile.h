// Reader of "RUNTIMELOG.cfg": INI-like lines "key = value" below a
// "[section]" header, ';' or '#' comments. Inline so every user of the
// header gets the same syntax without a call into the library.
#pragma once

#include <cstdio>
#include <fstream>
#include <string>

#include "log/ConfManager.h"

namespace PF::Utils::LOG {

namespace detail {

// Only the space character counts as a blank: tabs and carriage returns are
// part of the text.
inline std::string TrimBlanks(const std::string& text) {
    const auto first = text.find_first_not_of(' ');
    if (first == std::string::npos) return std::string();
    const auto last = text.find_last_not_of(' ');
    return text.substr(first, last - first + 1);
}

}  // namespace detail

// Parses the file at path into ConfManager::mp (insert or overwrite, never
// erase). Key lines count only below a section header with a non-empty name;
// the section name is not part of the key. False when the file cannot be
// opened (with a message unless the path is empty).
inline bool ReadCFGFile(const std::string& path) {
    if (path.empty()) return false;
    std::ifstream in(path);
    if (!in.is_open()) {
        std::fprintf(stderr, "%s not to open\n", path.c_str());
        std::fflush(stderr);
        return false;
    }
    bool inSection = false;
    std::string raw;
    while (std::getline(in, raw)) {
        const std::string line = detail::TrimBlanks(raw);
        if (line.empty()) continue;
        if (ConfManager::sCommentChars.count(line[0]) != 0) continue;
        if (line[0] == '[') {
            const auto close = line.find(']');
            const std::string name =
                close == std::string::npos ? line.substr(1) : line.substr(1, close - 1);
            // "[]" closes the gate again.
            inSection = !name.empty();
            continue;
        }
        if (!inSection || line.find('=') == std::string::npos) continue;
        std::string key;
        std::string value;
        if (ParseKeyAndValue(key, value, line)) ConfManager::mp[key] = value;
    }
    return true;
}

}  // namespace PF::Utils::LOG
