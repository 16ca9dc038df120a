// Finding, ordering, opening and reading the files of a rolled set:
// "RUNTIME.data" is the file being written, "RUNTIME.data_1" the one before
// it, and so on (larger number, older file).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "RecordSource.h"

namespace PF::Utils::LOG::zmlog {

constexpr const char* kDataFileName = "RUNTIME.data";

// An open file of the log, known by its identity.
class InputFile {
  public:
    InputFile() = default;
    InputFile(std::string path, int fd, FileId id) : path_(std::move(path)), fd_(fd), id_(id) {}
    InputFile(InputFile&& other) noexcept { *this = std::move(other); }
    InputFile& operator=(InputFile&& other) noexcept;
    ~InputFile();

    const std::string& Path() const { return path_; }
    int Fd() const { return fd_; }
    const FileId& Id() const { return id_; }
    bool IsOpen() const { return fd_ >= 0; }

  private:
    std::string path_;
    int fd_ = -1;
    FileId id_;
};

// A rolled set: dir/stem is the file being written, dir/stem_1 the one
// before it, and so on.
struct RolledSet {
    std::string dir;
    std::string stem;
};
// The set a file belongs to: "log/RUNTIME.data_3" is of ("log", "RUNTIME.data").
RolledSet RolledSetOf(const std::string& path);

// dir + "/" + name, without doubling a slash.
std::string PathIn(const std::string& dir, const std::string& name);
// The rolled set's files in dir, oldest first. Throws Error when dir cannot
// be read.
std::vector<std::string> ListRolledSet(const std::string& dir,
                                       const std::string& stem = kDataFileName);
// Puts the members of each rolled set (P_N ... P_1, P) oldest first; the
// sets and other files keep the order in which they were first named.
std::vector<std::string> OrderRolledFiles(const std::vector<std::string>& files);
// Opens the files (given oldest first) newest first: a roll that happens
// meanwhile renames an opened file onto a later name, and that file, met
// again, is skipped. With vanishedOk a file that no longer exists is skipped;
// any other failure throws Error. Returns them oldest first.
std::vector<InputFile> OpenFiles(const std::vector<std::string>& paths, bool vanishedOk);
// Reads from fd up to its current end into source; returns the bytes read.
// Throws Error.
std::uint64_t ReadToEnd(int fd, const std::string& path, RecordSource& source);

}  // namespace PF::Utils::LOG::zmlog
