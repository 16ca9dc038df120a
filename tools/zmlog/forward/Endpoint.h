// A collector's address from --forward=URL: "tcp://HOST:PORT", "tls://...",
// "udp://...", "relp://..."; HOST may be a name, an IPv4 address or an IPv6
// address in brackets ("tcp://[::1]:514").
#pragma once

#include <string>

namespace PF::Utils::LOG::zmlog {

struct Endpoint {
    std::string scheme;
    std::string host;
    std::string port;
    std::string url;
};

// Throws UsageError.
Endpoint ParseEndpoint(const std::string& url);
// A socket of type (SOCK_STREAM, SOCK_DGRAM) connected to the endpoint, with
// a time limit for connecting and for every send. Throws TransportError.
int ConnectSocket(const Endpoint& to, int type);

}  // namespace PF::Utils::LOG::zmlog
