#include "archive/Encrypt.h"

#include <cstddef>

namespace PF::Utils::LOG {

int Encrypt::EncryptBlock(void* data, int size) {
    if (size <= 0) return 0;
    auto* bytes = static_cast<unsigned char*>(data);
    const size_t total = static_cast<size_t>(size);
    const size_t whole = total / 16 * 16;
    // Fixed 16-byte groups: the compiler turns each into one vector XOR.
    for (size_t at = 0; at < whole; at += 16) {
        unsigned char* group = bytes + at;
        for (int i = 0; i < 16; ++i) group[i] ^= 0x80U;
    }
    for (size_t at = whole; at < total; ++at) bytes[at] ^= 0x80U;
    return size;
}

int Encrypt::WriteBlockWithEntry(void* data, int size, FILE*& file) {
    if (size == 0) return 0;
    EncryptBlock(data, size);
    // A negative size widened to a byte count would read far past the
    // buffer; nothing is written for it instead.
    if (size > 0) std::fwrite(data, static_cast<size_t>(size), 1, file);
    std::fflush(file);
    return size;
}

}  // namespace PF::Utils::LOG
