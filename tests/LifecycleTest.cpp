// Process roles with real processes: load, start and release, level changes,
// exit, unload, cycles and fork.

#include "support/Fixtures.h"

using namespace zmtest;

TEST(Lifecycle, EachProcessTakesItsRoleAtLoad) {
    const struct {
        const char* role;
        const char* config;
        std::vector<std::string> steps;
        const char* out;
    } cases[] = {
        // The runtime becomes the reader only through StartRuntimeLog.
        {"ZMRuntime", Installation::kConfig, {"probe"}, "up=1 ring=0 threads=LogHelper\n"},
        {"SomeTool", "", {"probe"}, "up=1 ring=1 threads=LogHelper,ShmReadToBinary\n"},
        // A writer with no runtime up yet is silent and starts no thread.
        {"CellEmulation", Installation::kConfig, {"probe"}, "up=0 ring=0 threads=LogHelper\n"},
        // A runtime asking for a private log gets one.
        {"ZMRuntime",
         Installation::kConfig,
         {"start", "private=none.cfg,.", "probe"},
         "started\nconfigured\nup=1 ring=1 threads=LogHelper,ShmReadToBinary\nnone.cfg not to "
         "open\n"},
        // Binding the archiver to a CPU that is not there is reported.
        {"SomeTool", "", {"bind=2000"}, "bound\npthread_setaffinity_np error\n"},
    };
    for (const auto& c : cases) {
        Installation install(c.config);
        const auto r = install.Run(c.role, c.steps);
        EXPECT_EQ(r.out + r.err, c.out) << c.role;
        EXPECT_FALSE(Exists("/dev/shm/ZMLOG"));
    }
}

// After a crashed runtime and a writer dead with the lock, a new runtime and
// three writers (one attaching late): every record arrives in order, then
// the release notice.
TEST(Lifecycle, EndToEndThroughTheRuntime) {
    Installation install;
    auto late = install.Start("BusBridge", {"probe", "wait", "attach", "log=2000"});
    ASSERT_TRUE(late->WaitForOutput("up=0 ring=0"));
    {
        Runtime crashed(install);
        auto holder = install.Start("CellEmulation", {"hold-lock", "wait"});
        ASSERT_TRUE(holder->WaitForOutput("locked"));
        crashed.Process().Signal(SIGKILL);
        holder->Signal(SIGKILL);
    }
    ASSERT_TRUE(Exists("/dev/shm/ZMLOG"));
    Runtime runtime(install);
    auto cell = install.Start("CellEmulation", {"log=2000"});
    auto engine = install.Start("EngineEmulation", {"log=2000"});
    late->Send("");
    const std::pair<std::string, ProcessResult> results[] = {{"CellEmulation", cell->Wait()},
                                                             {"EngineEmulation", engine->Wait()},
                                                             {"BusBridge", late->Wait()}};
    EXPECT_NE(results[2].second.out.find("attached 1"), std::string::npos);
    runtime.Release();
    EXPECT_FALSE(Exists("/dev/shm/ZMLOG"));
    EXPECT_FALSE(Exists("/dev/shm/sem.WriteLOG"));

    const DecodedLog log(install.DataFile());
    EXPECT_EQ(log.damagedBytes + log.corrupt, 0U);
    for (const auto& [role, r] : results) {
        EXPECT_EQ(r.exitCode, 0) << r.out;
        EXPECT_EQ(log.Seqs(role), LogReports(r.out).at(0).Arrived()) << role;
    }
    ASSERT_FALSE(log.records.empty());
    const Record& notice = log.records.back();
    EXPECT_EQ(
        std::to_string(notice.head.flags) + "|" + notice.program + "|" + notice.function + "|" +
            notice.tag + "|" + notice.content,
        "2|ZMRuntime|CloseReadThreadAndResource|RingHead Deconstruction| RingHead Set Nullptr");
}

