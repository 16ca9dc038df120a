// Every record a process could not write is reported in the log, exactly
// (a full ring's notices: StressTest); a rate limit costs others nothing.

#include "support/Fixtures.h"
#include "writer/RateLimit.h"

using namespace zmtest;

namespace {

// A program's "lost ..." notices summed by cause: lock busy, ring full, too
// long, rate limited, and the total.
std::vector<unsigned long> LossesOf(const DecodedLog& log, const std::string& program) {
    std::vector<unsigned long> sum(5);
    for (const Record& r : log.records) {
        unsigned long n[5];
        if (r.program != program || r.tag != "zmlog" || r.head.threadId != 0 ||
            std::sscanf(r.content.c_str(),
                        "lost %lu records: lock busy %lu, ring full %lu, too long %lu, rate "
                        "limited %lu, since ",
                        &n[4], &n[0], &n[1], &n[2], &n[3]) != 5)
            continue;
        EXPECT_EQ(n[4], n[0] + n[1] + n[2] + n[3]) << r.content;
        for (int i = 0; i < 5; ++i) sum[i] += n[i];
    }
    return sum;
}

}  // namespace

// The lock held for 200 ms while a writer logs a record a millisecond: the
// notice after it gives exactly the number missing from the writer's stream.
TEST(Loss, ALockHeldAwhileIsReportedExactly) {
    Installation install;
    Runtime runtime(install);
    auto writer = install.Start("CellEmulation", {"log=0,64,1000"});
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(install.Run("BusBridge", {"hold-lock", "sleep=200", "release-lock"}).exitCode, 0);
    std::this_thread::sleep_for(100ms);
    writer->Send("");
    const Logged logged = LogReports(writer->Wait().out).at(0);
    runtime.Release();
    const DecodedLog log(install.DataFile());
    EXPECT_EQ(log.Seqs("CellEmulation"), logged.Arrived());
    EXPECT_GT(logged.dropped.size(), 50U);
    EXPECT_EQ(LossesOf(log, "CellEmulation"),
              (std::vector<unsigned long>{logged.dropped.size(), 0, 0, 0, logged.dropped.size()}));
    Figure("lock held 200 ms: %zu records missing, as many reported", logged.dropped.size());
}

// A flood over its rate limit costs a steady writer nothing, and its notices
// add up to what it lost.
TEST(Loss, AFloodOverItsRateLimitCostsOthersNothing) {
    Installation install(std::string(Installation::kConfig) +
                         "rateLimitBurst=200\nrateLimitIntervalMs=100\n");
    Runtime runtime(install);
    auto flood = install.Start("CellEmulation", {"log=0,200,0"});
    auto steady = install.Start("BusBridge", {"log=500,64,2000"});
    std::this_thread::sleep_for(1s);
    flood->Send("");
    const Logged flooded = LogReports(flood->Wait().out).at(0);
    const Logged steadied = LogReports(steady->Wait().out).at(0);
    runtime.Release();
    const DecodedLog log(install.DataFile());
    // None of the steady writer's records goes; the lock's deadline may drop
    // one of them on a busy machine, and it is counted.
    EXPECT_EQ(log.Seqs("BusBridge"), steadied.Arrived());
    EXPECT_LE(steadied.dropped.size(), 1U);
    const auto lost = flooded.written - log.Seqs("CellEmulation").size();
    const auto reported = LossesOf(log, "CellEmulation");
    EXPECT_EQ(reported[4], lost);
    EXPECT_EQ(reported[3] + reported[0], lost);
    EXPECT_GT(reported[3], 0U);
    Figure(
        "flood of %ld records over 200 per 100 ms: %ld lost and reported; the steady writer "
        "lost 0 of 500",
        flooded.written, long(lost));
}

// A fixed window: at most burst records from its start, and the first record
// past its end opens the next one.
TEST(Loss, TheRateLimitAdmitsABurstPerWindow) {
    using PF::Utils::LOG::detail::AdmitUnderProcessLimit;
    PF::Utils::LOG::detail::SetProcessRateLimit(3, 10);  // 3 records in 10 ms
    constexpr std::int64_t kT = 1700000000000000;
    std::string admitted;
    for (std::int64_t us : {0, 1, 2, 3, 9999, 10000, 10001, 10002, 10003, 25000})
        admitted += AdmitUnderProcessLimit(kT + us) ? '1' : '0';
    PF::Utils::LOG::detail::SetProcessRateLimit(0, 0);
    EXPECT_EQ(admitted, "1110011101");
}
