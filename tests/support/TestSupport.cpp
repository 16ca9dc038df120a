#include "support/TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdarg>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "decode/RecordWalker.h"

extern char** environ;

namespace zmtest {

std::string HelperPath() {
    return ZMLOG_HELPER_DIR "/LogHelper";
}

std::string ZmlogPath() {
    return ZMLOG_TOOLS_DIR "/zmlog/zmlog";
}

Child::Child(const std::string& program, const std::string& role,
             const std::vector<std::string>& args, const std::vector<std::string>& env,
             const std::string& cwd) {
    int pipes[3][2];
    for (auto& p : pipes)
        if (pipe2(p, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    // Everything the child needs is prepared before fork.
    std::vector<std::string> argvText{role};
    argvText.insert(argvText.end(), args.begin(), args.end());
    auto nameOf = [](const std::string& e) { return e.substr(0, e.find('=')); };
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) {
        bool replaced = false;
        for (const auto& mine : env) replaced = replaced || nameOf(mine) == nameOf(*e);
        if (!replaced) envText.emplace_back(*e);
    }
    for (const auto& mine : env)
        if (mine.find('=') != std::string::npos) envText.push_back(mine);
    std::vector<char*> argv, envp;
    for (auto& a : argvText) argv.push_back(a.data());
    for (auto& e : envText) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
        for (int fd = 0; fd < 3; ++fd) dup2(pipes[fd][fd == 0 ? 0 : 1], fd);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    for (int fd = 0; fd < 3; ++fd) {
        close(pipes[fd][fd == 0 ? 0 : 1]);
        fds_[fd] = pipes[fd][fd == 0 ? 1 : 0];
    }
}

Child::~Child() {
    if (!reaped_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (int fd : fds_)
        if (fd >= 0) close(fd);
}

void Child::Send(const std::string& line) {
    const std::string text = line + "\n";
    if (fds_[0] >= 0 && write(fds_[0], text.data(), text.size()) < 0) {
        close(fds_[0]);
        fds_[0] = -1;
    }
}

void Child::Pump(int timeoutMs) {
    pollfd p[2] = {{fds_[1], POLLIN, 0}, {fds_[2], POLLIN, 0}};
    if (poll(p, 2, timeoutMs) <= 0) return;
    char buf[65536];
    for (int i = 0; i < 2; ++i) {
        if (p[i].fd < 0 || (p[i].revents & (POLLIN | POLLHUP)) == 0) continue;
        const ssize_t r = read(p[i].fd, buf, sizeof buf);
        if (r > 0) (i == 0 ? out_ : err_).append(buf, static_cast<size_t>(r));
        if (r == 0) {
            close(p[i].fd);
            fds_[i + 1] = -1;
        }
    }
}

bool Child::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (out_.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline || fds_[1] < 0) return false;
        Pump(10);
    }
    return true;
}

ProcessResult Child::Wait(std::chrono::milliseconds timeout) {
    if (reaped_) return result_;
    int status = 0;
    const auto ended = [&] {
        Pump(0);
        return waitpid(pid_, &status, WNOHANG) == pid_;
    };
    if (!WaitUntil(ended, timeout)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    while (fds_[1] >= 0 || fds_[2] >= 0) Pump(100);
    reaped_ = true;
    if (WIFEXITED(status)) result_.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result_.signal = WTERMSIG(status);
    result_.out = out_;
    result_.err = err_;
    return result_;
}

bool WaitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::string ReadFile(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void WriteFile(const std::string& path, const std::string& bytes, bool append) {
    std::ofstream(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc)) << bytes;
}

bool Exists(const std::string& path) {
    return FileSize(path) >= 0;
}

long FileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

void Figure(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::printf("[ figures  ] ");
    std::vprintf(format, args);
    std::printf("\n");
    std::fflush(stdout);
    va_end(args);
}

std::string CaptureFd(int fd, const std::function<void()>& fn) {
    fflush(nullptr);
    char path[] = "/tmp/zmlog-capture-XXXXXX";
    const int tmp = mkstemp(path);
    unlink(path);
    const int saved = dup(fd);
    dup2(tmp, fd);
    fn();
    fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    const std::string text = ReadFile("/proc/self/fd/" + std::to_string(tmp));
    close(tmp);
    return text;
}

std::string Unscramble(std::string bytes) {
    for (char& c : bytes) c = static_cast<char>(static_cast<unsigned char>(c) ^ 0x80U);
    return bytes;
}

std::vector<Record> WalkRecords(const std::string& bytes, std::uint64_t* skipped) {
    std::vector<Record> records;
    PF::Utils::LOG::RecordWalker walker;
    const auto keep = [&records](PF::Utils::LOG::WalkedRecord& w) {
        records.push_back({w.head, std::string(w.function), std::string(w.program),
                           std::string(w.tag), std::string(w.content)});
    };
    walker.Feed(bytes.data(), bytes.size(), keep);
    walker.Finish(keep);
    if (skipped != nullptr) *skipped += walker.SkippedBytes();
    return records;
}

std::string MakeRecord(const std::string& function, const std::string& program,
                       const std::string& tag, const std::string& content, unsigned level,
                       unsigned valueType, bool binary, unsigned threadId, long long timeUs,
                       unsigned component) {
    PF::Utils::LOG::LogHead h{static_cast<std::uint16_t>((binary ? 8U : 0U) | level),
                              static_cast<std::uint16_t>(program.size()),
                              static_cast<std::uint16_t>(function.size()),
                              static_cast<std::uint16_t>(tag.size()),
                              static_cast<std::uint32_t>(content.size()),
                              valueType,
                              threadId,
                              component,
                              timeUs};
    return std::string(reinterpret_cast<const char*>(&h), sizeof h) + function + program + tag +
           content;
}

namespace {
void RemoveGlobalNames() {
    shm_unlink("ZMLOG");
    sem_unlink("/WriteLOG");
    sem_unlink("/ReadLOG");
}
}  // namespace

GlobalNamesLock::GlobalNamesLock() {
    fd_ = open("/dev/shm/zmlog-global-names.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ >= 0) flock(fd_, LOCK_EX);
    RemoveGlobalNames();
}

GlobalNamesLock::~GlobalNamesLock() {
    RemoveGlobalNames();
    if (fd_ >= 0) close(fd_);
}

}  // namespace zmtest
