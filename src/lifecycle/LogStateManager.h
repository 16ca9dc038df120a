// The last requested logging state of this process, and the sequences that
// turn a change of it into switches of the ring header and archiver restarts.
#pragma once

#include <memory>

namespace PF::Utils::LOG {

class LogStateManager {
  public:
    LogStateManager();

    static std::shared_ptr<LogStateManager>& GetInstance();

    void SetLogActive(unsigned value);
    void SetLogLevel(unsigned value);
    void SetUsbState(bool value);
    void ResetState();  // the archiver gave up (its "/usb/log" medium vanished)

    unsigned active;
    bool usb;
    bool reset;

    static std::shared_ptr<LogStateManager>& sInstance;
};

}  // namespace PF::Utils::LOG
