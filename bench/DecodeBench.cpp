// Decoding throughput of a log tool: a 20 MiB binary log (unscrambled) read
// in 1 MiB buffers through the streaming parser, a record cut at a buffer end
// carried over to the next buffer.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "log/Decode.h"
#include "log/LogHead.h"

using namespace PF::Utils::LOG;

namespace {

const char* const kPrograms[] = {"ZMRuntime",     "Exec.Host",    "ProbeLOG", "EngineEmulation",
                                 "CellEmulation", "ShellConsole", "emu_core", "BusBridge"};
const char* const kFunctions[] = {"main",          "RunCycle",   "OnTimer", "HandleRequest",
                                  "UpdateOutputs", "ScanInputs", "Connect"};
const char* const kTags[] = {"", "net", "io", "cycle", "fieldbus", "license"};
const char* const kTexts[] = {"link up",
                              "cycle overrun by 12 us",
                              "device 3 answered",
                              "task Main started with priority 10",
                              "configuration reloaded from RUNTIMELOG.cfg",
                              "ok"};
// Byte width of each type code 1..13.
const unsigned kWidth[] = {0, 1, 1, 1, 1, 2, 2, 4, 4, 4, 8, 8, 8, 8};

void Append(std::vector<char>& out, const LogHead& head, const std::string& function,
            const std::string& program, const std::string& tag, const std::string& content) {
    const char* h = reinterpret_cast<const char*>(&head);
    out.insert(out.end(), h, h + sizeof head);
    for (const std::string* s : {&function, &program, &tag, &content}) {
        out.insert(out.end(), s->begin(), s->end());
    }
}

// Mostly text records, a quarter typed values, one in a hundred binary.
std::vector<char> BuildLog(std::size_t size) {
    std::mt19937 rng(7);
    std::vector<char> out;
    out.reserve(size + 4096);
    std::int64_t timeUs = 1700000000000000LL;
    while (out.size() < size) {
        LogHead head{};
        const std::string program = kPrograms[rng() % 8];
        const std::string function = kFunctions[rng() % 7];
        const std::string tag = kTags[rng() % 6];
        std::string content;
        const unsigned kind = rng() % 100;
        head.flags = static_cast<std::uint16_t>(rng() % 7);
        if (kind == 0) {
            head.flags |= kBinaryFlag;
            content.resize(8 + rng() % 40);
            for (char& c : content) c = static_cast<char>(rng());
        } else if (kind < 25) {
            head.valueType = 1 + rng() % 13;
            content.resize(kWidth[head.valueType]);
            for (char& c : content) c = static_cast<char>(rng());
            if (head.valueType == 1) content[0] = static_cast<char>(rng() % 2);
        } else {
            content = kTexts[rng() % 6];
        }
        head.programLen = static_cast<std::uint16_t>(program.size());
        head.functionLen = static_cast<std::uint16_t>(function.size());
        head.tagLen = static_cast<std::uint16_t>(tag.size());
        head.contentLen = static_cast<std::uint32_t>(content.size());
        head.threadId = 1000 + rng() % 16;
        head.timeUs = timeUs += rng() % 200;
        Append(out, head, function, program, tag, content);
    }
    return out;
}

std::vector<char>& Log() {
    static std::vector<char> log = BuildLog(20U << 20);
    return log;
}

void BM_StreamingDecode(benchmark::State& state) {
    std::vector<char>& data = Log();
    const auto bufferSize = static_cast<std::size_t>(state.range(0));
    std::int64_t lines = 0;
    for (auto _ : state) {
        LinesByProgram out;
        LogHead head{};
        bool pending = false;
        std::size_t at = 0;
        for (;;) {
            std::size_t left = data.size() - at;
            if (pending && left <= 32) {
                // A body this short cannot be handed over alone: resend it with its header.
                at -= 32;
                left += 32;
                pending = false;
            }
            if (left <= 32) break;
            const auto len = static_cast<unsigned>(std::min(bufferSize, left));
            auto [offset, more] = ParseLogline(head, data.data() + at, len, pending, out, "");
            at += offset;
            pending = more;
            for (const auto& entry : out) lines += static_cast<std::int64_t>(entry.second.size());
            out.clear();
        }
        benchmark::DoNotOptimize(at);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(data.size()));
    state.counters["lines"] =
        benchmark::Counter(static_cast<double>(lines), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StreamingDecode)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

}  // namespace
