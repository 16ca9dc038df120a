// The log state table: switching logging and the USB medium restarts the
// archiver and sets the shared header's switch.
#include "archive/ShmArchiver.h"
#include "lifecycle/LogStateManager.h"
#include "support/RingFixture.h"
#include "support/ThreadNames.h"

using namespace PF::Utils::LOG;

namespace {

bool ArchiverRunning() {
    return !zmtest::Tasks("ShmReadToBinary").empty();
}

class LogStateTest : public zmtest::SharedRingTest {
  protected:
    void SetUp() override {
        SharedRingTest::SetUp();
        install.ExportEnv();
        LogStateManager::sInstance.reset();  // built afresh from the header
    }
    void TearDown() override {
        ShmArchiver::GetInstancePtr()->StopThread();
        LogStateManager::sInstance.reset();
        SharedRingTest::TearDown();
    }
};

}  // namespace

// Walks the state table: no restart for an unchanged value, stop and start
// on a change, and unplugging the medium stops logging for good.
TEST_F(LogStateTest, TransitionsOfTheStateTable) {
    auto& state = LogStateManager::GetInstance();
    EXPECT_EQ(state->active, 1U);  // copied from the header
    SetLogActive(1);
    SetUSBDeviceState(false);
    EXPECT_FALSE(ArchiverRunning());

    SetLogActive(0);
    EXPECT_EQ(ring->LoadActive(), 0U);
    SetLogActive(1);
    EXPECT_EQ(ring->LoadActive(), 1U);
    EXPECT_TRUE(ArchiverRunning());
    EXPECT_EQ(ShmArchiver::GetInstancePtr()->GetBaseLogDir(), install.LogDir());

    SetUSBDeviceState(true);
    EXPECT_TRUE(ArchiverRunning());
    EXPECT_EQ(state->active, 1U);
    SetUSBDeviceState(false);
    EXPECT_FALSE(ArchiverRunning());
    EXPECT_EQ(ring->LoadActive(), 0U);
    EXPECT_EQ(state->active, 0U);
}
