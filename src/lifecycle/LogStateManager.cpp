#include "lifecycle/LogStateManager.h"

#include "archive/ShmArchiver.h"
#include "common/Immortal.h"
#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/RingHead.h"

namespace PF::Utils::LOG {

namespace {
ZMLOG_IMMORTAL detail::Immortal<std::shared_ptr<LogStateManager>> sInstanceHolder;

std::string CurrentLogDir() {
    return InitConfAndLogPath().second;
}
}  // namespace

std::shared_ptr<LogStateManager>& LogStateManager::sInstance =
    ZMLOG_IMMORTAL_OBJECT(std::shared_ptr<LogStateManager>, sInstanceHolder);

LogStateManager::LogStateManager()
    : active(RingHead::instance != nullptr ? RingHead::instance->LoadActive() : 0),
      usb(false),
      reset(false) {}

// No lock: the first call comes from start-up code on one thread.
std::shared_ptr<LogStateManager>& LogStateManager::GetInstance() {
    if (!sInstance) sInstance = std::make_shared<LogStateManager>();
    return sInstance;
}

void LogStateManager::SetLogActive(unsigned value) {
    if (value == active) return;
    active = value;
    StopLog();
    if (active != 0) StartLog(CurrentLogDir());
}

// No range check: a level above 6 makes the shared header invalid, which stops
// all traffic until a valid level is set again.
void LogStateManager::SetLogLevel(unsigned value) {
    if (RingHead* ring = RingHead::instance) ring->SetLevel(value);
}

// Unplugging stops logging and does not restart it, by design: it stays off
// until the next SetLogActive change or device insertion.
void LogStateManager::SetUsbState(bool value) {
    if (value == usb) return;
    usb = value;
    StopLog();
    if (usb) StartLog(CurrentLogDir());
    if (RingHead* ring = RingHead::instance) active = ring->LoadActive();
}

void LogStateManager::ResetState() {
    active = 0;
    reset = true;
    if (RingHead* ring = RingHead::instance) ring->SetActive(0);
}

}  // namespace PF::Utils::LOG
