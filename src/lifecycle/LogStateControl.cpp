// Starting and stopping the archiver together with the header's active
// switch, and the exported switches that go through the log state.
#include "archive/ShmArchiver.h"
#include "lifecycle/LogStateManager.h"
#include "log/Control.h"
#include "log/RingHead.h"

namespace PF::Utils::LOG {

// cppcheck-suppress passedByValue ; exported signature
bool StartLog(std::string logDir) {
    std::shared_ptr<ShmArchiver> archiver = ShmArchiver::GetInstancePtr();
    RingHead* ring = RingHead::instance;
    if (!archiver || ring == nullptr) return false;
    ring->SetActive(1);
    archiver->SetBaseLogDir(logDir);
    archiver->init();
    archiver->StartThread();
    return true;
}

bool StopLog() {
    RingHead* ring = RingHead::instance;
    if (ring == nullptr) return false;
    ring->SetActive(0);
    ShmArchiver::GetInstancePtr()->StopThread();
    return true;
}

// An unusable log directory (CheckAndCreateDirectory throws) leaves the
// archiver stopped; it must not take the host process down.
bool SetLogActive(unsigned value) {
    try {
        LogStateManager::GetInstance()->SetLogActive(value);
    } catch (...) {
    }
    return true;
}

bool SetLogLevel(unsigned value) {
    LogStateManager::GetInstance()->SetLogLevel(value);
    return true;
}

bool SetUSBDeviceState(bool value) {
    try {
        LogStateManager::GetInstance()->SetUsbState(value);
    } catch (...) {
    }
    return true;
}

}  // namespace PF::Utils::LOG
