// The cursor file: where forwarding stands, so a restart of either side
// neither skips nor repeats more than it must. It names the last record
// delivered by its file's identity and its offset there, in three lines:
//
//   zmlog-cursor 1
//   file 2049:131077
//   offset 4096
//
// It is replaced atomically (a temporary file, fsync, rename, fsync of the
// directory), so a crash leaves the old cursor or the new one, never half.
#pragma once

#include <string>

#include "RecordSource.h"

namespace PF::Utils::LOG::zmlog {

enum class CursorState { kMissing, kValid, kDamaged };

// Reads the cursor at path into pos. kDamaged also for an empty file;
// problem then says what is wrong. Throws Error when the file exists but
// cannot be read.
CursorState ReadCursor(const std::string& path, RecordPos& pos, std::string& problem);
// Throws Error.
void WriteCursor(const std::string& path, const RecordPos& pos);

}  // namespace PF::Utils::LOG::zmlog
