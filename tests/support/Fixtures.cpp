#include "support/Fixtures.h"

#include <stdlib.h>

#include <sstream>
#include <stdexcept>

namespace zmtest {
namespace fs = std::filesystem;

Installation::Installation(const std::string& config) {
    char pattern[] = "/tmp/zmlog-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
    fs::create_directories(Home() + "/conf");
    fs::create_directories(Data());
    if (!config.empty()) WriteConfig(config);
}

Installation::~Installation() {
    if (exported_) {
        unsetenv("ZM_VELDOR_HOME");
        unsetenv("ZM_VELDOR_DATA");
    }
    std::error_code ec;
    fs::remove_all(root_, ec);
}

void Installation::ReplaceConfig(const std::string& text) const {
    WriteFile(ConfPath() + ".new", text);
    std::rename((ConfPath() + ".new").c_str(), ConfPath().c_str());
}

std::vector<std::string> Installation::Env() const {
    return {"ZM_VELDOR_HOME=" + Home(), "ZM_VELDOR_DATA=" + Data()};
}

void Installation::ExportEnv() {
    setenv("ZM_VELDOR_HOME", Home().c_str(), 1);
    setenv("ZM_VELDOR_DATA", Data().c_str(), 1);
    exported_ = true;
}

std::unique_ptr<Child> Installation::Start(const std::string& role,
                                           const std::vector<std::string>& steps,
                                           const std::vector<std::string>& env) const {
    std::vector<std::string> all = Env();
    all.insert(all.end(), env.begin(), env.end());
    return std::make_unique<Child>(HelperPath(), role, steps, all, root_);
}

ProcessResult Installation::Run(const std::string& role,
                                const std::vector<std::string>& steps) const {
    return Start(role, steps)->Wait();
}

std::unique_ptr<Child> Installation::StartZmlog(const std::vector<std::string>& args) const {
    return std::make_unique<Child>(ZmlogPath(), "zmlog", args,
                                   std::vector<std::string>{Env()[1], "ZM_VELDOR_HOME"}, root_);
}

ProcessResult Installation::Zmlog(const std::vector<std::string>& args) const {
    return StartZmlog(args)->Wait();
}

void Installation::AppendLog(const std::string& plain, const std::string& suffix) const {
    fs::create_directories(LogDir());
    WriteFile(DataFile() + suffix, Unscramble(plain), true);
}

void Installation::RollLog() const {  // RUNTIME.data -> _1 -> _2 ...
    int last = 0;
    while (Exists(DataFile() + "_" + std::to_string(last + 1))) ++last;
    for (int n = last; n >= 0; --n)
        fs::rename(DataFile() + (n ? "_" + std::to_string(n) : ""),
                   DataFile() + "_" + std::to_string(n + 1));
}

Runtime::Runtime(const Installation& install)
    : child_(install.Start("ZMRuntime", {"start", "wait", "release", "release"})) {
    EXPECT_TRUE(child_->WaitForOutput("started\n")) << child_->OutSoFar();
}

ProcessResult Runtime::Release() {
    child_->Send("");
    ProcessResult r = child_->Wait();
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("released 1\nreleased 0\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
    return r;
}

namespace {
// The seq and thread of one of the helper's records, "<role>-<seq>[/<t>]".
bool SeqOf(const Record& r, long& seq, unsigned& t) {
    t = 0;
    return r.tag == "seq" && r.content.rfind(r.program + "-", 0) == 0 &&
           std::sscanf(r.content.c_str() + r.program.size(), "-%ld/%u", &seq, &t) >= 1;
}
}  // namespace

DecodedLog::DecodedLog(const std::string& dataFile, long from) {
    int oldest = 0;
    while (Exists(dataFile + "_" + std::to_string(oldest + 1))) ++oldest;
    for (int i = oldest; i >= 1; --i) files.push_back(dataFile + "_" + std::to_string(i));
    if (Exists(dataFile)) files.push_back(dataFile);
    for (const std::string& file : files) {
        std::string plain = Unscramble(ReadFile(file));
        if (file == dataFile) plain.erase(0, static_cast<size_t>(from));
        for (Record& r : WalkRecords(plain, &damagedBytes)) records.push_back(std::move(r));
    }
    for (const Record& r : records) {
        long seq = -1;
        unsigned t = 0;
        corrupt +=
            r.tag == "seq" && r.head.threadId != 0 &&
            (!SeqOf(r, seq, t) || r.content != SeqContent(r.program, t, seq, r.content.size()));
    }
}

std::vector<long> DecodedLog::Seqs(const std::string& role, unsigned t) const {
    std::vector<long> seqs;
    for (const Record& r : records) {
        long seq = -1;
        unsigned thread = 0;
        if (r.program == role && SeqOf(r, seq, thread) && thread == t) seqs.push_back(seq);
    }
    return seqs;
}

std::vector<std::string> DecodedLog::Notices(const std::string& function) const {
    std::vector<std::string> contents;
    for (const Record& r : records)
        if (r.function == function) contents.push_back(r.content);
    return contents;
}

std::vector<long> Logged::Arrived() const {
    std::vector<long> seqs;
    for (long s = first; s < first + written; ++s)
        if (std::find(dropped.begin(), dropped.end(), s) == dropped.end()) seqs.push_back(s);
    return seqs;
}

std::vector<Logged> LogReports(const std::string& out) {
    std::vector<Logged> reports;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        Logged l;
        long count = 0;
        if (std::sscanf(line.c_str(), "logged %ld from %ld dropped %ld max_us %ld", &l.written,
                        &l.first, &count, &l.maxUs) != 4)
            continue;
        std::istringstream seqs(line.substr(std::min(line.find(':'), line.size())));
        seqs.ignore(1);
        for (long s; seqs >> s;) l.dropped.push_back(s);
        reports.push_back(l);
    }
    return reports;
}

}  // namespace zmtest
