#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "log/WriteLog.h"
#include "writer/SignalStack.h"

namespace PF::Utils::LOG::detail {

// Zero until the thread writes its first record; gettid runs once per thread.
__thread unsigned int tCachedThreadId = 0;

unsigned int RememberThreadId() noexcept {
    const auto id = static_cast<unsigned int>(::syscall(SYS_gettid));
    tCachedThreadId = id;
    GiveThreadSignalStack();
    return id;
}

namespace {
// A forked child starts with a copy of its parent's cache: forget it.
void ForgetThreadId() {
    tCachedThreadId = 0;
}

__attribute__((constructor)) void RegisterForkHandler() {
    pthread_atfork(nullptr, nullptr, ForgetThreadId);
}
}  // namespace

}  // namespace PF::Utils::LOG::detail
