#include "Endpoint.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Options.h"
#include "Transport.h"

namespace PF::Utils::LOG::zmlog {
namespace {

constexpr int kConnectTimeoutMs = 5000;
// A collector that takes nothing for this long is treated as gone.
constexpr int kSendTimeoutS = 10;

int TryConnect(const addrinfo& a, std::string& error) {
    const int fd =
        ::socket(a.ai_family, a.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a.ai_protocol);
    if (fd < 0) {
        error = std::strerror(errno);
        return -1;
    }
    if (::connect(fd, a.ai_addr, a.ai_addrlen) != 0) {
        if (errno != EINPROGRESS) {
            error = std::strerror(errno);
            ::close(fd);
            return -1;
        }
        pollfd p{fd, POLLOUT, 0};
        int n;
        do {
            n = ::poll(&p, 1, kConnectTimeoutMs);
        } while (n < 0 && errno == EINTR);
        int so = 0;
        socklen_t len = sizeof so;
        if (n == 0)
            so = ETIMEDOUT;
        else if (n < 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &so, &len) != 0)
            so = errno;
        if (so != 0) {
            error = std::strerror(so);
            ::close(fd);
            return -1;
        }
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    timeval limit{kSendTimeoutS, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return fd;
}

}  // namespace

Endpoint ParseEndpoint(const std::string& url) {
    const auto bad = [&](const std::string& why) {
        return UsageError(
            "bad URL '" + url + "' for --forward: " + why +
            " (tcp://HOST:PORT, tls://HOST:PORT, udp://HOST:PORT or relp://HOST:PORT)");
    };
    Endpoint e;
    e.url = url;
    const std::size_t colon = url.find("://");
    if (colon == std::string::npos) throw bad("no scheme");
    e.scheme = url.substr(0, colon);
    if (e.scheme != "tcp" && e.scheme != "tls" && e.scheme != "udp" && e.scheme != "relp")
        throw bad("unknown scheme '" + e.scheme + "'");
    std::string rest = url.substr(colon + 3);
    if (!rest.empty() && rest.back() == '/') rest.pop_back();
    std::size_t portAt;
    if (!rest.empty() && rest[0] == '[') {
        const std::size_t close = rest.find(']');
        if (close == std::string::npos) throw bad("no ']'");
        e.host = rest.substr(1, close - 1);
        portAt = close + 1;
    } else {
        portAt = rest.rfind(':');
        if (portAt == std::string::npos) throw bad("no port");
        e.host = rest.substr(0, portAt);
    }
    if (portAt >= rest.size() || rest[portAt] != ':') throw bad("no port");
    e.port = rest.substr(portAt + 1);
    if (e.host.empty()) throw bad("no host");
    const bool digits = !e.port.empty() && e.port.size() <= 5 &&
                        e.port.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || std::stoi(e.port) < 1 || std::stoi(e.port) > 65535) throw bad("bad port");
    return e;
}

int ConnectSocket(const Endpoint& to, int type) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = type;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int rc = ::getaddrinfo(to.host.c_str(), to.port.c_str(), &hints, &found);
    if (rc != 0) throw TransportError(to.host + ": " + ::gai_strerror(rc));
    std::string error = "no address";
    int fd = -1;
    for (const addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next)
        fd = TryConnect(*a, error);
    ::freeaddrinfo(found);
    if (fd < 0) throw TransportError(error);
    return fd;
}

}  // namespace PF::Utils::LOG::zmlog
