// Plumbing shared by the tests: a fresh installation in a temporary
// directory, child processes started with a role name as argv[0], the lock
// around the machine-global shared names, and a small independent reader of
// the record stream (deliberately not the library's decoder).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "log/LogHead.h"

namespace zmtest {

// A fresh installation: <root>/home/conf and <root>/data; the log directory
// is <root>/data/log. Removed with everything in it at destruction.
class TempInstall {
  public:
    TempInstall();
    ~TempInstall();
    TempInstall(const TempInstall&) = delete;
    TempInstall& operator=(const TempInstall&) = delete;

    const std::string& Root() const { return root_; }
    std::string Home() const { return root_ + "/home"; }
    std::string Data() const { return root_ + "/data"; }
    std::string ConfPath() const { return Home() + "/conf/RUNTIMELOG.cfg"; }
    std::string LogDir() const { return Data() + "/log"; }
    std::string DataFile() const { return LogDir() + "/RUNTIME.data"; }

    void WriteConfig(const std::string& text) const;
    // ZM_VELDOR_HOME and ZM_VELDOR_DATA for a child.
    std::vector<std::string> Env() const;
    // The same in this process (restored at destruction).
    void ExportEnv();

  private:
    std::string root_;
    bool exported_ = false;
};

struct ProcessResult {
    int exitCode = -1;  // -1 when killed by a signal
    int signal = 0;
    bool timedOut = false;
    std::string out;
    std::string err;
};

// A running helper program; stdout and stderr are captured.
class Child {
  public:
    // Runs tests' helper `helper` (or a program given by absolute path) with argv[0] = role and the
    // given arguments; env entries ("NAME=value") are added to (or replace) this environment. cwd,
    // when given, is the child's working directory.
    Child(const std::string& helper, const std::string& role, const std::vector<std::string>& args,
          const std::vector<std::string>& env = {}, const std::string& cwd = "");
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const { return pid_; }
    void Signal(int sig) const;
    // Waits up to timeout; kills with SIGKILL after it.
    ProcessResult Wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Reads stdout until it contains text (or the deadline passes).
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout);
    const std::string& OutSoFar() const { return out_; }

  private:
    void Pump(int timeoutMs);
    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    bool reaped_ = false;
    ProcessResult result_;
};

ProcessResult RunHelper(const std::string& helper, const std::string& role,
                        const std::vector<std::string>& args,
                        const std::vector<std::string>& env = {},
                        std::chrono::milliseconds timeout = std::chrono::seconds(30),
                        const std::string& cwd = "");

std::string HelperPath(const std::string& helper);

// Polls pred every few milliseconds until it holds or the deadline passes.
bool WaitUntil(const std::function<bool()>& pred,
               std::chrono::milliseconds timeout = std::chrono::seconds(5));

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool Exists(const std::string& path);
long FileSize(const std::string& path);  // -1 when missing

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

// Captures what fn writes to fd 1 or 2 (through dup2).
std::string CaptureFd(int fd, const std::function<void()>& fn);

// Serialises tests that use "ZMLOG", "/WriteLOG" and "/ReadLOG" across
// processes (an flock), and removes leftovers of those names on entry and exit.
class GlobalNamesLock {
  public:
    GlobalNamesLock();
    ~GlobalNamesLock();
    GlobalNamesLock(const GlobalNamesLock&) = delete;
    GlobalNamesLock& operator=(const GlobalNamesLock&) = delete;

  private:
    int fd_ = -1;
};
void RemoveGlobalNames();

}  // namespace zmtest
