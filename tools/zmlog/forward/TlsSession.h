// TLS on a connected socket, with GnuTLS: the server's certificate is
// checked against the CA file and the host name (or IP address) of the URL;
// a certificate and key of our own are shown when the server asks for them.
#pragma once

#include <gnutls/gnutls.h>

#include <string>
#include <string_view>

namespace PF::Utils::LOG::zmlog {

struct TlsFiles {
    std::string ca;  // empty: the system's trusted CAs
    std::string cert;
    std::string key;
};

class TlsSession {
  public:
    // Handshakes on fd (not owned). Throws TransportError.
    TlsSession(int fd, const std::string& host, const TlsFiles& files);
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    // Throws TransportError.
    void Write(std::string_view bytes);
    // Tells the server the session ends (best effort).
    void Bye();

  private:
    gnutls_certificate_credentials_t credentials_ = nullptr;
    gnutls_session_t session_ = nullptr;
};

}  // namespace PF::Utils::LOG::zmlog
