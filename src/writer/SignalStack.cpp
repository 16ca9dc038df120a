// sigaltstack is per thread, and the library starts no thread of the
// application's: a thread gets its stack on its first record after the
// switch-on, a moment the library sees anyway (the thread id cache's miss,
// off the hot path). A thread that never logs has none; a stack overflow
// there ends the process as before, only without a report. The thread that
// switches the report on (at load: the main thread) gets one at once.
#include "writer/SignalStack.h"

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

namespace PF::Utils::LOG::detail {
namespace {

// The report's text (12 KiB) twice over, its record and the unwinder's frames.
constexpr std::size_t kStackBytes = 128 * 1024;
constexpr std::size_t kGuardBytes = 4096;  // below it: an overflow faults instead of writing on

std::atomic<bool> gEnabled{false};
pthread_key_t gStacks;

// At the thread's end: the kernel forgets the stack before it is unmapped.
void Release(void* mapping) {
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
    munmap(mapping, kGuardBytes + kStackBytes);
}

}  // namespace

void EnableSignalStacks() {
    static const bool keyed = pthread_key_create(&gStacks, Release) == 0;
    if (!keyed) return;
    gEnabled.store(true, std::memory_order_release);
    GiveThreadSignalStack();
}

void GiveThreadSignalStack() {
    if (!gEnabled.load(std::memory_order_acquire)) return;
    stack_t current{};
    if (sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) return;
    void* mapping = mmap(nullptr, kGuardBytes + kStackBytes, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) return;
    mprotect(mapping, kGuardBytes, PROT_NONE);
    stack_t stack{};
    stack.ss_sp = static_cast<char*>(mapping) + kGuardBytes;
    stack.ss_size = kStackBytes;
    if (sigaltstack(&stack, nullptr) != 0) {
        munmap(mapping, kGuardBytes + kStackBytes);
        return;
    }
    pthread_setspecific(gStacks, mapping);
}

}  // namespace PF::Utils::LOG::detail
