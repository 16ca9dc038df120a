// The records of a log as one stream: the bytes of the files of a rolled set,
// oldest first, unscrambled and walked into records (a record cut by a roll
// is joined). For every record it knows the file it starts in, by identity,
// and its offset there, and it counts the damaged bytes of each file. It
// knows nothing of output: printing, following and forwarding all read
// through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "decode/RecordWalker.h"

namespace PF::Utils::LOG::zmlog {

// A file for good, whatever it is renamed to: device and inode.
struct FileId {
    std::uint64_t dev = 0;
    std::uint64_t ino = 0;
    bool operator==(const FileId& o) const { return dev == o.dev && ino == o.ino; }
    bool operator!=(const FileId& o) const { return !(*this == o); }
};

// Where a record starts, for good: its file's identity and the offset of
// its header there.
struct RecordPos {
    FileId file;
    std::uint64_t offset = 0;
    bool operator==(const RecordPos& o) const { return file == o.file && offset == o.offset; }
};

struct SourceFile {
    std::string path;  // as opened; a roll may have renamed it since
    FileId id;
    std::uint64_t streamStart;  // stream offset of the first byte read from it
    std::uint64_t fileStart;    // that byte's offset in the file
    std::uint64_t damagedBytes = 0;
};

class RecordSource {
  public:
    // offset: where the record's header starts in file.
    using Sink = std::function<void(WalkedRecord&, const SourceFile& file, std::uint64_t offset)>;

    explicit RecordSource(Sink sink);
    RecordSource(const RecordSource&) = delete;
    RecordSource& operator=(const RecordSource&) = delete;

    // The bytes that follow are those of this file, from offset from on.
    void BeginFile(std::string path, FileId id, std::uint64_t from = 0);
    // Room for n bytes as they stand in the file (scrambled); Commit
    // unscrambles and walks the n bytes written there.
    char* Reserve(std::size_t n);
    void Commit(std::size_t n);
    // Plain (unscrambled) bytes.
    void FeedPlain(const char* data, std::size_t n);
    // The end of the stream: an incomplete record held back is damage.
    void EndOfStream();

    std::uint64_t Records() const { return walker_.RecordCount(); }
    std::uint64_t Bytes() const { return streamEnd_; }
    std::uint64_t DamagedBytes() const { return damaged_; }
    // Every file begun, in stream order.
    const std::deque<SourceFile>& Files() const { return files_; }

  private:
    void OnWalked(WalkedRecord& r);
    // Moves at_ to the file that holds the stream offset.
    void Seek(std::uint64_t offset);
    // Counts [accounted_, to) as damage, file by file.
    void Damage(std::uint64_t to);

    RecordWalker walker_;
    RecordWalker::Sink walked_;
    Sink sink_;
    char* reserved_ = nullptr;
    std::deque<SourceFile> files_;
    std::size_t at_ = 0;           // the file that holds stream offset accounted_
    std::uint64_t accounted_ = 0;  // stream bytes before this are records or damage
    std::uint64_t streamEnd_ = 0;
    std::uint64_t damaged_ = 0;
};

}  // namespace PF::Utils::LOG::zmlog
