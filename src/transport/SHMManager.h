// The named shared-memory object "ZMLOG" that holds the ring. The reader
// creates, zeroes and unlinks it; writers only map and unmap it.
#pragma once

#include <cstdint>

namespace PF::Utils::LOG {

struct MemoryInfo {
    void* address;
    std::int32_t descriptor;
    std::uint32_t size;
};

class SHMManager {
  public:
    SHMManager() = delete;

    static bool OpenSHM(bool create);
    static bool GetSize();
    static bool Ftruncate();
    static bool OpenMMAP();
    static bool InitSHM();                      // writer: attach
    static bool CreateSHM(unsigned long size);  // reader: create and zero
    static bool DestroySHM();                   // unmap
    static bool DeleteSHM();                    // unlink
    static bool Sync();

    static MemoryInfo shmInfo;
};

}  // namespace PF::Utils::LOG
