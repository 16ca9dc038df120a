#include "Follower.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "Options.h"

namespace PF::Utils::LOG::zmlog {

Follower::Follower(RolledSet set, InputFile current, std::vector<FileId> older,
                   RecordSource& source)
    : set_(std::move(set)),
      path_(PathIn(set_.dir, set_.stem)),
      current_(std::move(current)),
      older_(std::move(older)),
      source_(source) {
    if (current_.IsOpen()) {
        const off_t at = ::lseek(current_.Fd(), 0, SEEK_CUR);
        pos_ = at > 0 ? static_cast<std::uint64_t>(at) : 0;
    }
}

bool Follower::Older(const FileId& id) const {
    return std::find(older_.begin(), older_.end(), id) != older_.end();
}

void Follower::Drain() {
    if (current_.IsOpen()) pos_ += ReadToEnd(current_.Fd(), current_.Path(), source_);
}

void Follower::Step() {
    Drain();
    struct stat st {};
    if (current_.IsOpen() && ::stat(path_.c_str(), &st) == 0 &&
        FileId{st.st_dev, st.st_ino} == current_.Id()) {
        if (static_cast<std::uint64_t>(st.st_size) < pos_) {
            // Cut short in place: the held partial record will never end.
            source_.EndOfStream();
            ::lseek(current_.Fd(), 0, SEEK_SET);
            pos_ = 0;
            source_.BeginFile(current_.Path(), current_.Id());
            Drain();
        }
        return;
    }
    ReadNewFiles();
}

void Follower::ReadNewFiles() {
    std::vector<std::string> paths;
    try {
        paths = ListRolledSet(set_.dir, set_.stem);
    } catch (const Error&) {
        return;  // the directory is away for now: the next round looks again
    }
    // The set by identity, oldest first; a file may vanish meanwhile.
    std::vector<std::pair<std::string, FileId>> listed;
    for (std::string& path : paths) {
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0)
            listed.emplace_back(std::move(path), FileId{st.st_dev, st.st_ino});
    }
    auto from = listed.begin();
    const auto it = std::find_if(listed.begin(), listed.end(),
                                 [&](const auto& f) { return f.second == current_.Id(); });
    if (current_.IsOpen() && it != listed.end()) {
        from = it + 1;  // everything after the current file is new
    } else {
        // The current file is gone (rolled out of the set, or deleted) or
        // there was none: what was not read yet is new.
        from = std::stable_partition(listed.begin(), listed.end(),
                                     [&](const auto& f) { return Older(f.second); });
    }
    // Identities of files gone from the set are forgotten: a new file may
    // get the inode of a deleted one.
    std::vector<FileId> keep;
    for (auto f = listed.begin(); f != from; ++f) keep.push_back(f->second);
    if (from == listed.end()) {
        older_ = std::move(keep);
        return;
    }
    std::vector<std::string> newer;
    for (auto f = from; f != listed.end(); ++f) newer.push_back(f->first);
    // Opened newest first: a roll meanwhile only renames an opened file.
    std::vector<InputFile> files = OpenFiles(newer, true);
    older_ = std::move(keep);
    for (InputFile& file : files) {
        if (file.Id() == current_.Id() || Older(file.Id())) continue;
        Drain();  // the last writes into the file that was rolled away
        if (current_.IsOpen()) older_.push_back(current_.Id());
        current_ = std::move(file);
        pos_ = 0;
        source_.BeginFile(current_.Path(), current_.Id());
        Drain();
    }
}

void Follower::Run(const volatile std::sig_atomic_t& stop, const std::function<void()>& afterStep) {
    while (stop == 0) {
        Step();
        afterStep();
        // 100 ms: new records show within about two archiver ticks.
        timespec pause{0, 100000000};
        while (stop == 0 && ::nanosleep(&pause, &pause) != 0 && errno == EINTR) {
        }
    }
}

}  // namespace PF::Utils::LOG::zmlog
