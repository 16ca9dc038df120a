// -f: keeps reading a rolled set as it grows, like tail -f, without losing a
// file to a roll. The file being read is held open and known by its identity
// (device and inode), not by its name: when "RUNTIME.data" is no longer that
// file, what was appended to it is read to its end from the descriptor, and
// then every file of the set that came after it, oldest first, from its
// start, however many rolls happened between two reads (a follower whose
// output blocked, or that was stopped, still reads every file):
//
//   read:   RUNTIME.data (inode 7)
//   later:  RUNTIME.data_2 (7), RUNTIME.data_1 (8), RUNTIME.data (9)
//   reads:  the rest of 7, then 8, then 9
#pragma once

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "LogFiles.h"
#include "RecordSource.h"

namespace PF::Utils::LOG::zmlog {

class Follower {
  public:
    // current: the newest file read so far, read to its end (or not open
    // when there was none); older: the identities of the files read before.
    Follower(RolledSet set, InputFile current, std::vector<FileId> older, RecordSource& source);
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    // Reads what is new. Throws Error when a file cannot be read.
    void Step();
    // Steps every 100 ms until stop is set; afterStep runs after each step.
    void Run(const volatile std::sig_atomic_t& stop, const std::function<void()>& afterStep);

  private:
    void Drain();
    void ReadNewFiles();
    bool Older(const FileId& id) const;

    RolledSet set_;
    std::string path_;  // the set's newest name
    InputFile current_;
    std::uint64_t pos_ = 0;
    std::vector<FileId> older_;
    RecordSource& source_;
};

}  // namespace PF::Utils::LOG::zmlog
