// The exported start, stop and attach calls.
#include "archive/ShmArchiver.h"
#include "lifecycle/ProcessRoles.h"
#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/RingHead.h"
#include "transport/SemManager.h"

namespace PF::Utils::LOG {

bool IsUPEnvironment() {
    return ConfManager::outputMode;
}

// Harmless when already attached to the runtime that runs now.
bool InitWriteLogEnv() {
    if (RingHead::instance != nullptr && !IsUPEnvironment() && SemManager::Current() != nullptr &&
        SemManager::OpenedLockIsCurrent())
        return true;
    return InitWriteProcess();
}

// An unusable log directory makes the start fail instead of throwing into the
// runtime.
bool StartRuntimeLog() {
    try {
        return InitResourceAndReadThread();
    } catch (...) {
        return false;
    }
}

bool ReleaseRuntimeLog() {
    try {
        return CloseReadThreadAndResource();
    } catch (...) {
        return false;
    }
}

bool BindCPUCore(int cpu) {
    ShmArchiver::GetInstancePtr()->SetBindCpuNum(cpu);
    return true;
}

}  // namespace PF::Utils::LOG
