// Feeds arbitrary file contents to zmlog's reading code: the record walker,
// the filters, every output format and the statistics. Besides the
// sanitizers' checks it requires that reading the input in slices gives the
// same output as reading it in one piece.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "LogReader.h"
#include "Options.h"
#include "OutputSink.h"

using namespace PF::Utils::LOG::zmlog;

namespace {

// Reads data as the contents of one file; slice > 0 feeds it scrambled, as it
// stands on disk, slice bytes at a time.
std::string Read(const Options& o, const std::uint8_t* data, std::size_t size, std::size_t slice) {
    OutputSink out(-1);
    LogReader reader(o, true, out);
    if (slice == 0) {
        reader.FeedPlain(reinterpret_cast<const char*>(data), size);
    } else {
        for (std::size_t at = 0; at < size; at += slice) {
            const std::size_t n = std::min(slice, size - at);
            char* room = reader.Reserve(n);
            for (std::size_t i = 0; i < n; ++i) room[i] = static_cast<char>(data[at + i] ^ 0x80U);
            reader.Commit(n);
        }
    }
    reader.EndOfStream();
    reader.Finish();
    return std::move(out.Text());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // The first byte picks the slice length, so records get cut everywhere.
    const std::size_t slice = 1 + data[0] % 64U * 5U;
    ++data;
    --size;

    Options text;  // the library's own line, coloured
    Read(text, data, size, 0);

    // JSON and statistics depend on nothing but the input (the library's
    // line formatter keeps a calendar cache across calls): slicing must not
    // change them.
    Options json;
    json.json = true;
    if (Read(json, data, size, 0) != Read(json, data, size, slice)) std::abort();
    Options stats;
    stats.stats = true;
    if (Read(stats, data, size, 0) != Read(stats, data, size, slice)) std::abort();

    Options filtered;
    filtered.minLevel = 2;
    filtered.grep = "a";
    filtered.tags = {"net"};
    filtered.lastOnly = true;
    filtered.last = 2;
    Read(filtered, data, size, slice);
    return 0;
}
