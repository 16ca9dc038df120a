// The shared ring: limits, wrap-around, the full-ring rule, the validity
// check, two real processes, a writer killed while holding the lock.
#include <sys/mman.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "support/RingFixture.h"

using namespace PF::Utils::LOG;
using zmtest::SharedRingTest;

namespace {

std::string Pattern(size_t n, unsigned seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed) & 0xFF);
    return s;
}

}  // namespace

TEST_F(SharedRingTest, EnqueueLimits) {
    std::string big = Pattern(ring->mask + 1, 7);
    EXPECT_EQ(ring->Enqueue(big.data(), 0), 0U);
    EXPECT_EQ(ring->Enqueue(big.data(), ring->mask + 1), 0U);
    EXPECT_EQ(ring->Count(), 0U);
    ASSERT_EQ(ring->Enqueue(big.data(), ring->mask), ring->mask);
    EXPECT_EQ(Drain(), big.substr(0, ring->mask));
}

TEST_F(SharedRingTest, RecordStraddlingTheEndReadsBackIdentical) {
    std::string filler = Pattern(ring->capacity - 100, 1);
    ASSERT_EQ(ring->Enqueue(filler.data(), static_cast<unsigned>(filler.size())), filler.size());
    ASSERT_EQ(Drain().size(), filler.size());
    std::string record = Pattern(300, 2);
    ASSERT_EQ(ring->Enqueue(record.data(), 300), 300U);
    EXPECT_EQ(Drain(), record);
    EXPECT_EQ(ring->prodHead & ring->mask, 200U);
}

TEST_F(SharedRingTest, FullRingKeepsOnlyTheNewestRecord) {
    std::string old = Pattern(ring->capacity / 2 + 10, 3);
    std::string newest = Pattern(ring->capacity / 2 + 20, 4);
    ring->Enqueue(old.data(), static_cast<unsigned>(old.size()));
    ring->Enqueue(newest.data(), static_cast<unsigned>(newest.size()));
    EXPECT_EQ(Drain(), newest);
    EXPECT_TRUE(ring->CheckValid());
}

TEST_F(SharedRingTest, InvalidHeaderStopsAllTrafficSilently) {
    std::string before = Pattern(64, 5);
    ring->Enqueue(before.data(), 64);
    ASSERT_TRUE(ring->SetLevel(7));
    EXPECT_FALSE(ring->CheckValid());
    std::string data = Pattern(64, 6);
    EXPECT_EQ(ring->Enqueue(data.data(), 64), 64U);  // the caller never learns of the drop
    EXPECT_EQ(ring->Count(), 64U);
    EXPECT_EQ(Drain(), "");
    ASSERT_TRUE(ring->SetLevel(2));
    EXPECT_EQ(Drain(), before);
}

TEST_F(SharedRingTest, FreeRunningIndicesWrapAt32Bits) {
    const unsigned start = 0xFFFFFF00U;
    ring->prodHead = ring->prodTail = ring->consHead = ring->consTail = start;
    std::string record = Pattern(1000, 8);
    ASSERT_EQ(ring->Enqueue(record.data(), 1000), 1000U);
    EXPECT_EQ(ring->prodTail, start + 1000U);
    EXPECT_EQ(Drain(), record);
}

TEST_F(SharedRingTest, SwitchesAndRepairOfAFreeLock) {
    EXPECT_TRUE(ring->SetActive(0));
    EXPECT_EQ(ring->LoadActive(), 0U);
    EXPECT_TRUE(ring->SetComponentMask(0x00FFULL));
    EXPECT_EQ(ring->LoadComponentMask(), 0x00FFUL);
    EXPECT_EQ(GetWriteSemStatus(), 1);
    std::string data = Pattern(10, 9);
    ring->Enqueue(data.data(), 10);
    EXPECT_FALSE(ResetShm());  // nothing was stuck
    EXPECT_EQ(ring->Count(), 10U);
    EXPECT_EQ(GetWriteSemStatus(), 1);
}

