// Feeds arbitrary file contents to zmlog's reading code: the record walker,
// the filters, every output format, the statistics and the syslog messages
// of --forward (each one line of valid UTF-8 within the size limit). Besides the
// sanitizers' checks it requires that reading the input in slices gives the
// same output as reading it in one piece, and that noise (random bytes
// seeded by the input) gives next to no record.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

#include "JsonFormat.h"
#include "LogReader.h"
#include "Options.h"
#include "OutputSink.h"
#include "forward/SyslogEncoder.h"
#include "log/LogHead.h"

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

// Every record as the syslog message --forward sends: one line (no control
// character but tab), valid UTF-8, at most kMaxMessage bytes.
void RequireSyslogMessagesInShape(const std::uint8_t* data, std::size_t size) {
    SyslogEncoder encoder(16, "fuzz");
    const Options o;
    RecordFormatter formatter(o, false);
    std::string message;
    RecordSource source([&](WalkedRecord& r, const SourceFile& file, std::uint64_t offset) {
        const bool typed = (r.head.flags & kBinaryFlag) == 0 && r.head.valueType != 0;
        message.clear();
        encoder.Append(r, typed ? formatter.Content(r) : std::string(), RecordPos{file.id, offset},
                       message);
        if (message.size() > kMaxMessage) std::abort();
        for (std::size_t i = 0; i < message.size();) {
            const auto c = static_cast<unsigned char>(message[i]);
            if ((c < 0x20 && c != '\t') || c == 0x7F) std::abort();
            const std::size_t n = c < 0x80 ? 1 : Utf8Length(message, i);
            if (n == 0) std::abort();
            i += n;
        }
    });
    source.FeedPlain(reinterpret_cast<const char*>(data), size);
    source.EndOfStream();
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

    RequireSyslogMessagesInShape(data, size);

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
