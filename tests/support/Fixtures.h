// Fixtures named after what a test sets up: a fresh installation, the
// helper program in a role inside it, a runtime, and what reached the log.
#pragma once

#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace zmtest {

// A fresh installation in a temporary directory, removed at the end.
class Installation {
  public:
    static constexpr const char* kConfig = "[log]\nlogActive=true\nlogLevel=trace\n";
    // config "": no configuration file, so processes keep a private log.
    explicit Installation(const std::string& config = kConfig);
    ~Installation();
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    const std::string& Root() const { return root_; }
    std::string Home() const { return root_ + "/home"; }
    std::string Data() const { return root_ + "/data"; }
    std::string ConfPath() const { return Home() + "/conf/RUNTIMELOG.cfg"; }
    std::string LogDir() const { return Data() + "/log"; }
    std::string DataFile() const { return LogDir() + "/RUNTIME.data"; }
    void WriteConfig(const std::string& text) const { WriteFile(ConfPath(), text); }
    void AppendConfig(const std::string& line) const { WriteFile(ConfPath(), line + "\n", true); }
    // The configuration replaced by rename, as editors save it.
    void ReplaceConfig(const std::string& text) const;

    // ZM_VELDOR_HOME and ZM_VELDOR_DATA for a child.
    std::vector<std::string> Env() const;
    // The same in this process, until the end of the test.
    void ExportEnv();

    // The helper program as role, running steps, with the installation's
    // root as its working directory and env added to its environment.
    std::unique_ptr<Child> Start(const std::string& role, const std::vector<std::string>& steps,
                                 const std::vector<std::string>& env = {}) const;
    ProcessResult Run(const std::string& role, const std::vector<std::string>& steps) const;
    // zmlog run in the installation, ZM_VELDOR_HOME unset: it needs only the
    // log directory, and the library must not speak of the rest.
    std::unique_ptr<Child> StartZmlog(const std::vector<std::string>& args) const;
    ProcessResult Zmlog(const std::vector<std::string>& args) const;

    // Plain records appended scrambled to RUNTIME.data (or a rolled one:
    // suffix "_1"...), as the archiver writes them; a roll as it rolls.
    void AppendLog(const std::string& plain, const std::string& suffix = "") const;
    void RollLog() const;

  private:
    GlobalNamesLock names_;  // first: held before anything is created
    std::string root_;
    bool exported_ = false;
};

// The installation's runtime, released (twice: the second finds nothing) on
// request, and checked to end cleanly and silently.
class Runtime {
  public:
    explicit Runtime(const Installation& install);
    ProcessResult Release();
    Child& Process() { return *child_; }

  private:
    std::unique_ptr<Child> child_;
};

// The records of the rolled set, oldest first; from skips that many bytes of
// the current file.
struct DecodedLog {
    explicit DecodedLog(const std::string& dataFile, long from = 0);
    // The seqs of the helper's records of role (its thread t), in log order.
    std::vector<long> Seqs(const std::string& role, unsigned t = 0) const;
    // The contents of the records of function (the library's notices).
    std::vector<std::string> Notices(const std::string& function) const;

    std::vector<std::string> files;
    std::vector<Record> records;
    std::uint64_t damagedBytes = 0;  // not covered by whole records
    std::uint64_t corrupt = 0;       // helper records whose bytes are not what was written
};

// One "logged <n> from <first> dropped <d> max_us <m>[: <seqs>]" line of the
// helper's log step (one per writer thread).
struct Logged {
    long written = 0, first = 0, maxUs = 0;
    std::vector<long> dropped;          // not had the lock within its deadline, and counted
    std::vector<long> Arrived() const;  // the seqs that must reach the log
};
std::vector<Logged> LogReports(const std::string& out);

}  // namespace zmtest
