#include "archive/LogFileHelpers.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

namespace PF::Utils::LOG {

bool CheckAndCreateDirectory(const std::string& dir) {
    namespace fs = std::filesystem;
    const fs::file_type type = fs::status(dir).type();
    if (type == fs::file_type::not_found || type == fs::file_type::none) {
        fs::create_directories(dir);
    }
    return true;
}

void CloseFile(FILE*& file) {
    if (file == nullptr) return;
    const int fd = fileno(file);
    // Sync before the stdio flush: every write is flushed on its own, so the
    // stdio buffer is already empty here.
    fdatasync(fd);
    // A long-running logger must not fill the page cache with its output.
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    std::fflush(file);
    std::fclose(file);
    file = nullptr;
}

}  // namespace PF::Utils::LOG
