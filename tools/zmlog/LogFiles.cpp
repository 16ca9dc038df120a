#include "LogFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <utility>

#include "Options.h"

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr std::size_t kChunk = 1 << 20;

// The roll number of a name "<stem>_<n>" (n from 1, no leading zero), or 0.
unsigned long RollNumber(const std::string& name, std::string* stem) {
    const std::size_t bar = name.rfind('_');
    if (bar == std::string::npos || bar + 1 >= name.size() || name[bar + 1] == '0' ||
        name.size() - bar - 1 > 9) {
        return 0;
    }
    unsigned long n = 0;
    for (std::size_t i = bar + 1; i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9') return 0;
        n = n * 10 + static_cast<unsigned long>(name[i] - '0');
    }
    if (stem != nullptr) *stem = name.substr(0, bar);
    return n;
}

std::string SystemError(const std::string& what, const std::string& path, int error) {
    return what + " " + path + ": " + std::strerror(error);
}

}  // namespace

InputFile& InputFile::operator=(InputFile&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        path_ = std::move(other.path_);
        fd_ = std::exchange(other.fd_, -1);
        id_ = other.id_;
    }
    return *this;
}

InputFile::~InputFile() {
    if (fd_ >= 0) ::close(fd_);
}

RolledSet RolledSetOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    RolledSet set{slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash),
                  slash == std::string::npos ? path : path.substr(slash + 1)};
    std::string stem;
    if (RollNumber(set.stem, &stem) != 0) set.stem = stem;
    return set;
}

std::string PathIn(const std::string& dir, const std::string& name) {
    return dir.empty() || dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::vector<std::string> ListRolledSet(const std::string& dir, const std::string& stem) {
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) throw Error(SystemError("cannot read directory", dir, errno));
    std::vector<std::pair<unsigned long, std::string>> found;
    bool current = false;
    while (const dirent* e = ::readdir(d)) {
        const std::string name = e->d_name;
        std::string nameStem;
        if (name == stem) {
            current = true;
        } else if (const unsigned long n = RollNumber(name, &nameStem);
                   n != 0 && nameStem == stem) {
            found.emplace_back(n, name);
        }
    }
    ::closedir(d);
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<std::string> paths;
    for (const auto& entry : found) paths.push_back(PathIn(dir, entry.second));
    if (current) paths.push_back(PathIn(dir, stem));
    return paths;
}

std::vector<std::string> OrderRolledFiles(const std::vector<std::string>& files) {
    struct Entry {
        std::size_t group;
        unsigned long roll;
        std::size_t index;
    };
    std::map<std::string, std::size_t> groups;
    std::vector<Entry> entries;
    for (std::size_t i = 0; i < files.size(); ++i) {
        std::string stem;
        const unsigned long roll = RollNumber(files[i], &stem);
        const std::string& key = roll != 0 ? stem : files[i];
        const std::size_t group = groups.emplace(key, groups.size()).first->second;
        entries.push_back({group, roll, i});
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        if (a.group != b.group) return a.group < b.group;
        // The unnumbered file is the newest; larger numbers are older.
        if ((a.roll == 0) != (b.roll == 0)) return b.roll == 0;
        return a.roll > b.roll;
    });
    std::vector<std::string> ordered;
    for (const Entry& e : entries) ordered.push_back(files[e.index]);
    return ordered;
}

std::vector<InputFile> OpenFiles(const std::vector<std::string>& paths, bool vanishedOk) {
    std::vector<InputFile> newestFirst;
    std::set<std::pair<dev_t, ino_t>> seen;
    for (auto it = paths.rbegin(); it != paths.rend(); ++it) {
        const int fd = ::open(it->c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            if (vanishedOk && errno == ENOENT) continue;
            throw Error(SystemError("cannot open", *it, errno));
        }
        struct stat st {};
        if (::fstat(fd, &st) != 0) {
            const int error = errno;
            ::close(fd);
            throw Error(SystemError("cannot read", *it, error));
        }
        InputFile file(*it, fd, FileId{st.st_dev, st.st_ino});
        if (S_ISDIR(st.st_mode)) throw Error("cannot read " + *it + ": Is a directory");
        if (!seen.emplace(st.st_dev, st.st_ino).second) continue;
        newestFirst.push_back(std::move(file));
    }
    std::vector<InputFile> oldestFirst;
    for (auto it = newestFirst.rbegin(); it != newestFirst.rend(); ++it) {
        oldestFirst.push_back(std::move(*it));
    }
    return oldestFirst;
}

std::uint64_t ReadToEnd(int fd, const std::string& path, RecordSource& source) {
    std::uint64_t total = 0;
    for (;;) {
        const ssize_t n = ::read(fd, source.Reserve(kChunk), kChunk);
        if (n == 0) return total;
        if (n < 0) {
            if (errno == EINTR) continue;
            throw Error(SystemError("cannot read", path, errno));
        }
        source.Commit(static_cast<std::size_t>(n));
        total += static_cast<std::uint64_t>(n);
    }
}

}  // namespace PF::Utils::LOG::zmlog
