// --output=verbose: every field of a record on a line of its own, "name=value",
// the header's fields by their names in the file, then the body's texts; a
// blank line ends the record. Bytes outside printable ASCII are escaped, so
// each field stays on its line.
#pragma once

#include <string>

#include "LocalClock.h"
#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

// rendered and value as for AppendJsonRecord.
void AppendVerboseRecord(const WalkedRecord& r, const std::string& rendered, const char* value,
                         LocalClock& clock, std::string& out);

}  // namespace PF::Utils::LOG::zmlog
