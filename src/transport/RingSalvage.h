// What a starting runtime recovers from the ring of a runtime that died: the
// records published and not yet taken out, read as untrusted input.
#pragma once

#include <string>
#include <vector>

namespace PF::Utils::LOG {

struct Salvage {
    std::vector<char> bytes;  // whole records, oldest first
    unsigned records = 0;
    bool found = false;    // a ring was left behind
    bool damaged = false;  // its header made no sense: nothing taken
    // The WARN notice record that says what was recovered ("recovered 431
    // records from the previous runtime's ring"); empty when nothing was
    // found or there was nothing to recover.
    std::vector<char> Notice() const;
};

// Reads "ZMLOG" as left behind (if it exists) within the size it has: a
// header whose geometry or indices make no sense is damaged; otherwise the
// unread bytes are taken record by record up to the last complete,
// plausible one.
Salvage SalvageRing();

}  // namespace PF::Utils::LOG
