#include "transport/RingSalvage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "decode/RecordWalker.h"
#include "log/LogHead.h"
#include "log/RingHead.h"
#include "log/WriteLog.h"

namespace PF::Utils::LOG {
namespace {

constexpr unsigned kHeaderSize = 48;

unsigned Field(const char* header, unsigned offset) {
    unsigned value = 0;
    std::memcpy(&value, header + offset, sizeof value);
    return value;
}

// The unread bytes [consTail, prodTail) of a ring of capacity cap: from the
// consumer's release index, since a runtime killed while copying out had not
// written those bytes anywhere yet.
void TakeRecords(const char* header, unsigned cap, Salvage& salvage) {
    const unsigned consTail = Field(header, 36);
    const unsigned prodTail = Field(header, 28);
    const unsigned unread = prodTail - consTail;
    if (Field(header, 20) != cap || Field(header, 16) != cap - 1 || unread > cap) {
        salvage.damaged = true;
        return;
    }
    if (unread == 0) return;
    const char* data = header + kHeaderSize;
    std::vector<char> bytes(unread);
    const unsigned pos = consTail & (cap - 1);
    const unsigned first = unread < cap - pos ? unread : cap - pos;
    std::memcpy(bytes.data(), data + pos, first);
    std::memcpy(bytes.data() + first, data, unread - first);
    // Whole plausible records only, up to the first that is not.
    std::size_t at = 0;
    while (bytes.size() - at >= sizeof(LogHead)) {
        LogHead head;
        std::memcpy(&head, bytes.data() + at, sizeof head);
        const std::size_t size = sizeof head + std::size_t{head.functionLen} + head.programLen +
                                 head.tagLen + head.contentLen;
        if (!RecordWalker::PlausibleHeader(head) || size > bytes.size() - at ||
            !RecordWalker::PlausibleName(std::string_view(
                bytes.data() + at + sizeof head, std::size_t{head.functionLen} + head.programLen)))
            break;
        at += size;
        ++salvage.records;
    }
    bytes.resize(at);
    salvage.bytes = std::move(bytes);
}

}  // namespace

Salvage SalvageRing() {
    Salvage salvage;
    const int fd = shm_open("ZMLOG", O_RDONLY, 0);
    if (fd < 0) return salvage;
    salvage.found = true;
    struct stat st {};
    const unsigned long size = fstat(fd, &st) == 0 ? static_cast<unsigned long>(st.st_size) : 0;
    const unsigned long cap = size > kHeaderSize ? size - kHeaderSize : 0;
    if (cap == 0 || cap > 0x80000000UL || (cap & (cap - 1)) != 0) {
        salvage.damaged = size != 0;  // an empty object is a fresh one, not a damaged one
        close(fd);
        return salvage;
    }
    void* map = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) return salvage;
    TakeRecords(static_cast<const char*>(map), static_cast<unsigned>(cap), salvage);
    munmap(map, size);
    return salvage;
}

std::vector<char> Salvage::Notice() const {
    if (!found || (!damaged && records == 0)) return {};
    static constexpr char kFunction[] = "SalvageRing";
    static constexpr char kTag[] = "zmlog";
    const std::string content =
        damaged
            ? "the previous runtime's ring was damaged: nothing recovered"
            : "recovered " + std::to_string(records) + " records from the previous runtime's ring";
    const char* program = program_invocation_short_name;
    LogHead head{};
    head.flags = kWarn;
    head.functionLen = sizeof kFunction - 1;
    head.programLen = static_cast<std::uint16_t>(std::strlen(program));
    head.tagLen = sizeof kTag - 1;
    head.contentLen = static_cast<std::uint32_t>(content.size());
    head.threadId = 0;  // written by the library itself
    head.timeUs = detail::NowUs();
    std::vector<char> record(sizeof head);
    std::memcpy(record.data(), &head, sizeof head);
    for (const std::string_view part : {std::string_view(kFunction), std::string_view(program),
                                        std::string_view(kTag), std::string_view(content)})
        record.insert(record.end(), part.begin(), part.end());
    return record;
}

}  // namespace PF::Utils::LOG
