// Bytes a typed value is read with, by its type code (TypeToNumber), whatever
// the record's contentLen says; 0 for text and unknown codes. Decoders use it
// to give a damaged, too-short value zeros instead of the bytes after it.
#pragma once

#include <cstdint>

namespace PF::Utils::LOG {

inline unsigned ValueWidth(std::uint32_t type) {
    if (type >= 1 && type <= 4) return 1;
    if (type == 5 || type == 6) return 2;
    if (type >= 7 && type <= 9) return 4;
    if (type >= 10 && type <= 13) return 8;
    return 0;
}

}  // namespace PF::Utils::LOG
