// Feeds arbitrary file contents to zmlog's reading code: the record walker,
// the filters, every output format and the statistics. Besides the
// sanitizers' checks it requires that reading the input in slices gives the
// same output as reading it in one piece, and that noise (random bytes
// seeded by the input) gives next to no record.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

#include "LogReader.h"
#include "Options.h"
#include "OutputSink.h"

using namespace PF::Utils::LOG;
using namespace PF::Utils::LOG::zmlog;

namespace {

// Reads data as the contents of one file; slice > 0 feeds it scrambled, as it
// stands on disk, slice bytes at a time.
std::string Read(const Options& o, const std::uint8_t* data, std::size_t size, std::size_t slice) {
    OutputSink out(-1);
    LogReader reader(o, true, out);
    RecordSource& source = reader.Source();
    if (slice == 0) {
        source.FeedPlain(reinterpret_cast<const char*>(data), size);
    } else {
        for (std::size_t at = 0; at < size; at += slice) {
            const std::size_t n = std::min(slice, size - at);
            char* room = source.Reserve(n);
            for (std::size_t i = 0; i < n; ++i) room[i] = static_cast<char>(data[at + i] ^ 0x80U);
            source.Commit(n);
        }
    }
    source.EndOfStream();
    reader.Finish();
    return std::move(out.Text());
}

// 16 KiB of noise from a generator seeded by the input: the walker's framing
// must take next to nothing of it for a record (10 MB give none).
void RequireFewRecordsFromNoise(const std::uint8_t* data, std::size_t size) {
    std::uint64_t seed = 1469598103934665603ULL;
    for (std::size_t i = 0; i < size; ++i) seed = (seed ^ data[i]) * 1099511628211ULL;
    std::mt19937_64 random(seed);
    std::string noise(16384, '\0');
    for (std::size_t i = 0; i < noise.size(); i += 8) {
        const std::uint64_t word = random();
        for (std::size_t k = 0; k < 8; ++k) noise[i + k] = static_cast<char>(word >> (8 * k));
    }
    RecordWalker walker;
    walker.Feed(noise.data(), noise.size(), [](WalkedRecord&) {});
    walker.Finish([](WalkedRecord&) {});
    if (walker.RecordCount() > 2) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("TZ", "UTC", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    RequireFewRecordsFromNoise(data, size);
    // The first byte picks the slice length, so records get cut everywhere.
    const std::uint8_t first = data[0];
    const std::size_t slice = 1 + first % 64U * 5U;
    ++data;
    --size;

    Options pipe;  // the library's own line, coloured
    pipe.output = OutputFormat::kPipe;
    Read(pipe, data, size, 0);

    // The other formats and the statistics depend on nothing but the input
    // (the library's line formatter keeps a calendar cache across calls):
    // slicing must not change them.
    for (OutputFormat format :
         {OutputFormat::kShort, OutputFormat::kJson, OutputFormat::kCat, OutputFormat::kVerbose}) {
        Options o;
        o.output = format;
        o.micro = format == OutputFormat::kShort && (first & 0x80U) != 0;
        if (Read(o, data, size, 0) != Read(o, data, size, slice)) std::abort();
    }
    Options stats;
    stats.stats = true;
    if (Read(stats, data, size, 0) != Read(stats, data, size, slice)) std::abort();

    Options filtered;
    filtered.minLevel = 2;
    filtered.grep = "a";
    filtered.tags = {"net"};
    filtered.lastOnly = true;
    filtered.last = 2;
    filtered.reverse = true;
    Read(filtered, data, size, slice);
    return 0;
}
