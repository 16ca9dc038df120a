// Rolling of one output file and its numbered predecessors.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace PF::Utils::LOG {

// One roll of the set P, P_1, ..., P_(max-1), called with P closed:
//
//     P -> P_1 -> P_2 -> ... -> P_(max-1) -> removed
//
// rollIndex is the caller's count of the oldest rolled file after this roll;
// the caller raises it before the call, and it is lowered again here once the
// set is full. With max 1 the single file is deleted and the log starts over
// empty (by design). A failed rename is reported once per call; the roll still
// counts as done. Always true.
inline bool RollFile(const std::string& path, int& rollIndex, int maxRollNumber) {
    int k = rollIndex;
    if (k >= maxRollNumber) {
        const std::string victim = maxRollNumber == 1 ? path : path + "_" + std::to_string(k - 1);
        // A failure is harmless: the first rename below overwrites the victim.
        std::remove(victim.c_str());
        rollIndex = k - 1;
        k = k - 1;
    }
    if (k < 1) return true;

    int savedErrno = 0;
    // Oldest first, so no rename overwrites a file still to be moved.
    for (int j = k; j >= 1; --j) {
        const std::string source = j > 1 ? path + "_" + std::to_string(j - 1) : path;
        const std::string target = path + "_" + std::to_string(j);
        if (std::rename(source.c_str(), target.c_str()) != 0) savedErrno = errno;
    }
    if (savedErrno != 0) {
        std::fprintf(stderr, "Rename Fail errno msg: %s\n", std::strerror(savedErrno));
        std::fflush(stderr);
    }
    return true;
}

}  // namespace PF::Utils::LOG
