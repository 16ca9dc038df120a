#include "Cursor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "Options.h"

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr char kMagic[] = "zmlog-cursor 1\n";

std::string Failure(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

void WriteAll(int fd, const std::string& text, const std::string& path) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Error(Failure("cannot write cursor file", path));
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace

CursorState ReadCursor(const std::string& path, RecordPos& pos, std::string& problem) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return CursorState::kMissing;
        throw Error(Failure("cannot open cursor file", path));
    }
    char buf[256];
    std::size_t size = 0;
    for (;;) {
        const ssize_t n = ::read(fd, buf + size, sizeof buf - 1 - size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        size += static_cast<std::size_t>(n);
        if (size == sizeof buf - 1) break;
    }
    ::close(fd);
    buf[size] = '\0';
    if (size == 0) {
        problem = "it is empty";
        return CursorState::kDamaged;
    }
    std::uint64_t dev = 0;
    std::uint64_t ino = 0;
    std::uint64_t offset = 0;
    int end = 0;
    if (std::strlen(buf) != size ||
        std::sscanf(buf, "zmlog-cursor 1\nfile %" SCNu64 ":%" SCNu64 "\noffset %" SCNu64 "\n%n",
                    &dev, &ino, &offset, &end) != 3 ||
        static_cast<std::size_t>(end) != size ||
        std::strncmp(buf, kMagic, sizeof kMagic - 1) != 0) {
        problem = "it does not hold a position";
        return CursorState::kDamaged;
    }
    pos = RecordPos{FileId{dev, ino}, offset};
    return CursorState::kValid;
}

void WriteCursor(const std::string& path, const RecordPos& pos) {
    const std::string text = std::string(kMagic) + "file " + std::to_string(pos.file.dev) + ":" +
                             std::to_string(pos.file.ino) + "\noffset " +
                             std::to_string(pos.offset) + "\n";
    const std::string temporary = path + ".new";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw Error(Failure("cannot write cursor file", temporary));
    try {
        WriteAll(fd, text, temporary);
        if (::fsync(fd) != 0) throw Error(Failure("cannot write cursor file", temporary));
    } catch (...) {
        ::close(fd);
        throw;
    }
    ::close(fd);
    if (::rename(temporary.c_str(), path.c_str()) != 0)
        throw Error(Failure("cannot replace cursor file", path));
    // The rename itself must reach the disk, or a crash may bring back the
    // old cursor (harmless: records sent again) or none at all (worse).
    const std::size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
}

}  // namespace PF::Utils::LOG::zmlog
