// Directory creation and the one way the archiver closes its files.
#pragma once

#include <cstdio>
#include <string>

namespace PF::Utils::LOG {

// Creates dir with its missing parents when nothing exists there. An existing
// non-directory is accepted (opening a file below it fails later). File-system
// errors propagate as std::filesystem::filesystem_error. Always true.
bool CheckAndCreateDirectory(const std::string& dir);

// Syncs, drops the file's cached pages, flushes and closes; file becomes null.
// A null handle is left alone.
void CloseFile(FILE*& file);

}  // namespace PF::Utils::LOG
