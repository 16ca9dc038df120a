#include "LossNotice.h"

#include <charconv>
#include <string_view>

namespace PF::Utils::LOG::zmlog {
namespace {

// Reads "<prefix><number>" at text; advances text past it.
bool Take(std::string_view& text, std::string_view prefix, std::uint64_t& number) {
    if (text.substr(0, prefix.size()) != prefix) return false;
    text.remove_prefix(prefix.size());
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool FromTheLibrary(const WalkedRecord& r) {
    return r.head.threadId == 0 && (r.tag == "zmlog" || r.function == "GenerateEmptyLog");
}

}  // namespace

bool AddLossNotice(const WalkedRecord& r, LossCounts& counts) {
    if (!FromTheLibrary(r)) return false;
    std::string_view text = r.content;
    std::uint64_t total = 0;
    LossCounts n;
    if (Take(text, "lost ", total) && Take(text, " records: lock busy ", n.lost[0]) &&
        Take(text, ", ring full ", n.lost[1]) && Take(text, ", too long ", n.lost[2]) &&
        Take(text, ", rate limited ", n.lost[3])) {
        for (std::size_t i = 0; i < n.lost.size(); ++i) counts.lost[i] += n.lost[i];
        return true;
    }
    text = r.content;
    std::uint64_t bytes = 0;
    if (Take(text, "discarded ", bytes) && text == " bytes of unread records") {
        counts.discardedBytes += bytes;
        return true;
    }
    return false;
}

bool IsGapNotice(const WalkedRecord& r) {
    LossCounts ignored;
    return FromTheLibrary(r) && (r.function == "GenerateEmptyLog" || AddLossNotice(r, ignored));
}

}  // namespace PF::Utils::LOG::zmlog
