#include "Follower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "LogFiles.h"

namespace PF::Utils::LOG::zmlog {

Follower::Follower(std::string path, int fd, LogReader& reader, OutputSink& out)
    : path_(std::move(path)), fd_(fd), reader_(reader), out_(out) {
    struct stat st {};
    if (fd_ >= 0 && ::fstat(fd_, &st) == 0) {
        dev_ = st.st_dev;
        ino_ = st.st_ino;
        pos_ = ::lseek(fd_, 0, SEEK_CUR);
    }
}

Follower::~Follower() {
    if (fd_ >= 0) ::close(fd_);
}

void Follower::Drain() {
    if (fd_ >= 0) pos_ += static_cast<off_t>(ReadToEnd(fd_, path_, reader_));
}

void Follower::Open() {
    fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) return;  // gone again: the next round retries
    struct stat st {};
    ::fstat(fd_, &st);
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    pos_ = 0;
    Drain();
}

void Follower::Step() {
    Drain();
    struct stat st {};
    if (::stat(path_.c_str(), &st) == 0) {
        if (fd_ < 0) {
            Open();
        } else if (st.st_dev != dev_ || st.st_ino != ino_) {
            Drain();  // the last writes into the file that was rolled away
            ::close(fd_);
            Open();
        } else if (st.st_size < pos_) {
            // Cut short in place: the held partial record will never end.
            reader_.EndOfStream();
            ::lseek(fd_, 0, SEEK_SET);
            pos_ = 0;
            Drain();
        }
    }
    out_.Flush();
}

void Follower::Run() {
    for (;;) {
        Step();
        // 100 ms: new records show within about two archiver ticks.
        timespec pause{0, 100000000};
        while (::nanosleep(&pause, &pause) != 0 && errno == EINTR) {
        }
    }
}

}  // namespace PF::Utils::LOG::zmlog
