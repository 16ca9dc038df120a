// Syslog over TCP with octet-counting framing (RFC 6587: "LEN SP MSG"), in
// the clear or in TLS (RFC 5425). Messages are gathered and written at
// Flush; once written they count as delivered: TCP confirms nothing beyond
// the kernel's acceptance, so what a collector that dies holds in its
// buffers is lost.
#pragma once

#include <memory>
#include <string>

#include "Endpoint.h"
#include "TlsSession.h"
#include "Transport.h"

namespace PF::Utils::LOG::zmlog {

class StreamTransport : public Transport {
  public:
    // tls: null for plain TCP.
    StreamTransport(Endpoint to, std::unique_ptr<TlsFiles> tls);
    ~StreamTransport() override;

    void Send(std::string_view message) override;
    void Flush() override;
    std::size_t Unconfirmed() const override { return held_; }
    std::size_t Reset() override;

  private:
    void Connect();
    void Close();

    Endpoint to_;
    std::unique_ptr<TlsFiles> tlsFiles_;
    int fd_ = -1;
    std::unique_ptr<TlsSession> tls_;
    std::string out_;
    std::size_t held_ = 0;  // messages sent since the last Flush
};

}  // namespace PF::Utils::LOG::zmlog
