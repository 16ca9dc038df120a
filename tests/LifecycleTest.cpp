// Process roles with real processes, each in its own installation: what a
// process becomes at load, the runtime's start and release, live changes of
// the level, and a clean unload.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "log/ZMRuntimeLog.h"
#include "support/TestSupport.h"

using namespace std::chrono_literals;

// valgrind cannot run a program built with a sanitizer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZMLOG_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZMLOG_SANITIZED 1
#endif
#endif
using zmtest::Child;

namespace {

constexpr const char* kHelper = "RoleProbe";

class Lifecycle : public ::testing::Test {
  protected:
    void WithConfig(const std::string& extra = "") {
        install.WriteConfig("[log]\nlogActive=true\nlogLevel=trace\n" + extra);
    }
    std::string Flag() const { return install.Root() + "/release"; }
    void Release(Child& runtime) {
        zmtest::WriteFile(Flag(), "");
        ASSERT_TRUE(runtime.WaitForOutput("released", 10s)) << runtime.OutSoFar();
    }
    // "up=<0|1> ring=<0|1> threads=<names>" of a process started as role.
    std::string Probe(const std::string& role) {
        auto r = zmtest::RunHelper(kHelper, role, {"probe"}, install.Env(), 30s, install.Root());
        return r.out.substr(0, r.out.find('\n'));
    }

    zmtest::GlobalNamesLock names;
    zmtest::TempInstall install;
};

}  // namespace

TEST_F(Lifecycle, RuntimeWaitsForStartRuntimeLog) {
    WithConfig();
    // The configuration file is looked at only by StartRuntimeLog.
    EXPECT_EQ(Probe("ZMRuntime"), "up=1 ring=0 threads=RoleProbe");
    EXPECT_FALSE(zmtest::Exists("/dev/shm/ZMLOG"));
}

TEST_F(Lifecycle, ProcessWithoutInstallationRunsItsOwnArchiver) {
    EXPECT_EQ(Probe("SomeTool"), "up=1 ring=1 threads=RoleProbe,ShmReadToBinary");
    EXPECT_FALSE(zmtest::Exists("/dev/shm/ZMLOG"));
}

TEST_F(Lifecycle, ProcessWithInstallationBecomesAWriterWithoutThreads) {
    WithConfig();
    EXPECT_EQ(Probe("CellEmulation"), "up=0 ring=0 threads=RoleProbe");  // no runtime yet: silent
}

// A runtime that crashed leaves its semaphores and segment behind; the next
// one replaces them. Three writers then log at once (one loaded before the
// runtime, attaching later) and every record reaches RUNTIME.data in order,
// closed by the runtime's release notice.
TEST_F(Lifecycle, EndToEndThroughTheRuntime) {
    WithConfig();
    const int kCount = 2000;
    Child late(kHelper, "BusBridge", {"late", Flag() + ".go", std::to_string(kCount)},
               install.Env());
    ASSERT_TRUE(late.WaitForOutput("silent", 10s));
    {
        Child crashed(kHelper, "ZMRuntime", {"runtime", Flag() + ".never"}, install.Env());
        ASSERT_TRUE(crashed.WaitForOutput("started", 10s));
        Child holder("TransportWriter", "CellEmulation", {"hold"}, install.Env());
        ASSERT_TRUE(holder.WaitForOutput("locked", 10s));
        crashed.Signal(SIGKILL);
        holder.Signal(SIGKILL);
    }
    ASSERT_TRUE(zmtest::Exists("/dev/shm/ZMLOG"));
    Child runtime(kHelper, "ZMRuntime", {"runtime", Flag()}, install.Env());
    ASSERT_TRUE(runtime.WaitForOutput("started", 10s));
    EXPECT_EQ(PF::Utils::LOG::GetWriteSemStatus(), -1);  // not opened in this process

    Child a(kHelper, "CellEmulation", {"write", std::to_string(kCount)}, install.Env());
    Child b(kHelper, "EngineEmulation", {"write", std::to_string(kCount)}, install.Env());
    zmtest::WriteFile(Flag() + ".go", "");
    for (Child* w : {&a, &b, &late}) {
        auto r = w->Wait(30s);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_NE(r.out.find("done"), std::string::npos) << r.out;
    }
    EXPECT_NE(late.OutSoFar().find("attached"), std::string::npos);
    Release(runtime);
    EXPECT_NE(runtime.OutSoFar().find("released 1 0"), std::string::npos) << runtime.OutSoFar();
    EXPECT_EQ(runtime.Wait().exitCode, 0);
    EXPECT_FALSE(zmtest::Exists("/dev/shm/ZMLOG"));
    EXPECT_FALSE(zmtest::Exists("/dev/shm/sem.WriteLOG"));

    const auto records =
        zmtest::WalkRecords(zmtest::Unscramble(zmtest::ReadFile(install.DataFile())));
    ASSERT_FALSE(records.empty());
    std::map<std::string, int> next;
    for (size_t i = 0; i + 1 < records.size(); ++i) {
        const auto& r = records[i];
        ASSERT_EQ(r.content, r.program + "-" + std::to_string(next[r.program])) << i;
        ++next[r.program];
    }
    EXPECT_EQ(next["CellEmulation"], kCount);
    EXPECT_EQ(next["EngineEmulation"], kCount);
    EXPECT_EQ(next["BusBridge"], kCount);
    const auto& notice = records.back();
    EXPECT_EQ(notice.program, "ZMRuntime");
    EXPECT_EQ(notice.function, "CloseReadThreadAndResource");
    EXPECT_EQ(notice.tag, "RingHead Deconstruction");
    EXPECT_EQ(notice.content, " RingHead Set Nullptr");
    EXPECT_EQ(notice.head.flags, 2);
}

