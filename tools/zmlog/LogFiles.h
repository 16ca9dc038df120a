// Finding, ordering, opening and reading the files of a rolled set:
// "RUNTIME.data" is the file being written, "RUNTIME.data_1" the one before
// it, and so on (larger number, older file).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "LogReader.h"

namespace PF::Utils::LOG::zmlog {

constexpr const char* kDataFileName = "RUNTIME.data";

class InputFile {
  public:
    InputFile(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
    InputFile(InputFile&& other) noexcept : path_(std::move(other.path_)), fd_(other.fd_) {
        other.fd_ = -1;
    }
    InputFile& operator=(InputFile&&) = delete;
    ~InputFile();

    const std::string& Path() const { return path_; }
    int Fd() const { return fd_; }
    int Release();  // hands the descriptor over

  private:
    std::string path_;
    int fd_;
};

// dir + "/" + name, without doubling a slash.
std::string PathIn(const std::string& dir, const std::string& name);
// The rolled set in dir, oldest first. Throws Error when dir cannot be read.
std::vector<std::string> ListRolledSet(const std::string& dir);
// Puts the members of each rolled set (P_N ... P_1, P) oldest first; the
// sets and other files keep the order in which they were first named.
std::vector<std::string> OrderRolledFiles(const std::vector<std::string>& files);
// Opens the files (given oldest first) newest first: a roll that happens
// meanwhile renames an opened file onto a later name, and that file, met
// again, is skipped. With vanishedOk a file that no longer exists is skipped;
// any other failure throws Error. Returns them oldest first.
std::vector<InputFile> OpenFiles(const std::vector<std::string>& paths, bool vanishedOk);
// Reads from fd up to its current end into reader; returns the bytes read.
// Throws Error.
std::uint64_t ReadToEnd(int fd, const std::string& path, LogReader& reader);

}  // namespace PF::Utils::LOG::zmlog
