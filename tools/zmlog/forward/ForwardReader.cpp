#include "ForwardReader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Options.h"

namespace PF::Utils::LOG::zmlog {
namespace {

// A batch: what one read brings, a few thousand records.
constexpr std::size_t kChunk = 256 << 10;
// Deleted files held at most: two files' worth of disk beyond the log's own.
constexpr std::size_t kHeldGone = 2;

struct Listed {
    std::string path;
    FileId id;
};

// The set by identity, oldest first; a file may vanish meanwhile.
std::vector<Listed> ListSet(const RolledSet& set) {
    std::vector<Listed> listed;
    for (std::string& path : ListRolledSet(set.dir, set.stem)) {
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0)
            listed.push_back({std::move(path), {st.st_dev, st.st_ino}});
    }
    return listed;
}

}  // namespace

bool ForwardReader::Known(const FileId& id) const {
    return std::find(done_.begin(), done_.end(), id) != done_.end() ||
           std::any_of(held_.begin(), held_.end(),
                       [&](const Held& h) { return h.file.Id() == id; });
}

bool ForwardReader::Start(const RecordPos* from) {
    const std::vector<Listed> listed = ListSet(set_);
    auto first = listed.begin();
    bool found = from == nullptr;
    if (from != nullptr) {
        const auto it = std::find_if(listed.begin(), listed.end(),
                                     [&](const Listed& l) { return l.id == from->file; });
        if (it != listed.end()) {
            found = true;
            for (auto l = listed.begin(); l != it; ++l) done_.push_back(l->id);
            first = it;
        }
    }
    std::vector<std::string> paths;
    for (auto l = first; l != listed.end(); ++l) paths.push_back(l->path);
    for (InputFile& f : OpenFiles(paths, true)) {
        Held h{std::move(f)};
        if (from != nullptr && found && h.file.Id() == from->file) {
            h.from = from->offset;
            if (::lseek(h.file.Fd(), static_cast<off_t>(h.from), SEEK_SET) < 0)
                throw Error("cannot read " + h.file.Path() + ": " + std::strerror(errno));
        }
        held_.push_back(std::move(h));
    }
    return found;
}

bool ForwardReader::ReadSome() {
    while (!held_.empty()) {
        Held& h = held_.front();
        if (!h.begun) {
            source_.BeginFile(h.file.Path(), h.file.Id(), h.from);
            h.begun = true;
        }
        const ssize_t n = ::read(h.file.Fd(), source_.Reserve(kChunk), kChunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw Error("cannot read " + h.file.Path() + ": " + std::strerror(errno));
        }
        if (n > 0) {
            source_.Commit(static_cast<std::size_t>(n));
            return true;
        }
        // Only the newest file grows: one with a newer file after it is
        // complete (the archiver closes a file before it rolls it).
        if (held_.size() == 1) return false;
        done_.push_back(h.file.Id());
        held_.pop_front();
    }
    return false;
}

std::uint64_t ForwardReader::Watch() {
    std::vector<Listed> listed;
    try {
        listed = ListSet(set_);
    } catch (const Error&) {
        return 0;  // the directory is away for now
    }
    // New: what comes after the newest file known; when that one has left
    // the set, whatever is not known.
    const FileId* newest = !held_.empty()   ? &held_.back().file.Id()
                           : !done_.empty() ? &done_.back()
                                            : nullptr;
    auto from = listed.begin();
    if (newest != nullptr) {
        const auto it = std::find_if(listed.begin(), listed.end(),
                                     [&](const Listed& l) { return l.id == *newest; });
        if (it != listed.end()) from = it + 1;
    }
    std::vector<std::string> paths;
    for (auto l = from; l != listed.end(); ++l) {
        if (!Known(l->id)) paths.push_back(l->path);
    }
    for (InputFile& f : OpenFiles(paths, true)) {
        if (!Known(f.Id())) held_.push_back(Held{std::move(f)});
    }
    // Identities of files gone from the set are forgotten: a new file may
    // get the inode of a deleted one.
    done_.erase(std::remove_if(done_.begin(), done_.end(),
                               [&](const FileId& id) {
                                   return std::none_of(listed.begin(), listed.end(),
                                                       [&](const Listed& l) { return l.id == id; });
                               }),
                done_.end());

    std::size_t gone = 0;
    for (const Held& h : held_) {
        struct stat st {};
        if (::fstat(h.file.Fd(), &st) == 0 && st.st_nlink == 0) ++gone;
    }
    std::uint64_t lost = 0;
    for (; gone > kHeldGone; --gone) lost += GiveUpOldest();
    return lost;
}

std::uint64_t ForwardReader::GiveUpOldest() {
    Held h = std::move(held_.front());
    held_.pop_front();
    // Counted by reading what was left of it; the record the stream holds
    // unfinished from it, if any, ends as damage in the next file.
    RecordSource counter([](WalkedRecord&, const SourceFile&, std::uint64_t) {});
    counter.BeginFile(h.file.Path(), h.file.Id());
    ReadToEnd(h.file.Fd(), h.file.Path(), counter);
    counter.EndOfStream();
    return counter.Records();
}

}  // namespace PF::Utils::LOG::zmlog
