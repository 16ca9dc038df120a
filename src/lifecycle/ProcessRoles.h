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

// Load-time constructor and unload-time destructor of the library.
void Init();
void CloseResource();

}  // namespace PF::Utils::LOG
