// The steps that give a process its role: writer (attached to the runtime's
// shared ring), reader (the runtime, owner of the ring, monitor and archiver)
// or UP environment (private ring, own archiver writing text).
#pragma once

namespace PF::Utils::LOG {

bool InitWriteProcess();
bool CloseWriteProcess();
bool InitReadThread();
bool InitResourceAndReadThread();
bool CloseReadThreadAndResource();

// Keeps the library mapped even if its loader calls dlclose: for threads and
// handlers of its own that may still run.
void PinLibraryInMemory();

// Load-time constructor and unload-time destructor of the library.
void Init();
void CloseResource();

}  // namespace PF::Utils::LOG
