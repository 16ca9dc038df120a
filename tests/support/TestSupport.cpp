#include "support/TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

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
    int in[2];
    int out[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");

    // Everything the child needs is prepared before fork.
    std::vector<std::string> argvText{role};
    argvText.insert(argvText.end(), args.begin(), args.end());
    std::vector<std::string> envText;
    auto nameOf = [](const std::string& e) { return e.substr(0, e.find('=')); };
    for (char** e = environ; *e != nullptr; ++e) {
        bool replaced = false;
        for (const auto& mine : env) replaced = replaced || nameOf(mine) == nameOf(*e);
        if (!replaced) envText.emplace_back(*e);
    }
    for (const auto& mine : env) {
        if (mine.find('=') != std::string::npos) envText.push_back(mine);
    }
    std::vector<char*> argv;
    for (auto& a : argvText) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : envText) envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    inFd_ = in[1];
    outFd_ = out[0];
    errFd_ = err[0];
}

Child::~Child() {
    if (!reaped_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (int fd : {inFd_, outFd_, errFd_}) {
        if (fd >= 0) close(fd);
    }
}

void Child::Signal(int sig) const {
    kill(pid_, sig);
}

void Child::Send(const std::string& line) {
    const std::string text = line + "\n";
    if (inFd_ >= 0 && write(inFd_, text.data(), text.size()) < 0) {
        close(inFd_);
        inFd_ = -1;
    }
}

void Child::Pump(int timeoutMs) {
    pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0) return;
    char buf[65536];
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP)) == 0) continue;
        const ssize_t r = read(fds[i].fd, buf, sizeof buf);
        if (r > 0) {
            (i == 0 ? out_ : err_).append(buf, static_cast<size_t>(r));
        } else if (r == 0) {
            close(fds[i].fd);
            (i == 0 ? outFd_ : errFd_) = -1;
        }
    }
}

bool Child::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout, int times) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    auto seen = [&] {
        int n = 0;
        for (size_t at = out_.find(text); at != std::string::npos; at = out_.find(text, at + 1))
            ++n;
        return n >= times;
    };
    while (!seen()) {
        if (std::chrono::steady_clock::now() >= deadline || outFd_ < 0) return false;
        Pump(10);
    }
    return true;
}

ProcessResult Child::Wait(std::chrono::milliseconds timeout) {
    if (reaped_) return result_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
        if (outFd_ >= 0 || errFd_ >= 0) {
            Pump(5);
        } else {
            std::this_thread::sleep_for(2ms);
        }
        if (waitpid(pid_, &status, WNOHANG) == pid_) break;
        if (std::chrono::steady_clock::now() >= deadline) {
            result_.timedOut = true;
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
    }
    while (outFd_ >= 0 || errFd_ >= 0) Pump(100);
    reaped_ = true;
    if (WIFEXITED(status)) result_.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result_.signal = WTERMSIG(status);
    result_.out = out_;
    result_.err = err_;
    return result_;
}

ProcessResult Run(const std::string& program, const std::string& role,
                  const std::vector<std::string>& args, const std::vector<std::string>& env,
                  const std::string& cwd, std::chrono::milliseconds timeout) {
    Child child(program, role, args, env, cwd);
    return child.Wait(timeout);
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
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void WriteFile(const std::string& path, const std::string& bytes, bool append) {
    std::ofstream(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc)) << bytes;
}

bool Exists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

long FileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
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
    std::string text;
    lseek(tmp, 0, SEEK_SET);
    char buf[4096];
    for (ssize_t n; (n = read(tmp, buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    close(tmp);
    return text;
}

std::string Unscramble(std::string bytes) {
    for (char& c : bytes) c = static_cast<char>(static_cast<unsigned char>(c) ^ 0x80U);
    return bytes;
}

std::vector<Record> WalkRecords(const std::string& bytes, size_t* consumed) {
    std::vector<Record> records;
    size_t pos = 0;
    while (bytes.size() - pos >= sizeof(PF::Utils::LOG::LogHead)) {
        Record r;
        std::memcpy(&r.head, bytes.data() + pos, sizeof r.head);
        const size_t body =
            size_t{r.head.functionLen} + r.head.programLen + r.head.tagLen + r.head.contentLen;
        if (bytes.size() - pos - 32 < body) break;
        size_t at = pos + 32;
        for (auto [field, len] : {std::pair{&r.function, size_t{r.head.functionLen}},
                                  {&r.program, size_t{r.head.programLen}},
                                  {&r.tag, size_t{r.head.tagLen}},
                                  {&r.content, size_t{r.head.contentLen}}}) {
            *field = bytes.substr(at, len);
            at += len;
        }
        pos = at;
        records.push_back(std::move(r));
    }
    if (consumed != nullptr) *consumed = pos;
    return records;
}

std::string MakeRecord(const std::string& function, const std::string& program,
                       const std::string& tag, const std::string& content, unsigned level,
                       unsigned valueType, bool binary, unsigned threadId, long long timeUs,
                       unsigned component) {
    PF::Utils::LOG::LogHead h{};
    h.flags = static_cast<std::uint16_t>((binary ? 8U : 0U) | level);
    h.programLen = static_cast<std::uint16_t>(program.size());
    h.functionLen = static_cast<std::uint16_t>(function.size());
    h.tagLen = static_cast<std::uint16_t>(tag.size());
    h.contentLen = static_cast<std::uint32_t>(content.size());
    h.valueType = valueType;
    h.threadId = threadId;
    h.component = component;
    h.timeUs = timeUs;
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

void Figure(const std::string& text) {
    std::printf("[ figures  ] %s\n", text.c_str());
    std::fflush(stdout);
}

}  // namespace zmtest
