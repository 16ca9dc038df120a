#include "support/Fixtures.h"

#include "decode/RecordWalker.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
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

void Installation::WriteConfig(const std::string& text) const {
    WriteFile(ConfPath(), text);
}

void Installation::AppendConfig(const std::string& line) const {
    WriteFile(ConfPath(), line + "\n", true);
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
                                           const std::vector<std::string>& steps) const {
    return std::make_unique<Child>(HelperPath(), role, steps, Env(), root_);
}

ProcessResult Installation::Run(const std::string& role,
                                const std::vector<std::string>& steps) const {
    return Start(role, steps)->Wait();
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

DecodedLog::DecodedLog(const std::string& dataFile, long from) {
    int oldest = 0;
    while (Exists(dataFile + "_" + std::to_string(oldest + 1))) ++oldest;
    for (int i = oldest; i >= 1; --i) files.push_back(dataFile + "_" + std::to_string(i));
    if (Exists(dataFile)) files.push_back(dataFile);
    for (const std::string& file : files) {
        std::string plain = Unscramble(ReadFile(file));
        if (file == dataFile) plain.erase(0, static_cast<size_t>(from));
        // As the readers of the log walk it: damaged bytes are skipped.
        PF::Utils::LOG::RecordWalker walker;
        const auto keep = [this](PF::Utils::LOG::WalkedRecord& w) {
            records.push_back({w.head, std::string(w.function), std::string(w.program),
                               std::string(w.tag), std::string(w.content)});
        };
        walker.Feed(plain.data(), plain.size(), keep);
        walker.Finish(keep);
        bytes += plain.size();
        damagedBytes += walker.SkippedBytes();
    }
}

std::vector<long> DecodedLog::Seqs(const std::string& role) const {
    std::vector<long> seqs;
    for (const Record& r : records) {
        if (r.program == role && r.content.compare(0, role.size() + 1, role + "-") == 0)
            seqs.push_back(std::strtol(r.content.c_str() + role.size() + 1, nullptr, 10));
    }
    return seqs;
}

std::vector<long> DroppedSeqs(const std::string& out) {
    std::vector<long> seqs;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const size_t colon = line.find(':');
        if (line.rfind("logged ", 0) != 0 || colon == std::string::npos) continue;
        std::istringstream in(line.substr(colon + 1));
        for (long s; in >> s;) seqs.push_back(s);
    }
    return seqs;
}

}  // namespace zmtest
