#include "UdpTransport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace PF::Utils::LOG::zmlog {

UdpTransport::~UdpTransport() {
    if (fd_ >= 0) ::close(fd_);
}

void UdpTransport::Send(std::string_view message) {
    if (fd_ < 0) fd_ = ConnectSocket(to_, SOCK_DGRAM);
    for (;;) {
        if (::send(fd_, message.data(), message.size(), 0) >= 0) return;
        if (errno == EINTR) continue;
        // ECONNREFUSED: an earlier datagram found no listener (an ICMP
        // answer); this one was not sent and is tried again.
        throw TransportError(std::strerror(errno));
    }
}

std::size_t UdpTransport::Reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    return 0;
}

}  // namespace PF::Utils::LOG::zmlog
