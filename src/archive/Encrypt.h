// Scrambling of the binary log: bit 7 of every byte inverted, nothing else
// (no key, no header). The transform is its own inverse.
#pragma once

#include <cstdio>

namespace PF::Utils::LOG {

class Encrypt {
  public:
    Encrypt() = delete;

    // Scrambles size bytes in place; 0 (and no change) when size <= 0.
    static int EncryptBlock(void* data, int size);
    // Scrambles the caller's buffer in place, appends it to file and flushes.
    // Returns size whatever the write did: a short write is not detected.
    static int WriteBlockWithEntry(void* data, int size, FILE*& file);
};

}  // namespace PF::Utils::LOG
