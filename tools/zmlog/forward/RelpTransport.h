// Syslog over RELP, rsyslog's protocol with an acknowledgement for every
// message, with librelp (in TLS when TLS files are given). RELP servers
// answer in the order of the messages, and librelp keeps at most kWindow
// messages unanswered: so once a send returns, every message but the last
// kWindow + 1 is confirmed. Confirm() closes the session, which the server
// answers only after all the rest. A session that breaks is taken up again
// by librelp, which sends the unanswered messages once more.
#pragma once

#include <memory>
#include <string>

#include "Endpoint.h"
#include "TlsSession.h"
#include "Transport.h"

extern "C" {
#include <librelp.h>
}

namespace PF::Utils::LOG::zmlog {

class RelpTransport : public Transport {
  public:
    // tls: null for RELP in the clear.
    RelpTransport(Endpoint to, std::unique_ptr<TlsFiles> tls);
    ~RelpTransport() override;

    void Send(std::string_view message) override;
    void Flush() override {}
    std::size_t Unconfirmed() const override;
    void Confirm() override;
    std::size_t Reset() override;

    // What librelp reported last.
    void OnError(const char* what, const char* message);

  private:
    void Connect();
    [[noreturn]] void Fail(const std::string& what, relpRetVal rc);

    Endpoint to_;
    std::unique_ptr<TlsFiles> tls_;
    relpEngine_t* engine_ = nullptr;
    relpClt_t* client_ = nullptr;
    bool broken_ = false;   // client_'s session broke: reconnect before sending
    std::size_t sent_ = 0;  // messages sent since the session last closed cleanly
    std::string lastError_;
    bool failed_ = false;  // librelp reported an error since this was cleared
};

}  // namespace PF::Utils::LOG::zmlog
