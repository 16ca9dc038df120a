#include "transport/SemManager.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "config/SharedAccess.h"

namespace PF::Utils::LOG {

namespace {
constexpr const char* kWriteSemName = "/WriteLOG";
constexpr const char* kReadSemName = "/ReadLOG";
constexpr const char* kWriteSemFile = "/dev/shm/sem.WriteLOG";
constexpr const char* kReadSemFile = "/dev/shm/sem.ReadLOG";
constexpr long kNsPerSecond = 1000000000L;
// Attempts with sem_trywait before sleeping in the kernel: a holder keeps the
// lock for one copy, usually well under a microsecond, and waking a sleeper
// costs far more than that.
constexpr int kSpinAttempts = 64;

sem_t* OrNull(sem_t* s) {
    return s == SEM_FAILED ? nullptr : s;
}

// Handles replaced by a re-attach, closed once no thread can still hold one.
sem_t* gRetired[2] = {nullptr, nullptr};
long long gRetiredAtUs = 0;
constexpr long long kRetiredGraceUs = 1000000;

void CloseHandles(sem_t* handles[2]) {
    for (int i = 0; i < 2; ++i) {
        if (handles[i] != nullptr) sem_close(handles[i]);
        handles[i] = nullptr;
    }
}

struct Identity {
    dev_t dev = 0;
    ino_t ino = 0;
    bool operator==(const Identity& o) const { return dev == o.dev && ino == o.ino; }
};
Identity gOpened;   // of the lock this process uses
Identity gOpening;  // of the lock opened last, until published

Identity LockIdentity() {
    struct stat st {};
    return stat(kWriteSemFile, &st) == 0 ? Identity{st.st_dev, st.st_ino} : Identity{};
}

long long NowUs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

// Handles being replaced: kept until the next replacement (a thread may
// have read one a moment ago and be about to use it), then closed.
void RetireHandles(sem_t* write, sem_t* read) {
    if (write == nullptr && read == nullptr) return;
    CloseHandles(gRetired);
    gRetired[0] = write;
    gRetired[1] = read;
    gRetiredAtUs = NowUs();
}
}  // namespace

sem_t* SemManager::sem = nullptr;
sem_t* SemManager::readsem = nullptr;

timespec DeadlineAfter(const timespec& now, long addNs) {
    timespec deadline = now;
    deadline.tv_nsec += addNs;
    if (deadline.tv_nsec > kNsPerSecond - 1) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNsPerSecond;
    }
    return deadline;
}

bool SemManager::Create(unsigned initial) {
    const mode_t mode = detail::CurrentSharedAccess().restricted ? 0660 : 0644;
    RetireHandles(sem, readsem);
    sem_unlink(kWriteSemName);
    sem = OrNull(sem_open(kWriteSemName, O_CREAT | O_EXCL, mode, initial));
    if (sem == nullptr) return false;
    detail::Restrict(kWriteSemFile, 0660);
    sem_unlink(kReadSemName);
    readsem = OrNull(sem_open(kReadSemName, O_CREAT | O_EXCL, mode, 1));
    detail::Restrict(kReadSemFile, 0660);
    return readsem != nullptr;
}

bool SemManager::Init() {
    sem_t* write = nullptr;
    sem_t* read = nullptr;
    if (!Open(write, read) && write == nullptr) return false;  // a first attach leaves sem null
    Publish(write, read);
    return readsem != nullptr;
}

bool SemManager::Open(sem_t*& write, sem_t*& read) {
    // The name may be replaced meanwhile: the identity is the one seen both
    // before and after the open, else unknown (and the next check looks again).
    const Identity before = LockIdentity();
    write = OrNull(sem_open(kWriteSemName, 0));
    gOpening = write != nullptr && LockIdentity() == before ? before : Identity{};
    read = write != nullptr ? OrNull(sem_open(kReadSemName, 0)) : nullptr;
    return write != nullptr && read != nullptr;
}

void SemManager::Publish(sem_t* write, sem_t* read) {
    RetireHandles(sem, readsem);
    readsem = read;
    gOpened = gOpening;
    __atomic_store_n(&sem, write, __ATOMIC_RELEASE);
}

void SemManager::Close(sem_t* write, sem_t* read) {
    sem_t* handles[2] = {write, read};
    CloseHandles(handles);
}

bool SemManager::OpenedLockIsCurrent() {
    const Identity now = LockIdentity();
    // No lock at all: no runtime to follow yet.
    return now == Identity{} || now == gOpened;
}

void SemManager::HoldPreviousLock() {
    sem_t* previous = OrNull(sem_open(kWriteSemName, 0));
    if (previous == nullptr) return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec deadline = DeadlineAfter(now, 100000000);
    // Taken or held by a process that died: either way nobody gets it any
    // more. Only this handle is closed; the semaphore stays as it is.
    while (sem_timedwait(previous, &deadline) != 0 && errno == EINTR) {
    }
    sem_close(previous);
}

void SemManager::CloseRetired(long long nowUs) {
    if (gRetired[0] != nullptr && nowUs - gRetiredAtUs >= kRetiredGraceUs) CloseHandles(gRetired);
}

// The handles are not closed at once: a thread may still be about to use one.
bool SemManager::Destory() {
    sem_unlink(kWriteSemName);
    sem_unlink(kReadSemName);
    sem_t* write = __atomic_exchange_n(&sem, nullptr, __ATOMIC_ACQ_REL);
    RetireHandles(write, std::exchange(readsem, nullptr));
    return true;
}

sem_t* SemManager::TimedLock(long timeoutNs) {
    sem_t* s = Current();
    if (s == nullptr) return nullptr;
    // A free lock needs no deadline and no clock read.
    if (sem_trywait(s) == 0) return s;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec deadline = DeadlineAfter(now, timeoutNs);
    for (int i = 0; i < kSpinAttempts; ++i) {
        __builtin_ia32_pause();
        if (sem_trywait(s) == 0) return s;
    }
    // A signal does not cost the record: the deadline is absolute.
    int rc;
    do {
        rc = sem_timedwait(s, &deadline);
    } while (rc == -1 && errno == EINTR);
    return rc == 0 ? s : nullptr;
}

void SemManager::Unlock(sem_t* taken) {
    sem_post(taken);
}

}  // namespace PF::Utils::LOG
