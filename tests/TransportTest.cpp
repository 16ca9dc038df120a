// The shared ring: limits, wrap-around, the full-ring rule, the validity
// check, the lock's deadline and its repair after a holder died.
#include <semaphore.h>

#include "support/RingFixture.h"
#include "transport/MEMManager.h"

using namespace PF::Utils::LOG;
using zmtest::SharedRingTest;

namespace {

std::string Pattern(size_t n, unsigned seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed) & 0xFF);
    return s;
}

}  // namespace

TEST_F(SharedRingTest, LimitsWrapAndTheFullRingRule) {
    const std::string big = Pattern(ring->mask + 1, 7);
    EXPECT_EQ(ring->Enqueue(const_cast<char*>(big.data()), 0), 0U);
    EXPECT_EQ(Put(big), 0U);
    ASSERT_EQ(Put(big.substr(0, ring->mask)), ring->mask);
    EXPECT_EQ(Drain(), big.substr(0, ring->mask));

    // A record straddling the end of the data area reads back identical.
    ASSERT_EQ(Put(Pattern(ring->capacity - 100, 1)), ring->capacity - 100);
    Drain();
    const std::string straddling = Pattern(300, 2);
    ASSERT_EQ(Put(straddling), 300U);
    EXPECT_EQ(Drain(), straddling);

    // A ring too full for a record throws its unread bytes away: the newest win.
    Put(Pattern(ring->capacity / 2 + 10, 3));
    const std::string newest = Pattern(ring->capacity / 2 + 20, 4);
    Put(newest);
    EXPECT_EQ(Drain(), newest);
    EXPECT_TRUE(ring->CheckValid());

    // The free-running indices wrap at 32 bits.
    const unsigned start = 0xFFFFFF00U;
    ring->prodHead = ring->prodTail = ring->consHead = ring->consTail = start;
    ASSERT_EQ(Put(straddling), 300U);
    EXPECT_EQ(ring->prodTail, start + 300U);
    EXPECT_EQ(Drain(), straddling);
}

TEST_F(SharedRingTest, InvalidHeaderStopsAllTrafficSilently) {
    const std::string before = Pattern(64, 5);
    Put(before);
    ASSERT_TRUE(ring->SetLevel(7));
    EXPECT_EQ(Put(Pattern(64, 6)), 64U);  // the caller never learns of the drop
    EXPECT_FALSE(ring->CheckValid());
    EXPECT_EQ(Drain(), "");
    ASSERT_TRUE(ring->SetLevel(6));  // Record is a valid level
    EXPECT_EQ(Put(Pattern(64, 6)), 64U);
    EXPECT_EQ(Drain(), before + Pattern(64, 6));
    // A reservation never published makes the header invalid too.
    ring->prodHead += 8;
    EXPECT_FALSE(ring->CheckValid());
    ring->prodHead -= 8;

    // ResetShm finds nothing stuck in a ring whose lock is free.
    Put(Pattern(10, 9));
    EXPECT_FALSE(ResetShm());
    EXPECT_EQ(ring->Count(), 10U);
    EXPECT_EQ(GetWriteSemStatus(), 1);
}

// A writer killed while it holds "/WriteLOG": writes drop within the 1 ms
// deadline instead of hanging; ResetShm releases the lock.
TEST_F(SharedRingTest, KilledLockHolderIsRepairedByResetShm) {
    auto holder = install.Start("CellEmulation", {"hold-lock", "wait"});
    ASSERT_TRUE(holder->WaitForOutput("locked"));
    holder.reset();  // SIGKILL
    EXPECT_EQ(GetWriteSemStatus(), 0);
    for (int i = 0; i < 5; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        WriteLog<const char*>("t", "dropped", kInfo, "f", 0, 0, 0, std::string());
        // 1 ms deadline plus scheduling noise
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(50));
    }
    EXPECT_EQ(ring->Count(), 0U);
    EXPECT_TRUE(ResetShm());
    EXPECT_EQ(GetWriteSemStatus(), 1);
    WriteLog<const char*>("t", "after repair", kInfo, "f", 0, 0, 0, std::string());
    // The five records lost meanwhile are reported before the next one.
    const auto records = zmtest::WalkRecords(Drain());
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(
        records[0].tag + "|" + std::to_string(records[0].head.threadId) + "|" +
            records[0].content.substr(0, 76),
        "zmlog|0|lost 5 records: lock busy 5, ring full 0, too long 0, rate limited 0, since ");
    EXPECT_EQ(records[1].content, "after repair");

    // Died between reservation and publication, holding the lock.
    Put(Pattern(100, 10));
    ring->prodHead += 50;
    ASSERT_EQ(sem_wait(SemManager::sem), 0);
    EXPECT_TRUE(ResetShm());
    EXPECT_TRUE(ring->CheckValid());
    EXPECT_EQ(ring->Count(), 0U);
    EXPECT_EQ(GetWriteSemStatus(), 1);
}

TEST(Transport, AttachFailuresLeaveNoRingAndTheDeadlineCarries) {
    zmtest::GlobalNamesLock names;
    EXPECT_FALSE(SHMManager::InitSHM());
    EXPECT_EQ(SHMManager::shmInfo.address, nullptr);
    EXPECT_FALSE(SemManager::Init());
    EXPECT_EQ(GetWriteSemStatus(), -1);
    EXPECT_FALSE(ResetShm());

    alignas(8) char block[64] = {};
    RingHead* out = nullptr;
    EXPECT_FALSE(RingHead::Init(block, 47, out));
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(RingHead::Init(block, 64, out));
    // No semaphore in this process: the switches refuse, as in the UP environment.
    EXPECT_FALSE(out->SetActive(1));
    RingHead::sRing = nullptr;

    ASSERT_TRUE(MEMManager::CreateMEM(4096));
    EXPECT_TRUE(MEMManager::DeleteSHM());
    EXPECT_TRUE(MEMManager::DeleteSHM());  // no double release

    const struct {
        timespec now, want;
    } cases[] = {
        {{5, 998999999}, {5, 999999999}}, {{5, 999000000}, {6, 0}}, {{5, 999999999}, {6, 999999}}};
    for (const auto& c : cases) {
        const timespec got = DeadlineAfter(c.now, kLockTimeoutNs);
        // A timespec whose nanoseconds reach a second is refused by sem_timedwait.
        EXPECT_EQ(std::pair(got.tv_sec, got.tv_nsec), std::pair(c.want.tv_sec, c.want.tv_nsec));
    }
}
