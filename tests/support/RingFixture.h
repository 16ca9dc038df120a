// A test that owns the shared ring in this process, as the runtime would,
// logging active at TRACE.
#pragma once

#include "log/ZMRuntimeLog.h"
#include "support/Fixtures.h"
#include "transport/SHMManager.h"
#include "transport/SemManager.h"
#include "writer/LossReport.h"

namespace zmtest {

class SharedRingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        using namespace PF::Utils::LOG;
        ConfManager::outputMode = false;
        ASSERT_TRUE(SemManager::Create());
        ASSERT_TRUE(SHMManager::CreateSHM(kSegmentSize));
        ASSERT_TRUE(RingHead::Init(SHMManager::shmInfo.address, static_cast<int>(kSegmentSize),
                                   RingHead::instance));
        ring = RingHead::instance;
        ASSERT_TRUE(ring->SetActive(1));
        ASSERT_TRUE(ring->SetLevel(0));
        // Losses an earlier test of this process caused are reported (and
        // so forgotten) here, not in the middle of this test's records.
        detail::ReportLosses(detail::NowUs(), 0);
        Drain();
    }
    void TearDown() override {
        using namespace PF::Utils::LOG;
        RingHead::instance = nullptr;
        SemManager::Destory();
        SHMManager::DestroySHM();
        SHMManager::DeleteSHM();
        ConfManager::outputMode = true;
    }
    unsigned Put(const std::string& bytes) {
        return ring->Enqueue(const_cast<char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
    }
    // Everything published so far.
    std::string Drain() {
        std::string bytes(ring->capacity, '\0');
        bytes.resize(ring->Dequeue(bytes.data(), static_cast<unsigned>(bytes.size())));
        return bytes;
    }

    Installation install;  // first: holds the shared names before anything is created
    PF::Utils::LOG::RingHead* ring = nullptr;
};

}  // namespace zmtest