namespace {
// A writer process waiting for the shared header's level to become `level`
// while `change` runs; true when it saw it.
bool WriterSeesLevel(const zmtest::TempInstall& install, int level,
                     const std::function<void()>& change) {
    Child watcher(kHelper, "CellEmulation", {"wait-level", std::to_string(level)}, install.Env());
    if (!watcher.WaitForOutput("waiting", 10s)) return false;
    change();
    return watcher.Wait(10s).out.find("level " + std::to_string(level)) != std::string::npos;
}
}  // namespace

TEST_F(Lifecycle, LevelSetByOneWriterIsSeenByAnother) {
    WithConfig();
    Child runtime(kHelper, "ZMRuntime", {"runtime", Flag()}, install.Env());
    ASSERT_TRUE(runtime.WaitForOutput("started", 10s));
    EXPECT_TRUE(WriterSeesLevel(install, 3, [&] {
        zmtest::RunHelper(kHelper, "BusBridge", {"setlevel", "3"}, install.Env());
    }));
    Release(runtime);
}

// Edits of the configuration file reach every writer through the shared
// header, also after the file was replaced by rename.
TEST_F(Lifecycle, ConfigurationEditsReachTheSharedHeader) {
    WithConfig();
    Child runtime(kHelper, "ZMRuntime", {"runtime", Flag()}, install.Env());
    ASSERT_TRUE(runtime.WaitForOutput("started", 10s));
    auto append = [&](const std::string& line) {
        std::ofstream(install.ConfPath(), std::ios::app) << line << "\n";
    };
    EXPECT_TRUE(WriterSeesLevel(install, 4, [&] { append("logLevel=error"); }));
    const std::string replacement = install.ConfPath() + ".new";
    zmtest::WriteFile(replacement, "[log]\nlogLevel=warn\n");
    EXPECT_TRUE(WriterSeesLevel(install, 3, [&] {
        ASSERT_EQ(rename(replacement.c_str(), install.ConfPath().c_str()), 0);
    }));
    // The new file is still watched after the rename.
    EXPECT_TRUE(WriterSeesLevel(install, 5, [&] { append("logLevel=fatal"); }));
    Release(runtime);
}

TEST_F(Lifecycle, BindingTheArchiverToAMissingCpuIsReported) {
    auto r = zmtest::RunHelper(kHelper, "SomeTool", {"bind", "2000"}, install.Env(), 30s,
                               install.Root());
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err, "pthread_setaffinity_np error\n");
}

// A process without an installation that simply returns from main: its
// "<program>.log" ends with the release notice, formatted while every table
// of the library is still alive; under valgrind the same exit shows no
// invalid access and nothing definitely lost.
TEST_F(Lifecycle, PrivateLogEndsWithTheReleaseNotice) {
    const std::string notice =
        "|INFO|CloseReadThreadAndResource|RingHead Deconstruction RingHead Set Nullptr\n";
    auto r =
        zmtest::RunHelper(kHelper, "SomeTool", {"up-log", "3"}, install.Env(), 30s, install.Root());
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string log = zmtest::ReadFile(install.Root() + "/SomeTool.log");
    EXPECT_NE(log.find("|INFO|main|seqSomeTool-2\n"), std::string::npos) << log;
    ASSERT_GT(log.size(), notice.size());
    EXPECT_EQ(log.substr(log.size() - notice.size()), notice) << log;

    if (!zmtest::Exists("/usr/bin/valgrind")) GTEST_SKIP() << "valgrind not installed";
#ifdef ZMLOG_SANITIZED
    GTEST_SKIP() << "built with a sanitizer";
#endif
    r = zmtest::RunHelper(
        "/usr/bin/valgrind", "/usr/bin/valgrind",
        {"--error-exitcode=99", "--leak-check=full", "--errors-for-leak-kinds=definite", "-q",
         zmtest::HelperPath(kHelper), "up-log", "3"},
        install.Env(), 60s, install.Root());
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::string underValgrind = zmtest::ReadFile(install.Root() + "/RoleProbe.log");
    EXPECT_NE(underValgrind.find(notice), std::string::npos) << underValgrind;
}

TEST_F(Lifecycle, UnloadLeavesNoThreadBehind) {
    // Without an installation (archiver thread) and as a writer of a runtime.
    for (bool writer : {false, true}) {
        std::unique_ptr<Child> runtime;
        if (writer) {
            WithConfig();
            runtime = std::make_unique<Child>(
                kHelper, "ZMRuntime", std::vector<std::string>{"runtime", Flag()}, install.Env());
            ASSERT_TRUE(runtime->WaitForOutput("started", 10s));
        }
        auto r = zmtest::RunHelper("DlopenProbe", "DlopenProbe", {ZMLOG_LIBRARY_FILE},
                                   install.Env(), 30s, install.Root());
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        if (!writer) {
            EXPECT_NE(r.out.find("loaded threads=DlopenProbe,ShmReadToBinary"), std::string::npos);
        }
        // Two rounds of load and unload, each ending with the main thread alone.
        const std::string alone = "unloaded threads=DlopenProbe\n";
        const size_t first = r.out.find(alone);
        ASSERT_NE(first, std::string::npos) << r.out;
        EXPECT_NE(r.out.find(alone, first + 1), std::string::npos) << r.out;
        if (runtime) Release(*runtime);
    }
}
