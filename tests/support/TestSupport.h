// Plumbing shared by the tests: child processes started with a role name as
// argv[0], files, captured output, and records built and walked; and the
// standard headers every test uses.
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log/LogHead.h"

namespace zmtest {

using namespace std::chrono_literals;

struct ProcessResult {
    int exitCode = -1;  // -1 when killed by a signal
    int signal = 0;
    std::string out;
    std::string err;
};

// A program run with argv[0] = role, stdin from the test, stdout and stderr
// captured; env entries "NAME=value" are set, "NAME" unset.
class Child {
  public:
    Child(const std::string& program, const std::string& role, const std::vector<std::string>& args,
          const std::vector<std::string>& env = {}, const std::string& cwd = "");
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const { return pid_; }
    void Signal(int sig) const { kill(pid_, sig); }
    void Send(const std::string& line);  // one line to its stdin
    // Waits for text to be in stdout; false when the deadline passed first.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout = 10s);
    // Waits for the end (SIGKILL after the timeout) and returns everything.
    ProcessResult Wait(std::chrono::milliseconds timeout = 30s);
    const std::string& OutSoFar() const { return out_; }

  private:
    void Pump(int timeoutMs);
    pid_t pid_ = -1;
    int fds_[3] = {-1, -1, -1};  // its stdin, stdout, stderr
    std::string out_, err_;
    bool reaped_ = false;
    ProcessResult result_;
};

// The tests' helper program, and zmlog.
std::string HelperPath();
std::string ZmlogPath();

// Polls pred every few milliseconds until it holds or the deadline passes.
bool WaitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout = 10s);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes, bool append = false);
bool Exists(const std::string& path);
long FileSize(const std::string& path);  // -1 when missing
std::vector<std::string> Lines(const std::string& text);
// A measured figure, printed as "[ figures  ] <text>" beside the test's output.
__attribute__((format(printf, 1, 2))) void Figure(const char* format, ...);
// Captures what fn writes to fd 1 or 2 (through dup2).
std::string CaptureFd(int fd, const std::function<void()>& fn);

// Inverts bit 7 of every byte (the archiver's scrambling is its own inverse).
std::string Unscramble(std::string bytes);

// One record of the stream.
struct Record {
    PF::Utils::LOG::LogHead head{};
    std::string function, program, tag, content;
};
// The records of a stream as the readers of the log walk it: damaged bytes
// are skipped, and counted in skipped.
std::vector<Record> WalkRecords(const std::string& bytes, std::uint64_t* skipped = nullptr);
// Builds one record exactly as the writer lays it out.
std::string MakeRecord(const std::string& function, const std::string& program,
                       const std::string& tag, const std::string& content, unsigned level = 2,
                       unsigned valueType = 0, bool binary = false, unsigned threadId = 4711,
                       long long timeUs = 1700000000123456LL, unsigned component = 0);

// A helper record: "<role>-<seq>[/<t>]" filled to size with letters that
// depend on all four, so that no record cut or mixed reads back as one.
inline std::string SeqContent(const std::string& role, unsigned t, unsigned long seq,
                              std::size_t size) {
    std::string text = role + "-" + std::to_string(seq) + (t ? "/" + std::to_string(t) : "");
    std::uint64_t x = ((std::uint64_t{t} << 48) ^ (std::uint64_t{size} << 24) ^ seq) + 1;
    x = (x ^ (x >> 31)) * 0x9E3779B97F4A7C15ULL;
    if (text.size() < size) text.push_back(' ');
    while (text.size() < size) text.push_back(static_cast<char>('a' + (x + text.size()) % 26));
    return text;
}

// Serialises the tests that use the shared names where the test process has
// no /dev/shm of its own, and removes leftovers of them.
class GlobalNamesLock {
  public:
    GlobalNamesLock();
    ~GlobalNamesLock();
    GlobalNamesLock(const GlobalNamesLock&) = delete;
    GlobalNamesLock& operator=(const GlobalNamesLock&) = delete;

  private:
    int fd_ = -1;
};

}  // namespace zmtest