// Two writer processes log concurrently while this process drains: every
// record arrives exactly once and in each writer's order.
TEST_F(SharedRingTest, TwoProcessesShareOneRing) {
    const int kCount = 3000;
    zmtest::Child a("TransportWriter", "CellEmulation", {"write", std::to_string(kCount)},
                    install.Env());
    zmtest::Child b("TransportWriter", "BusBridge", {"write", std::to_string(kCount)},
                    install.Env());
    std::string stream;
    bool aDone = false;
    bool bDone = false;
    ASSERT_TRUE(zmtest::WaitUntil(
        [&] {
            stream += Drain();
            aDone = aDone || a.WaitForOutput("done", std::chrono::milliseconds(1));
            bDone = bDone || b.WaitForOutput("done", std::chrono::milliseconds(1));
            return aDone && bDone;
        },
        std::chrono::seconds(20)));
    stream += Drain();
    EXPECT_EQ(a.Wait().exitCode, 0);
    EXPECT_EQ(b.Wait().exitCode, 0);

    size_t consumed = 0;
    auto records = zmtest::WalkRecords(stream, &consumed);
    EXPECT_EQ(consumed, stream.size());
    std::map<std::string, int> next;
    for (const auto& r : records) {
        ASSERT_EQ(r.content, r.program + "-" + std::to_string(next[r.program]));
        ++next[r.program];
        EXPECT_EQ(r.function, "main");
        EXPECT_EQ(r.tag, "seq");
        EXPECT_EQ(r.head.flags, kInfo);
        EXPECT_NE(r.head.threadId, 0U);
    }
    EXPECT_EQ(next["CellEmulation"], kCount);
    EXPECT_EQ(next["BusBridge"], kCount);
}

// A writer killed while it holds "/WriteLOG": other writers drop within the
// 1 ms deadline instead of hanging; ResetShm releases the lock.
TEST_F(SharedRingTest, KilledLockHolderIsRepairedByResetShm) {
    zmtest::Child holder("TransportWriter", "CellEmulation", {"hold"}, install.Env());
    ASSERT_TRUE(holder.WaitForOutput("locked", std::chrono::seconds(10)));
    holder.Signal(SIGKILL);
    holder.Wait();
    EXPECT_EQ(GetWriteSemStatus(), 0);

    for (int i = 0; i < 5; ++i) {
        auto t0 = std::chrono::steady_clock::now();
        WriteLog<const char*>("t", "dropped", kInfo, "f", 0, 0, 0, std::string());
        auto took = std::chrono::steady_clock::now() - t0;
        EXPECT_LT(took, std::chrono::milliseconds(50));  // 1 ms deadline plus scheduling noise
    }
    EXPECT_EQ(ring->Count(), 0U);

    EXPECT_TRUE(ResetShm());
    EXPECT_EQ(GetWriteSemStatus(), 1);
    WriteLog<const char*>("t", "after repair", kInfo, "f", 0, 0, 0, std::string());
    auto records = zmtest::WalkRecords(Drain());
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].content, "after repair");
}

TEST_F(SharedRingTest, ResetShmDropsAHalfFinishedEnqueue) {
    std::string data = Pattern(100, 10);
    ring->Enqueue(data.data(), 100);
    ring->prodHead += 50;                     // a writer died between reserve and publish
    ASSERT_EQ(sem_wait(SemManager::sem), 0);  // ... holding the lock
    EXPECT_TRUE(ResetShm());
    EXPECT_TRUE(ring->CheckValid());
    EXPECT_EQ(ring->Count(), 0U);
    EXPECT_EQ(ring->prodHead, ring->consHead);
}

TEST(Transport, AttachAndCreateFailuresLeaveNoRing) {
    zmtest::GlobalNamesLock names;
    EXPECT_FALSE(SHMManager::InitSHM());
    EXPECT_EQ(SHMManager::shmInfo.address, nullptr);
    EXPECT_FALSE(SemManager::Init());
    EXPECT_EQ(SemManager::sem, nullptr);
    EXPECT_EQ(GetWriteSemStatus(), -1);
    EXPECT_FALSE(ResetShm());

    alignas(8) char block[64] = {};
    RingHead* out = nullptr;
    EXPECT_FALSE(RingHead::Init(block, 47, out));
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(RingHead::Init(block, 64, out));
    EXPECT_EQ(out->capacity, 16U);
    EXPECT_EQ(out->mask, 15U);
    // No semaphore in this process: the switches refuse, as in the UP environment.
    EXPECT_FALSE(out->SetActive(1));
    RingHead::sRing = nullptr;
}

TEST(Transport, LockDeadlineArithmetic) {
    struct Case {
        timespec now, want;
    } cases[] = {
        {{5, 998999999}, {5, 999999999}}, {{5, 999000000}, {6, 0}}, {{5, 999999999}, {6, 999999}}};
    for (const auto& c : cases) {
        const timespec got = DeadlineAfter(c.now, kLockTimeoutNs);
        EXPECT_EQ(got.tv_sec, c.want.tv_sec);
        EXPECT_EQ(got.tv_nsec, c.want.tv_nsec);
    }
}

TEST(Transport, PrivateBlockIsReleasedOnce) {
    ASSERT_TRUE(MEMManager::CreateMEM(4096));
    EXPECT_EQ(MEMManager::memInfo.size, 4096U);
    EXPECT_TRUE(MEMManager::DeleteSHM());
    EXPECT_EQ(MEMManager::memInfo.address, nullptr);
    EXPECT_TRUE(MEMManager::DeleteSHM());  // no double release
}
