// The log states its own gaps: every record a process could not write is
// counted and reported in the log, exactly; a process over its rate limit
// loses its own records, not another's.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "support/Fixtures.h"

using namespace zmtest;

namespace {

// Lost records by cause, summed over a program's "lost ..." notices.
struct Reported {
    unsigned long total = 0, lockBusy = 0, ringFull = 0, tooLong = 0, rateLimited = 0;
};

Reported LossesOf(const DecodedLog& log, const std::string& program) {
    Reported sum;
    for (const Record& r : log.records) {
        Reported n;
        if (r.program != program || r.tag != "zmlog" || r.head.threadId != 0 ||
            std::sscanf(r.content.c_str(),
                        "lost %lu records: lock busy %lu, ring full %lu, too long %lu, rate "
                        "limited %lu, since ",
                        &n.total, &n.lockBusy, &n.ringFull, &n.tooLong, &n.rateLimited) != 5)
            continue;
        EXPECT_EQ(n.total, n.lockBusy + n.ringFull + n.tooLong + n.rateLimited) << r.content;
        sum.total += n.total;
        sum.lockBusy += n.lockBusy;
        sum.ringFull += n.ringFull;
        sum.tooLong += n.tooLong;
        sum.rateLimited += n.rateLimited;
    }
    return sum;
}

// The seqs 0..written-1 a "logged <written> ..." report leads to expect.
size_t Written(const std::string& out) {
    const size_t at = out.rfind("logged ");
    return at == std::string::npos ? 0 : std::strtoul(out.c_str() + at + 7, nullptr, 10);
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
    const std::string out = writer->Wait().out;
    runtime.Release();
    const DecodedLog log(install.DataFile());
    const size_t missing = Written(out) - log.Seqs("CellEmulation").size();
    EXPECT_GT(missing, 50U);
    EXPECT_EQ(DroppedSeqs(out).size(), missing);
    const Reported reported = LossesOf(log, "CellEmulation");
    EXPECT_EQ(reported.total, missing);
    EXPECT_EQ(reported.lockBusy, missing);
    std::printf("[ figures  ] lock held 200 ms: %zu records missing, %lu reported\n", missing,
                reported.total);
}

// A flood that fills the ring faster than the archiver drains it: where the
// ring threw unread records away, the ring-full notice and the count of the
// bytes discarded stand in the file, between the records around the gap.
TEST(Loss, AFullRingSaysWhereItDiscarded) {
    Installation install;
    Runtime runtime(install);
    auto flood = install.Start("CellEmulation", {"log=0,1000"});
    std::this_thread::sleep_for(400ms);  // four drains at least
    flood->Send("");
    EXPECT_EQ(flood->Wait().exitCode, 0);
    runtime.Release();
    const DecodedLog log(install.DataFile());
    int between = 0;
    for (size_t i = 0; i + 2 < log.records.size(); ++i) {
        if (log.records[i].function != "GenerateEmptyLog") continue;
        EXPECT_EQ(log.records[i].content, "ring buffer is full, call empty function");
        unsigned long bytes = 0;
        EXPECT_EQ(std::sscanf(log.records[i + 1].content.c_str(),
                              "discarded %lu bytes of unread records", &bytes),
                  1);
        EXPECT_GT(bytes, 4000000U);  // about a ring's worth
        if (i == 0) continue;
        // The records thrown away lie between the ones around the notices.
        const long before = std::strtol(log.records[i - 1].content.c_str() + 14, nullptr, 10);
        const long after = std::strtol(log.records[i + 2].content.c_str() + 14, nullptr, 10);
        EXPECT_GT(after, before + 1);
        ++between;
    }
    EXPECT_GT(between, 0);
}

// With a per-process limit, a process logging as fast as it can for a second
// costs another process, logging every 2 ms, no record; the flood's own
// notices add up to exactly what it lost.
TEST(Loss, AFloodOverItsRateLimitCostsOthersNothing) {
    Installation install(std::string(Installation::kConfig) +
                         "rateLimitBurst=200\nrateLimitIntervalMs=100\n");
    Runtime runtime(install);
    auto flood = install.Start("CellEmulation", {"log=0,200,0"});
    auto steady = install.Start("BusBridge", {"log=500,64,2000"});
    std::this_thread::sleep_for(1s);
    flood->Send("");
    const std::string floodOut = flood->Wait().out;
    const std::string steadyOut = steady->Wait().out;
    runtime.Release();
    const DecodedLog log(install.DataFile());
    // None of the steady writer's records goes; the lock's deadline may drop
    // one of them on a busy machine, and it is counted.
    std::vector<long> all(500);
    std::iota(all.begin(), all.end(), 0);
    const auto dropped = DroppedSeqs(steadyOut);
    for (long s : dropped) all.erase(std::find(all.begin(), all.end(), s));
    EXPECT_EQ(log.Seqs("BusBridge"), all);
    EXPECT_LE(dropped.size(), 1U);
    const size_t lost = Written(floodOut) - log.Seqs("CellEmulation").size();
    const Reported reported = LossesOf(log, "CellEmulation");
    EXPECT_EQ(reported.total, lost);
    EXPECT_EQ(reported.rateLimited + reported.lockBusy, lost);
    EXPECT_GT(reported.rateLimited, 0U);
    std::printf(
        "[ figures  ] flood of %zu records over 200 per 100 ms: %zu lost, %lu reported; "
        "the steady writer lost 0 of 500\n",
        Written(floodOut), lost, reported.total);
}
