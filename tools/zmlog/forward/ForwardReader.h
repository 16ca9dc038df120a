// Reads a rolled set for forwarding, a piece at a time, as fast as the
// collector takes it (tail -f reads everything at once; a forwarder may lag
// far behind). Every file of the set it has still to read is held open, so
// a roll only renames what it holds and the archiver's deletion of the
// oldest file takes nothing away while the forwarder still needs it. To
// keep the disk from filling behind a collector that stays away, it holds
// at most kHeldGone deleted files: beyond that the oldest is given up and
// its unread records are counted as lost.
//
//   set:   RUNTIME.data_2 (7)  RUNTIME.data_1 (8)  RUNTIME.data (9)
//   held:  7 (reading, at offset 4096), 8, 9
//   roll:  7 deleted, still held; 8 -> _2, 9 -> _1, new RUNTIME.data (10) held too
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "LogFiles.h"
#include "RecordSource.h"

namespace PF::Utils::LOG::zmlog {

class ForwardReader {
  public:
    ForwardReader(RolledSet set, RecordSource& source) : set_(std::move(set)), source_(source) {}
    ForwardReader(const ForwardReader&) = delete;
    ForwardReader& operator=(const ForwardReader&) = delete;

    // Starts at the record at `from` (the cursor's record, read again for the
    // caller to skip), or at the oldest file when from is null. Returns false
    // when from's file is no longer in the set: reading starts at the oldest.
    // Throws Error.
    bool Start(const RecordPos* from);
    // Reads the next piece into the source. false: nothing new for now.
    // Throws Error.
    bool ReadSome();
    // Opens the files the log created since the last look, and gives up
    // deleted files beyond the limit; returns the records given up.
    std::uint64_t Watch();

  private:
    struct Held {
        InputFile file;
        std::uint64_t from = 0;  // where reading starts
        bool begun = false;      // its bytes are being fed to the source
    };
    bool Known(const FileId& id) const;
    std::uint64_t GiveUpOldest();

    RolledSet set_;
    RecordSource& source_;
    std::deque<Held> held_;     // oldest first; the front is being read
    std::vector<FileId> done_;  // read to the end and closed, still in the set
};

}  // namespace PF::Utils::LOG::zmlog
