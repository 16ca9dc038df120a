#include "RecordSource.h"

#include <algorithm>
#include <climits>
#include <utility>

#include "archive/Encrypt.h"

namespace PF::Utils::LOG::zmlog {

RecordSource::RecordSource(Sink sink)
    : walked_([this](WalkedRecord& r) { OnWalked(r); }), sink_(std::move(sink)) {}

void RecordSource::BeginFile(std::string path, FileId id, std::uint64_t from) {
    files_.push_back(SourceFile{std::move(path), id, streamEnd_, from});
}

char* RecordSource::Reserve(std::size_t n) {
    return reserved_ = walker_.Reserve(n);
}

void RecordSource::Commit(std::size_t n) {
    // The scrambling is its own inverse: the archiver's transform undoes it.
    for (std::size_t done = 0; done < n;) {
        const auto piece = static_cast<int>(std::min<std::size_t>(n - done, INT_MAX));
        Encrypt::EncryptBlock(reserved_ + done, piece);
        done += static_cast<std::size_t>(piece);
    }
    if (files_.empty()) BeginFile("", FileId{});
    streamEnd_ += n;
    walker_.Commit(n, walked_);
}

void RecordSource::FeedPlain(const char* data, std::size_t n) {
    if (files_.empty()) BeginFile("", FileId{});
    streamEnd_ += n;
    walker_.Feed(data, n, walked_);
}

void RecordSource::EndOfStream() {
    walker_.Finish(walked_);
    Damage(streamEnd_);
}

void RecordSource::Seek(std::uint64_t offset) {
    // Files from which nothing was read start where the next one does.
    while (at_ + 1 < files_.size() && files_[at_ + 1].streamStart <= offset) ++at_;
}

void RecordSource::Damage(std::uint64_t to) {
    while (accounted_ < to) {
        Seek(accounted_);
        const std::uint64_t fileEnd =
            at_ + 1 < files_.size() ? files_[at_ + 1].streamStart : UINT64_MAX;
        const std::uint64_t end = std::min(to, fileEnd);
        files_[at_].damagedBytes += end - accounted_;
        damaged_ += end - accounted_;
        accounted_ = end;
    }
}

void RecordSource::OnWalked(WalkedRecord& r) {
    Damage(r.offset);
    Seek(r.offset);
    const SourceFile& file = files_[at_];
    accounted_ = r.offset + r.size;
    sink_(r, file, file.fileStart + (r.offset - file.streamStart));
}

}  // namespace PF::Utils::LOG::zmlog
