#include "RelpTransport.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>

namespace PF::Utils::LOG::zmlog {
namespace {

// Unanswered messages at most: 512 keep a local rsyslogd busy (with 128 or
// 256, librelp often waits for answers and forwards half as fast), and bound
// what a forwarder killed outright sends twice after its restart.
constexpr int kWindow = 512;
// Seconds librelp waits for an answer before it gives the session up.
constexpr unsigned kTimeoutS = 10;

RelpTransport* gActive = nullptr;  // librelp's generic errors carry no pointer

void NoDebug(char*, ...) {}

void OnSessionError(void* user, char* what, char* message, relpRetVal) {
    static_cast<RelpTransport*>(user)->OnError(what, message);
}

void OnGenericError(char* what, char* message, relpRetVal) {
    if (gActive != nullptr) gActive->OnError(what, message);
}

bool IsAddress(const std::string& host) {
    unsigned char buf[16];
    return ::inet_pton(AF_INET, host.c_str(), buf) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

char* Text(const std::string& s) {
    return const_cast<char*>(s.c_str());
}

}  // namespace

RelpTransport::RelpTransport(Endpoint to, std::unique_ptr<TlsFiles> tls)
    : to_(std::move(to)), tls_(std::move(tls)) {
    if (relpEngineConstruct(&engine_) != RELP_RET_OK) throw TransportError("librelp: no engine");
    gActive = this;
    // librelp calls the debug hook unconditionally: it must be set.
    relpEngineSetDbgprint(engine_, NoDebug);
    relpEngineSetEnableCmd(engine_, reinterpret_cast<unsigned char*>(Text("syslog")),
                           eRelpCmdState_Required);
    relpEngineSetOnErr(engine_, OnSessionError);
    relpEngineSetOnGenericErr(engine_, OnGenericError);
    relpEngineSetDnsLookupMode(engine_, 0);
}

RelpTransport::~RelpTransport() {
    if (client_ != nullptr) relpEngineCltDestruct(engine_, &client_);
    relpEngineDestruct(&engine_);
    gActive = nullptr;
}

void RelpTransport::OnError(const char* what, const char* message) {
    failed_ = true;
    lastError_ = std::string(message != nullptr ? message : "error") +
                 (what != nullptr ? std::string(" (") + what + ")" : "");
}

void RelpTransport::Fail(const std::string& what, relpRetVal rc) {
    throw TransportError(what + ": " +
                         (failed_ ? lastError_ : "librelp error " + std::to_string(rc)));
}

void RelpTransport::Connect() {
    failed_ = false;
    relpRetVal rc = relpEngineCltConstruct(engine_, &client_);
    if (rc != RELP_RET_OK) Fail("RELP", rc);
    relpCltSetUsrPtr(client_, this);
    relpCltSetTimeout(client_, kTimeoutS);
    relpCltSetWindowSize(client_, kWindow);
    if (tls_) {
        rc = relpCltEnableTLS(client_);
        if (rc == RELP_RET_OK && !tls_->ca.empty()) rc = relpCltSetCACert(client_, Text(tls_->ca));
        if (rc == RELP_RET_OK && !tls_->cert.empty()) {
            rc = relpCltSetOwnCert(client_, Text(tls_->cert));
            if (rc == RELP_RET_OK) rc = relpCltSetPrivKey(client_, Text(tls_->key));
        }
        // The server's certificate must come from the CA and, for a host
        // name, carry that name; an address has no name to check.
        if (rc == RELP_RET_OK) {
            if (IsAddress(to_.host)) {
                rc = relpCltSetAuthMode(client_, Text("certvalid"));
            } else {
                rc = relpCltSetAuthMode(client_, Text("name"));
                if (rc == RELP_RET_OK) rc = relpCltAddPermittedPeer(client_, Text(to_.host));
            }
        }
    }
    if (rc == RELP_RET_OK) {
        rc = relpCltConnect(client_, AF_UNSPEC, reinterpret_cast<unsigned char*>(Text(to_.port)),
                            reinterpret_cast<unsigned char*>(Text(to_.host)));
    }
    if (rc != RELP_RET_OK) {
        relpEngineCltDestruct(engine_, &client_);
        client_ = nullptr;
        Fail("RELP", rc);
    }
    broken_ = false;
}

void RelpTransport::Send(std::string_view message) {
    if (client_ == nullptr) {
        Connect();
    } else if (broken_) {
        failed_ = false;
        const relpRetVal rc = relpCltReconnect(client_);
        if (rc != RELP_RET_OK) Fail("RELP", rc);
        broken_ = false;
    }
    failed_ = false;
    const relpRetVal rc = relpCltSendSyslog(
        client_, reinterpret_cast<unsigned char*>(const_cast<char*>(message.data())),
        message.size());
    if (rc != RELP_RET_OK) {
        broken_ = true;
        Fail("RELP", rc);
    }
    ++sent_;
}

std::size_t RelpTransport::Unconfirmed() const {
    return std::min<std::size_t>(sent_, kWindow + 1);
}

void RelpTransport::Confirm() {
    if (client_ == nullptr || sent_ == 0) return;
    if (broken_) throw TransportError("RELP: " + lastError_);
    // The close handshake: librelp waits for the answer to "close", which
    // comes after the answers to every message sent before it.
    failed_ = false;
    relpEngineCltDestruct(engine_, &client_);
    client_ = nullptr;
    if (failed_) throw TransportError("RELP: the session did not close cleanly: " + lastError_);
    sent_ = 0;
}

std::size_t RelpTransport::Reset() {
    if (client_ != nullptr) {
        // librelp sends the unanswered messages again when it reconnects.
        broken_ = true;
        return 0;
    }
    const std::size_t again = Unconfirmed();
    sent_ = 0;
    return again;
}

}  // namespace PF::Utils::LOG::zmlog
