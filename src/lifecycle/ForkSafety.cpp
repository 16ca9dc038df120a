// fork() in a process of the library. A writer attached to the runtime needs
// nothing: its ring and lock are shared between processes anyway, and its
// child writes into them as it does. A process with a private log gives its
// child a log of its own: the locks its threads may hold (the ring's mutex,
// the calendar conversion) are taken around the fork, so the child starts
// with them free, and the child runs an archiver of its own (threads are not
// copied) on an emptied copy of the ring, whose records the parent drains.
#include <pthread.h>

#include "archive/ShmArchiver.h"
#include "decode/CalendarLock.h"
#include "log/Control.h"
#include "log/RingHead.h"
#include "transport/MEMManager.h"

namespace PF::Utils::LOG {
namespace {

void BeforeFork() {
    CalendarLock().lock();
    MEMManager::mMutex.lock();
}

void InParent() {
    MEMManager::mMutex.unlock();
    CalendarLock().unlock();
}

void InChild() {
    MEMManager::mMutex.unlock();
    CalendarLock().unlock();
    RingHead* ring = RingHead::instance;
    if (!IsUPEnvironment() || ring == nullptr || !ShmArchiver::sShmArch) return;
    ring->Empty();
    ShmArchiver::sShmArch->RestartInForkedChild();
}

__attribute__((constructor)) void RegisterForkHandlers() {
    pthread_atfork(BeforeFork, InParent, InChild);
}

}  // namespace
}  // namespace PF::Utils::LOG