// Threads that keep logging while main returns, in a writer of a runtime and
// in a process with a private log: no run of 50 dies.
TEST(Lifecycle, ExitWhileThreadsLogNeverCrashes) {
    for (const bool writer : {true, false}) {
        Installation install(writer ? "[log]\nlogLevel=info\n" : "");
        std::unique_ptr<Runtime> runtime;
        if (writer) runtime = std::make_unique<Runtime>(install);
        int died = 0;
        const char* batches = std::getenv("ZMLOG_EXIT_BATCHES");  // fewer under a sanitizer
        for (int batch = 0; batch < (batches != nullptr ? std::atoi(batches) : 10); ++batch) {
            std::vector<std::unique_ptr<Child>> runs;
            for (int i = 0; i < 5; ++i)
                runs.push_back(install.Start("CellEmulation", {"exit-logging=8"}));
            for (auto& run : runs) {
                const auto r = run->Wait();
                died += r.exitCode != 0 || r.signal != 0;
            }
        }
        EXPECT_EQ(died, 0) << (writer ? "writers" : "private logs");
        if (runtime) runtime->Release();
    }
}

// Twenty start/release cycles leave one monitor, one inotify descriptor and
// one mapping; after signals to the monitor, a writer's level and edits of
// the configuration (also by rename) reach every writer.
TEST(Lifecycle, LevelChangesReachEveryWriterAfterManyCyclesAndSignals) {
    Installation install("[log]\nlogLevel=error\n");
    auto runtime = install.Start("ZMRuntime",
                                 {"cycles=20", "resources", "signal-monitor=4", "wait", "release"});
    ASSERT_TRUE(runtime->WaitForOutput("signalled\n")) << runtime->OutSoFar();
    EXPECT_NE(runtime->OutSoFar().find("monitors 1 inotify 1 zmlog 1 "), std::string::npos)
        << runtime->OutSoFar();
    auto watcher = install.Start("CellEmulation", {"wait-level=1", "wait-level=5", "wait-level=3"});
    install.Run("BusBridge", {"level=1"});
    EXPECT_TRUE(watcher->WaitForOutput("level 1\n"));
    install.ReplaceConfig("[log]\nlogLevel=fatal\n");
    EXPECT_TRUE(watcher->WaitForOutput("level 5\n"));
    install.AppendConfig("logLevel=warn");  // the new file is watched
    EXPECT_EQ(watcher->Wait().out, "level 1\nlevel 5\nlevel 3\n");
    runtime->Send("");
    const auto r = runtime->Wait();
    EXPECT_EQ(r.exitCode, 0) << r.err;  // no second archiver on one object, no abort
    EXPECT_EQ(r.err, "");
    // At WARN and above the release writes no notice.
    EXPECT_TRUE(DecodedLog(install.DataFile()).records.empty());
}

// The archiver restarted by an edit runs where the process runs, not pinned
// to the monitor's core (which a one-core machine cannot tell apart).
TEST(Lifecycle, ArchiverStartedByAnEditRunsWhereTheProcessRuns) {
    if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "one core only";
    Installation install("[log]\nlogActive=false\n");
    auto runtime = install.Start("ZMRuntime", {"start", "affinity", "release"});
    ASSERT_TRUE(runtime->WaitForOutput("started\n"));
    install.AppendConfig("logActive=true");
    ASSERT_TRUE(runtime->WaitForOutput("released")) << runtime->OutSoFar();
    char archiver[64] = {}, process[64] = {};
    ASSERT_EQ(std::sscanf(runtime->OutSoFar().c_str(), "started\narchiver %63s process %63s",
                          archiver, process),
              2)
        << runtime->OutSoFar();
    EXPECT_STREQ(archiver, process);
}

// A child forked from a process with a private log while its threads log:
// none hangs, each child's record is in the log, and the log ends with the
// release notice.
TEST(Lifecycle, ChildrenOfAPrivateLogGetALogOfTheirOwn) {
    Installation install("");
    EXPECT_EQ(install.Run("Forker", {"fork=50"}).out, "children 50 hung 0\n");
    const std::string log = ReadFile(install.Root() + "/Forker.log");
    for (int i = 0; i < 50; ++i)
        EXPECT_NE(log.find("|INFO|Fork|forkchild-" + std::to_string(i) + "\n"), std::string::npos)
            << i;
    const std::string notice =
        "|INFO|CloseReadThreadAndResource|RingHead Deconstruction RingHead Set Nullptr\n";
    EXPECT_EQ(log.substr(log.size() - std::min(log.size(), notice.size())), notice) << log;
}
