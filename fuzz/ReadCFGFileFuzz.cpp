// Reads arbitrary bytes as "RUNTIMELOG.cfg". The first byte picks where the
// rest is split in two parts, A and B. Checked: a file of A, a section header
// and B yields the same keys as A and then the header with B read one after
// the other (lines are independent but for the section gate); only known
// keys are stored, with trimmed, lower-case values and the level and switch
// normalised; and the loader's masks each stay in their own 16 bits.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>

#include "log/ConfManager.h"
#include "log/ReadCFGFile.h"

using namespace PF::Utils::LOG;

namespace {

void Require(bool ok) {
    if (!ok) std::abort();
}

// The file lives in memory; the parser opens it by its /proc path.
class MemoryFile {
  public:
    MemoryFile() : fd_(memfd_create("RUNTIMELOG.cfg", 0)) {
        if (fd_ < 0) std::abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~MemoryFile() { close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    const std::string& Holding(const std::string& text) {
        Require(ftruncate(fd_, 0) == 0);
        Require(pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
        return path_;
    }

  private:
    int fd_;
    std::string path_;
};

const std::set<std::string> kKeys = {"logLevel",
                                     "logActive",
                                     "PFMask",
                                     "RTMask",
                                     "HCMask",
                                     "HWMask",
                                     "console",
                                     "OutputMode",
                                     "maxFileRollNumber",
                                     "readerInterval",
                                     "writeMode",
                                     "program",
                                     "rateLimitBurst",
                                     "rateLimitIntervalMs",
                                     "shmGroup",
                                     "crashReport"};

void CheckEntries(const std::map<std::string, std::string>& mp) {
    for (const auto& [key, value] : mp) {
        Require(kKeys.count(key) == 1);
        if (!value.empty()) Require(value.front() != ' ' && value.back() != ' ');
        for (char c : value) Require(c != ';' && c != '#' && c != '\n' && !(c >= 'A' && c <= 'Z'));
        if (key == "logLevel") Require(value.size() == 1 && value[0] >= '0' && value[0] <= '6');
        if (key == "logActive") Require(value == "0" || value == "1");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    static MemoryFile file;
    const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::size_t cut = rest.size() * data[0] / 255;
    const std::string a = rest.substr(0, cut);
    const std::string b = rest.substr(cut);

    ConfManager::mp.clear();
    Require(ReadCFGFile(file.Holding(a + "\n[s]\n" + b)));
    const auto whole = ConfManager::mp;
    CheckEntries(whole);

    ConfManager::mp.clear();
    Require(ReadCFGFile(file.Holding(a)));
    Require(ReadCFGFile(file.Holding("[s]\n" + b)));
    Require(ConfManager::mp == whole);

    ConfManager::mp.clear();
    Require(ConfManager::ReadConfigFile(file.Holding(rest)));
    Require(ConfManager::logLevel <= 6 && ConfManager::logActive <= 1);
    Require(ConfManager::sPFMask <= 0xFFFFUL);
    Require((ConfManager::sRTMask & ~0xFFFF0000UL) == 0);
    Require((ConfManager::sHCMask & ~0xFFFF00000000UL) == 0);
    Require((ConfManager::sHWMask & ~0xFFFF000000000000UL) == 0);
    Require(ConfManager::sALLMask == (ConfManager::sPFMask | ConfManager::sRTMask |
                                      ConfManager::sHCMask | ConfManager::sHWMask));
    return 0;
}
