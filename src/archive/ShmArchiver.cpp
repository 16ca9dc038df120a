#include "archive/ShmArchiver.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>

#include "archive/Encrypt.h"
#include "archive/LogFileHelpers.h"
#include "archive/ThreadManager.h"
#include "common/Immortal.h"
#include "config/SharedAccess.h"
#include "lifecycle/LogStateManager.h"
#include "log/ConfManager.h"
#include "log/Control.h"
#include "log/RingHead.h"
#include "log/RollFile.h"
#include "transport/SHMManager.h"
#include "writer/CrashReport.h"

namespace PF::Utils::LOG {

namespace {

using ArchiverPtr = std::shared_ptr<ShmArchiver>;
ZMLOG_IMMORTAL detail::Immortal<ArchiverPtr> gArchiverHolder;

// init() may rewrite the output path and SetBaseLogDir the directory while
// the thread reads them; the lock only keeps the strings intact.
std::mutex gPathMutex;

void Report(const char* message) {
    std::fputs(message, stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void SleepOneTick() {
    timespec rest{0, 100000000};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

// Size of path; false when it does not exist (or cannot be queried).
bool StatSize(const std::string& path, unsigned long& size) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return false;
    size = static_cast<unsigned long>(st.st_size);
    return true;
}

// strtol of a configuration value; a missing key is added empty.
long ConfigNumber(const char* key) {
    return std::strtol(ConfManager::mp[key].c_str(), nullptr, 10);
}

}  // namespace

ArchiverPtr& ShmArchiver::sShmArch = ZMLOG_IMMORTAL_OBJECT(ArchiverPtr, gArchiverHolder);

ShmArchiver::~ShmArchiver() {
    ShmArchiver::StopThread();  // a destructor binds statically anyway
    SHMManager::DestroySHM();
    CloseFile(file_);
    delete[] readBuffer_;
    readBuffer_ = nullptr;
    if (sShmArch.get() == this) sShmArch.reset();
}

ArchiverPtr& ShmArchiver::GetInstancePtr() {
    if (!sShmArch) sShmArch = std::make_shared<ShmArchiver>();
    return sShmArch;
}

void ShmArchiver::SetBaseLogDir(const std::string& dir) {
    std::lock_guard<std::mutex> lock(gPathMutex);
    baseLogDir_ = dir;
}

std::string ShmArchiver::GetBaseLogDir() {
    std::lock_guard<std::mutex> lock(gPathMutex);
    return baseLogDir_;
}

std::string ShmArchiver::OutputPath() {
    std::lock_guard<std::mutex> lock(gPathMutex);
    return filePath_;
}

bool ShmArchiver::init() {
    programName_ = program_invocation_short_name;

    const long interval = ConfigNumber("readerInterval");
    readerInterval_ = interval == 0 ? 200 : static_cast<int>(interval);

    std::string dir = GetBaseLogDir();
    if (dir.empty()) {
        dir = ".";
        SetBaseLogDir(dir);
    }
    CheckAndCreateDirectory(dir);
    detail::Restrict(dir, 0750);
    {
        std::lock_guard<std::mutex> lock(gPathMutex);
        filePath_ = IsUPEnvironment() ? dir + "/" + programName_ + ".log" : dir + "/RUNTIME.data";
    }
    if (IsUPEnvironment()) detail::NoteTextLogPath(filePath_);

    long maxRoll = ConfigNumber("maxFileRollNumber");
    if (maxRoll <= 0) maxRoll = 10;
    // Left to us: a count beyond int is as good as unbounded.
    maxRollNumber_ = maxRoll > INT_MAX ? INT_MAX : static_cast<int>(maxRoll);

    // Not closed: while stopped no file is open.
    if (!running_.load()) file_ = nullptr;
    return true;
}

void ShmArchiver::StartThread() {
    if (running_.load()) return;
    readBuffer_ = new char[READ_BUFFER_LENGTH];
    // Touched once here, so that no drain faults pages in while it holds the
    // ring's lock (a writer waits at most 1 ms for it).
    std::memset(readBuffer_, 0, READ_BUFFER_LENGTH);
    running_.store(true);
    thread_ = std::thread(&ShmArchiver::WriteBinaryFile, this);
    if (const int cpu = bindCpu_.load(); cpu != -1) ThreadManager::SetThreadAffinity(thread_, cpu);
    pthread_setname_np(thread_.native_handle(), "ShmReadToBinary");
}

void ShmArchiver::StopThread() {
    if (!running_.load()) return;
    running_.store(false);
    if (thread_.joinable()) thread_.join();
    CloseFile(file_);
    delete[] readBuffer_;
    readBuffer_ = nullptr;
}

void ShmArchiver::RestartInForkedChild() {
    if (!running_.load()) return;
    // The parent's thread handle means nothing here: dropped, not joined.
    new (&thread_) std::thread();
    running_.store(false);
    // The parent's FILE may be locked by its archiver, mid-write: only the
    // descriptor, the child's own copy, is closed.
    if (file_ != nullptr) close(fileno(file_));
    file_ = nullptr;
    delete[] readBuffer_;
    readBuffer_ = nullptr;
    StartThread();
}

void ShmArchiver::SetBindCpuNum(int cpu) {
    // Whatever the value: -1 on a running thread reports the affinity error.
    if (running_.load()) ThreadManager::SetThreadAffinity(thread_, cpu);
    bindCpu_ = cpu;
}

int ShmArchiver::ProbeRollIndex() {
    const std::string path = OutputPath();
    int found = kProbeLimit;
    for (int i = 0; i < kProbeLimit; ++i) {
        const std::string candidate = i == 0 ? path : path + "_" + std::to_string(i);
        unsigned long ignored = 0;
        if (!StatSize(candidate, ignored)) {
            found = i == 0 ? 0 : i - 1;
            break;
        }
    }
    return found < maxRollNumber_ - 1 ? found : maxRollNumber_ - 1;
}

void ShmArchiver::WriteBlock(unsigned n) {
    if (IsUPEnvironment()) {
        std::fwrite(readBuffer_, n, 1, file_);
        std::fflush(file_);
    } else {
        Encrypt::WriteBlockWithEntry(readBuffer_, static_cast<int>(n), file_);
    }
}

FILE* ShmArchiver::OpenOutput(const std::string& path) {
    if (!detail::CurrentSharedAccess().restricted) return std::fopen(path.c_str(), "ab");
    // Created for the owner alone, then given to the group: never readable
    // by others, not even between the open and the change of mode.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd < 0) return nullptr;
    detail::Restrict(fd, 0640);
    FILE* file = fdopen(fd, "ab");
    if (file == nullptr) close(fd);
    return file;
}

void ShmArchiver::Roll(unsigned n, int& rollIndex, unsigned long& currentSize, int& tick) {
    const std::string path = OutputPath();
    CloseFile(file_);
    ++rollIndex;
    for (int attemptsLeft = kRollAttempts; attemptsLeft > 0;) {
        RollFile(path, rollIndex, maxRollNumber_);
        file_ = OpenOutput(path);
        if (!StatSize(path, currentSize)) {
            currentSize = 0;
            break;
        }
        if (currentSize == 0) break;
        Report("Roll File Create New File Get file size not equal 0");
        CloseFile(file_);
        --attemptsLeft;
    }
    tick = 0;
    if (file_ == nullptr) return;  // the block is dropped
    WriteBlock(n);
    currentSize += n;
}

bool ShmArchiver::HandleVanishedFile(unsigned long& currentSize, int& tick) {
    CloseFile(file_);
    if (GetBaseLogDir() == "/usb/log") {
        // The USB medium was pulled: by design the thread ends itself instead
        // of recreating the file, and leaves the running flag set.
        LogStateManager::GetInstance()->ResetState();
        return true;
    }
    const std::string path = OutputPath();
    file_ = OpenOutput(path);
    tick = 0;
    if (!StatSize(path, currentSize)) {
        currentSize = 0;
    } else if (currentSize != 0) {
        Report("new create file size not equal 0");
        CloseFile(file_);
    }
    return false;
}

bool ShmArchiver::Archive(unsigned n, int& rollIndex, unsigned long& currentSize, int& tick) {
    if (currentSize + n > kFileSizeLimit) {
        Roll(n, rollIndex, currentSize, tick);
        return false;
    }
    unsigned long ignored = 0;
    if (!StatSize(OutputPath(), ignored) && HandleVanishedFile(currentSize, tick)) return true;
    if (file_ == nullptr) return false;  // the block is dropped
    WriteBlock(n);
    // Counted even when the write failed.
    currentSize += n;
    return false;
}

void ShmArchiver::SetSalvage(Salvage salvage) {
    salvage_.clear();
    salvage_.push_back(std::move(salvage.bytes));
    salvage_.push_back(salvage.Notice());
}

int ShmArchiver::WriteBinaryFile() {
    ThreadManager::StartedByTheLibrary(bindCpu_.load());
    if (readBuffer_ == nullptr) {
        Report("Buffer Null");
        return 0;
    }
    const std::string startPath = OutputPath();
    file_ = OpenOutput(startPath);
    if (file_ == nullptr) {
        Report("file open fail");
        return 1;
    }
    unsigned long currentSize = 0;
    if (!StatSize(startPath, currentSize)) currentSize = 0;
    int rollIndex = ProbeRollIndex();

    int tick = 0;
    for (std::vector<char>& block : std::exchange(salvage_, {})) {
        if (block.empty() || block.size() > READ_BUFFER_LENGTH) continue;
        std::memcpy(readBuffer_, block.data(), block.size());
        if (Archive(static_cast<unsigned>(block.size()), rollIndex, currentSize, tick)) return 0;
    }
    while (running_.load()) {
        SleepOneTick();
        tick = (tick + 1) % kSyncPeriodTicks;
        if (tick == 0 && file_ != nullptr) fdatasync(fileno(file_));

        // A writer's reconfiguration (LogDoConfigure) clears the pointer while
        // this thread still runs.
        RingHead* ring = __atomic_load_n(&RingHead::instance, __ATOMIC_ACQUIRE);
        if (ring == nullptr) continue;
        // The shared ring is drained through its guard, which also mends it;
        // a private ring is this process's own memory.
        const unsigned n = IsUPEnvironment() ? ring->Dequeue(readBuffer_, READ_BUFFER_LENGTH)
                                             : guard_.Drain(ring, readBuffer_, READ_BUFFER_LENGTH);
        if (n == 0) continue;
        if (n > READ_BUFFER_LENGTH) {
            Report("Dequeue size greater READ_BUFFER_LENGTH");
            continue;
        }
        if (Archive(n, rollIndex, currentSize, tick)) return 0;
    }
    CloseFile(file_);
    return 0;
}

}  // namespace PF::Utils::LOG
