// -f: keeps reading the newest file as it grows, like tail -f. When the file
// is rolled away (renamed) or deleted and created anew, what was appended to
// the old file is read to its end from the descriptor still open, and then
// the new file, known by its inode, is read from its start.
#pragma once

#include <sys/types.h>

#include <string>

#include "LogReader.h"
#include "OutputSink.h"

namespace PF::Utils::LOG::zmlog {

class Follower {
  public:
    // fd: path opened and read to its end already, or -1 (not there yet).
    Follower(std::string path, int fd, LogReader& reader, OutputSink& out);
    ~Follower();
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    // Returns only by an exception; the process normally ends by a signal.
    [[noreturn]] void Run();
    void Step();

  private:
    void Drain();
    void Open();

    std::string path_;
    int fd_;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    off_t pos_ = 0;
    LogReader& reader_;
    OutputSink& out_;
};

}  // namespace PF::Utils::LOG::zmlog
