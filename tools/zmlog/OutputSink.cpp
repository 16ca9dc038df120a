#include "OutputSink.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Options.h"

namespace PF::Utils::LOG::zmlog {

void OutputSink::Flush() {
    if (fd_ < 0) return;
    std::size_t done = 0;
    while (done < text_.size()) {
        const ssize_t n = ::write(fd_, text_.data() + done, text_.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            const int error = errno;
            text_.clear();
            throw Error(std::string("write error: ") + std::strerror(error));
        }
        done += static_cast<std::size_t>(n);
    }
    text_.clear();
}

}  // namespace PF::Utils::LOG::zmlog
