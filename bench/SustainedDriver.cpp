// Sustained load through the whole reader path: this process is the runtime
// (ring, monitor, archiver writing RUNTIME.data) and a writer thread logs
// 200-byte records at a fixed rate. Afterwards the file is read back and the
// records that did not arrive are counted.
//   SustainedDriver <MB/s> <seconds> [<MB/s> <seconds> ...]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "BenchRole.h"

using namespace PF::Utils::LOG;
namespace fs = std::filesystem;

namespace {

// Enough rolled files to keep everything a run writes (60 s at 40 MB/s is
// 2.4 GB), so what is missing was lost on the way, not rolled away.
constexpr int kRollFiles = 400;

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Records in the rolled set, oldest file first.
long long CountRecords(const std::string& logDir) {
    long long records = 0;
    for (int i = kRollFiles; i >= 0; --i) {
        const std::string path = logDir + "/RUNTIME.data" + (i ? "_" + std::to_string(i) : "");
        std::string bytes = ReadAll(path);
        for (char& c : bytes) c = static_cast<char>(c ^ 0x80);
        size_t pos = 0;
        while (pos + sizeof(LogHead) <= bytes.size()) {
            LogHead h;
            std::memcpy(&h, bytes.data() + pos, sizeof h);
            pos += sizeof h + h.functionLen + h.programLen + h.tagLen + h.contentLen;
            if (pos <= bytes.size()) ++records;
        }
    }
    return records;
}

void RunAt(double mbPerSecond, double seconds) {
    char dirTemplate[] = "/tmp/zmlog-sustained-XXXXXX";
    const std::string root = mkdtemp(dirTemplate);
    fs::create_directories(root + "/home/conf");
    std::ofstream(root + "/home/conf/RUNTIMELOG.cfg")
        << "[log]\nlogActive=true\nlogLevel=info\nmaxFileRollNumber=" << kRollFiles << "\n";
    setenv("ZM_VELDOR_HOME", (root + "/home").c_str(), 1);
    setenv("ZM_VELDOR_DATA", (root + "/data").c_str(), 1);
    StartRuntimeLog();

    const std::string text(200 - 32 - 4 - 9 - 4, 'x');  // 200-byte records
    const double recordsPerSecond = mbPerSecond * 1e6 / 200.0;
    const auto start = std::chrono::steady_clock::now();
    long long written = 0;
    for (;;) {
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (elapsed >= seconds) break;
        const long long due = static_cast<long long>(elapsed * recordsPerSecond);
        if (written >= due) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        for (; written < due; ++written) {
            WriteLog<const char*>("load", text.c_str(), kInfo, "Load", 0, 0, 0, std::string());
        }
    }
    // One more tick for the archiver, then the release drains the rest.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ReleaseRuntimeLog();
    const long long arrived = CountRecords(root + "/data/log") - 1;  // minus the release notice
    std::printf("%6.1f MB/s for %4.0f s: written %lld, arrived %lld, lost %lld (%.3f%%)\n",
                mbPerSecond, seconds, written, arrived, written - arrived,
                written ? 100.0 * double(written - arrived) / double(written) : 0.0);
    std::fflush(stdout);
    fs::remove_all(root);
}

}  // namespace

int main(int argc, char** argv) {
    zmbench::RunAsRuntime(argv);
    if (argc < 3 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: SustainedDriver <MB/s> <seconds> [<MB/s> <seconds> ...]\n");
        return 2;
    }
    for (int i = 1; i + 1 < argc; i += 2) RunAt(std::atof(argv[i]), std::atof(argv[i + 1]));
    return 0;
}
