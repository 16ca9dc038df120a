// The exported start, stop and attach calls.
#include "archive/ShmArchiver.h"
#include "lifecycle/ProcessRoles.h"
#include "log/ConfManager.h"
#include "log/Control.h"

namespace PF::Utils::LOG {

bool IsUPEnvironment() {
    return ConfManager::outputMode;
}

bool InitWriteLogEnv() {
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
