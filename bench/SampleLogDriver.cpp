// Writes a realistic scrambled log file for reading benchmarks: records of
// several programs, levels, tags, text, typed and binary contents.
//   SampleLogDriver <file> [MiB=20]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "log/LogHead.h"

using PF::Utils::LOG::LogHead;

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: SampleLogDriver <file> [MiB]\n");
        return 2;
    }
    const size_t target = (argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 20) << 20;
    static const char* kPrograms[] = {"ZMRuntime", "CellEmulation", "EngineEmulation", "BusBridge",
                                      "ShellConsole"};
    static const char* kFunctions[] = {"Poll", "HandleFrame", "main", "OnTimer", "Cycle"};
    static const char* kTags[] = {"net", "io", "plc", "", "motion"};
    static const char* kTexts[] = {"link 3 up on eth0", "cycle overrun by 120 us",
                                   "axis 2 reached target position 1250.000 mm",
                                   "configuration reloaded", "watchdog kicked"};
    std::mt19937 rng(42);
    std::string out;
    out.reserve(target + 4096);
    long long timeUs = 1700000000000000LL;
    while (out.size() < target) {
        const unsigned pick = rng();
        std::string content;
        LogHead h{};
        const unsigned kind = pick % 10;
        if (kind < 6) {
            content = kTexts[(pick >> 4) % 5];
        } else if (kind < 9) {
            static const unsigned kCodes[] = {1, 2, 5, 6, 7, 8, 9, 10, 11, 12, 13};
            static const unsigned kWidths[] = {1, 1, 2, 2, 4, 4, 4, 8, 8, 8, 8};
            const unsigned i = (pick >> 4) % 11;
            h.valueType = kCodes[i];
            const unsigned long long v = rng();
            content.assign(reinterpret_cast<const char*>(&v), kWidths[i]);
        } else {
            content.assign(24, '\0');
            for (char& c : content) c = static_cast<char>(rng());
            h.flags = PF::Utils::LOG::kBinaryFlag;
        }
        const std::string program = kPrograms[(pick >> 8) % 5];
        const std::string function = kFunctions[(pick >> 12) % 5];
        const std::string tag = kTags[(pick >> 16) % 5];
        h.flags = static_cast<std::uint16_t>(h.flags | ((pick >> 20) % 7));
        h.programLen = static_cast<std::uint16_t>(program.size());
        h.functionLen = static_cast<std::uint16_t>(function.size());
        h.tagLen = static_cast<std::uint16_t>(tag.size());
        h.contentLen = static_cast<std::uint32_t>(content.size());
        h.threadId = 1000 + (pick >> 24) % 8;
        h.timeUs = timeUs += 37;
        out.append(reinterpret_cast<const char*>(&h), sizeof h);
        out += function + program + tag + content;
    }
    for (char& c : out) c = static_cast<char>(c ^ 0x80);
    FILE* f = std::fopen(argv[1], "wb");
    if (f == nullptr || std::fwrite(out.data(), 1, out.size(), f) != out.size()) return 1;
    std::fclose(f);
    std::printf("%zu bytes\n", out.size());
    return 0;
}
