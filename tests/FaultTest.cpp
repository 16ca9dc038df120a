// The runtime killed and started again: its writers follow it and lose
// nothing; the new one takes over the old ring's records, or says it cannot.

#include <fstream>

#include "support/Fixtures.h"

using namespace zmtest;

// Five SIGKILLs of the runtime under a writer that never re-attaches by hand,
// and a second writer from the first restart on: every record arrives, in
// order, each restart says what it recovered, one mapping of "ZMLOG" is left.
TEST(Fault, RuntimeKilledAndStartedAgainLosesNothing) {
    Installation install;
    auto runtime = std::make_unique<Runtime>(install);
    auto cell = install.Start("CellEmulation", {"log=0,64,2000", "resources"});
    std::unique_ptr<Child> engine;
    const auto moreArrive = [&] {
        const size_t before = DecodedLog(install.DataFile()).Seqs("CellEmulation").size();
        return WaitUntil([&] {
            return DecodedLog(install.DataFile()).Seqs("CellEmulation").size() > before + 20;
        });
    };
    for (int restart = 0; restart < 5; ++restart) {
        ASSERT_TRUE(moreArrive());
        runtime->Process().Signal(SIGKILL);
        EXPECT_EQ(runtime->Process().Wait().signal, SIGKILL);
        std::this_thread::sleep_for(300ms);  // nobody drains meanwhile
        runtime = std::make_unique<Runtime>(install);
        if (restart == 0) engine = install.Start("EngineEmulation", {"log=300,64,2000"});
    }
    ASSERT_TRUE(moreArrive());
    cell->Send("");
    const auto cellOut = cell->Wait().out;
    const auto engineOut = engine->Wait().out;
    EXPECT_NE(cellOut.find("zmlog 1 "), std::string::npos) << cellOut;
    runtime->Release();

    const DecodedLog log(install.DataFile());
    EXPECT_EQ(log.damagedBytes + log.corrupt, 0U);
    for (const auto& [role, out] :
         {std::pair{"CellEmulation", cellOut}, {"EngineEmulation", engineOut}}) {
        const auto reports = LogReports(out);
        ASSERT_EQ(reports.size(), 1U) << out;
        EXPECT_EQ(log.Seqs(role), reports[0].Arrived()) << role;
        // A record that meets a restart waits 20 ms for the new ring; on a
        // busy machine a new runtime may take longer, and a few are dropped
        // (and counted). A writer that did not follow would lose all.
        EXPECT_LT(reports[0].dropped.size() * 10, size_t(reports[0].written)) << role;
        Figure("%s: %ld written, %zu dropped by the lock's deadline", role, reports[0].written,
               reports[0].dropped.size());
    }
    const auto notices = log.Notices("SalvageRing");
    EXPECT_EQ(notices.size(), 5U);
    for (const auto& n : notices) EXPECT_EQ(n.rfind("recovered ", 0), 0U) << n;
}

// The next runtime writes the newest records of an overflowed ring first; of a
// ring whose header makes no sense it recovers nothing, says so, and runs.
TEST(Fault, NewRuntimeRecoversTheNewestRecordsOrNothingOfADamagedRing) {
    Installation install;
    std::make_unique<Runtime>(install)->Process().Signal(SIGKILL);
    ASSERT_EQ(install.Run("CellEmulation", {"log=30000,1000"}).exitCode, 0);  // 30 MB into 8 MiB
    {
        Runtime runtime(install);
        ASSERT_TRUE(WaitUntil([&] {  // the notice comes last
            return !DecodedLog(install.DataFile()).Notices("SalvageRing").empty();
        }));
        runtime.Process().Signal(SIGKILL);
    }
    const DecodedLog recovered(install.DataFile());
    const auto seqs = recovered.Seqs("CellEmulation");
    ASSERT_FALSE(seqs.empty());
    EXPECT_EQ(recovered.corrupt, 0U);
    EXPECT_EQ(seqs.back(), 29999);
    EXPECT_EQ(seqs.back() - seqs.front() + 1, long(seqs.size()));  // newest, none missing
    // The notice follows the records recovered.
    const auto notice = std::find_if(recovered.records.begin(), recovered.records.end(),
                                     [](const Record& r) { return r.function == "SalvageRing"; });
    ASSERT_NE(notice, recovered.records.end());
    EXPECT_EQ(notice->content, "recovered " + std::to_string(notice - recovered.records.begin()) +
                                   " records from the previous runtime's ring");

    {  // the ring's mask and capacity written over with junk, its size kept
        std::fstream ring("/dev/shm/ZMLOG", std::ios::in | std::ios::out | std::ios::binary);
        ring.seekp(16).write("\x5a\x5a\x5a\x5a\x5a\x5a\x5a\x5a", 8);
    }
    const long cutAt = FileSize(install.DataFile());
    Runtime runtime(install);
    ASSERT_TRUE(WaitUntil([&] { return !DecodedLog(install.DataFile(), cutAt).records.empty(); }));
    runtime.Release();
    EXPECT_EQ(DecodedLog(install.DataFile(), cutAt).records.at(0).content,
              "the previous runtime's ring was damaged: nothing recovered");
}
