// Plumbing shared by the tests: child processes started with a role name as
// argv[0], files, captured output, and a small independent reader of the
// record stream (deliberately not the library's decoder).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "log/LogHead.h"

namespace zmtest {

using namespace std::chrono_literals;

struct ProcessResult {
    int exitCode = -1;  // -1 when killed by a signal
    int signal = 0;
    bool timedOut = false;
    std::string out;
    std::string err;
};

// A running program with argv[0] = role; its stdin is a pipe the test writes
// to, its stdout and stderr are captured. env entries "NAME=value" are added
// to this environment (or replace a variable; "NAME" alone removes it).
class Child {
  public:
    Child(const std::string& program, const std::string& role, const std::vector<std::string>& args,
          const std::vector<std::string>& env = {}, const std::string& cwd = "");
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const { return pid_; }
    void Signal(int sig) const;
    void Send(const std::string& line);  // one line to its stdin
    // Waits for text to be in stdout (times times); false when the deadline
    // passed first.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout = 10s,
                       int times = 1);
    // Waits for the end (SIGKILL after the timeout) and returns everything.
    ProcessResult Wait(std::chrono::milliseconds timeout = 30s);
    const std::string& OutSoFar() const { return out_; }

  private:
    void Pump(int timeoutMs);
    pid_t pid_ = -1;
    int inFd_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    bool reaped_ = false;
    ProcessResult result_;
};

ProcessResult Run(const std::string& program, const std::string& role,
                  const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                  const std::string& cwd = "", std::chrono::milliseconds timeout = 30s);

// The tests' helper program, and zmlog.
std::string HelperPath();
std::string ZmlogPath();

// Polls pred every few milliseconds until it holds or the deadline passes.
bool WaitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout = 10s);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes, bool append = false);
bool Exists(const std::string& path);
// A measured figure, printed as "[ figures  ] text" beside the test's output.
void Figure(const std::string& text);
long FileSize(const std::string& path);  // -1 when missing
// Captures what fn writes to fd 1 or 2 (through dup2).
std::string CaptureFd(int fd, const std::function<void()>& fn);

// Inverts bit 7 of every byte (the archiver's scrambling is its own inverse).
std::string Unscramble(std::string bytes);

// One record of the stream, read field by field.
struct Record {
    PF::Utils::LOG::LogHead head{};
    std::string function;
    std::string program;
    std::string tag;
    std::string content;
};
// Walks well-formed records from the start; stops at the first header whose
// body does not fit. consumed tells how far it got.
std::vector<Record> WalkRecords(const std::string& bytes, size_t* consumed = nullptr);
// Builds one record exactly as the writer lays it out.
std::string MakeRecord(const std::string& function, const std::string& program,
                       const std::string& tag, const std::string& content, unsigned level = 2,
                       unsigned valueType = 0, bool binary = false, unsigned threadId = 4711,
                       long long timeUs = 1700000000123456LL, unsigned component = 0);

// Serialises the tests that use "ZMLOG", "/WriteLOG" and "/ReadLOG" (an
// flock beside them in /dev/shm) and removes leftovers of those names on
// entry and exit. Where the test process has a /dev/shm of its own (see
// TestMain.cpp) the names are its own and nothing waits.
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
