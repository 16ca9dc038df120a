#include "StreamTransport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace PF::Utils::LOG::zmlog {

StreamTransport::StreamTransport(Endpoint to, std::unique_ptr<TlsFiles> tls)
    : to_(std::move(to)), tlsFiles_(std::move(tls)) {}

StreamTransport::~StreamTransport() {
    Close();
}

void StreamTransport::Connect() {
    fd_ = ConnectSocket(to_, SOCK_STREAM);
    if (tlsFiles_) {
        try {
            tls_ = std::make_unique<TlsSession>(fd_, to_.host, *tlsFiles_);
        } catch (...) {
            Close();
            throw;
        }
    }
}

void StreamTransport::Close() {
    if (tls_) tls_->Bye();
    tls_.reset();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void StreamTransport::Send(std::string_view message) {
    if (fd_ < 0) Connect();
    // Written in pieces of about 256 KiB: large enough for few system calls.
    if (out_.size() >= (256U << 10)) Flush();
    char length[24];
    out_.append(length, std::to_chars(length, length + sizeof length, message.size()).ptr);
    out_.push_back(' ');
    out_.append(message);
    ++held_;
}

void StreamTransport::Flush() {
    if (out_.empty()) {
        held_ = 0;
        return;
    }
    if (fd_ < 0) Connect();
    if (tls_) {
        tls_->Write(out_);
    } else {
        for (std::size_t done = 0; done < out_.size();) {
            const ssize_t n = ::send(fd_, out_.data() + done, out_.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0)
                throw TransportError(errno == EAGAIN ? "send timed out" : std::strerror(errno));
            done += static_cast<std::size_t>(n);
        }
    }
    out_.clear();
    held_ = 0;
}

std::size_t StreamTransport::Reset() {
    Close();
    out_.clear();
    const std::size_t again = held_;
    held_ = 0;
    return again;
}

}  // namespace PF::Utils::LOG::zmlog
