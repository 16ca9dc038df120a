#include <pthread.h>

#include "log/WriteLog.h"

namespace PF::Utils::LOG::detail {

// Zero until the thread writes its first record; gettid runs once per thread.
__thread unsigned int tCachedThreadId = 0;

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
