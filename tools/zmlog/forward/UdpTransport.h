// Syslog over UDP (RFC 5426): one message a datagram. Nothing is confirmed
// and nothing can be: a datagram the network or a busy collector drops is
// lost without a trace.
#pragma once

#include "Endpoint.h"
#include "Transport.h"

namespace PF::Utils::LOG::zmlog {

class UdpTransport : public Transport {
  public:
    explicit UdpTransport(Endpoint to) : to_(std::move(to)) {}
    ~UdpTransport() override;

    void Send(std::string_view message) override;
    void Flush() override {}
    std::size_t Unconfirmed() const override { return 0; }
    std::size_t Reset() override;

  private:
    Endpoint to_;
    int fd_ = -1;
};

}  // namespace PF::Utils::LOG::zmlog
