#include "TlsSession.h"

#include <arpa/inet.h>

#include "Transport.h"

namespace PF::Utils::LOG::zmlog {
namespace {

void Check(int rc, const char* what) {
    if (rc < 0) throw TransportError(std::string("TLS: ") + what + ": " + gnutls_strerror(rc));
}

bool IsAddress(const std::string& host) {
    unsigned char buf[16];
    return ::inet_pton(AF_INET, host.c_str(), buf) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

}  // namespace

TlsSession::TlsSession(int fd, const std::string& host, const TlsFiles& files) {
    try {
        Check(gnutls_certificate_allocate_credentials(&credentials_), "credentials");
        if (files.ca.empty()) {
            Check(gnutls_certificate_set_x509_system_trust(credentials_), "system CAs");
        } else {
            Check(gnutls_certificate_set_x509_trust_file(credentials_, files.ca.c_str(),
                                                         GNUTLS_X509_FMT_PEM),
                  files.ca.c_str());
        }
        if (!files.cert.empty()) {
            Check(gnutls_certificate_set_x509_key_file(credentials_, files.cert.c_str(),
                                                       files.key.c_str(), GNUTLS_X509_FMT_PEM),
                  files.cert.c_str());
        }
        Check(gnutls_init(&session_, GNUTLS_CLIENT), "init");
        Check(gnutls_set_default_priority(session_), "priority");
        Check(gnutls_credentials_set(session_, GNUTLS_CRD_CERTIFICATE, credentials_),
              "credentials");
        // A name is sent as SNI; an address is checked against the
        // certificate's IP addresses.
        if (!IsAddress(host))
            Check(gnutls_server_name_set(session_, GNUTLS_NAME_DNS, host.data(), host.size()),
                  "name");
        gnutls_session_set_verify_cert(session_, host.c_str(), 0);
        gnutls_transport_set_int(session_, fd);
        gnutls_handshake_set_timeout(session_, 10000);
        int rc;
        do {
            rc = gnutls_handshake(session_);
        } while (rc < 0 && gnutls_error_is_fatal(rc) == 0);
        if (rc == GNUTLS_E_CERTIFICATE_VERIFICATION_ERROR) {
            gnutls_datum_t text{};
            const unsigned status = gnutls_session_get_verify_cert_status(session_);
            gnutls_certificate_verification_status_print(status, GNUTLS_CRT_X509, &text, 0);
            const std::string why(reinterpret_cast<const char*>(text.data), text.size);
            gnutls_free(text.data);
            throw TransportError("TLS: the server's certificate is not trusted: " + why);
        }
        Check(rc, "handshake");
    } catch (...) {
        if (session_ != nullptr) gnutls_deinit(session_);
        if (credentials_ != nullptr) gnutls_certificate_free_credentials(credentials_);
        throw;
    }
}

TlsSession::~TlsSession() {
    gnutls_deinit(session_);
    gnutls_certificate_free_credentials(credentials_);
}

void TlsSession::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = gnutls_record_send(session_, bytes.data(), bytes.size());
        if (n == GNUTLS_E_INTERRUPTED) continue;
        // The socket's send time limit ran out.
        if (n == GNUTLS_E_AGAIN) throw TransportError("TLS: send timed out");
        if (n < 0) Check(static_cast<int>(n), "send");
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

void TlsSession::Bye() {
    gnutls_bye(session_, GNUTLS_SHUT_WR);
}

}  // namespace PF::Utils::LOG::zmlog
