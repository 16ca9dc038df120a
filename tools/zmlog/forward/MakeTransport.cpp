#include <unistd.h>

#include "LineTransport.h"
#include "Options.h"
#include "Transport.h"
#ifdef ZMLOG_FORWARD
#include "Endpoint.h"
#include "RelpTransport.h"
#include "StreamTransport.h"
#include "UdpTransport.h"
#endif

namespace PF::Utils::LOG::zmlog {

std::unique_ptr<Transport> MakeTransport(const Options& o) {
    const bool tlsOptions = !o.tlsCa.empty() || !o.tlsCert.empty();
    if (o.forward.empty()) {
        if (tlsOptions) throw UsageError("--tls-ca, --tls-cert and --tls-key need --forward");
        return std::make_unique<LineTransport>(STDOUT_FILENO);
    }
#ifdef ZMLOG_FORWARD
    Endpoint to = ParseEndpoint(o.forward);
    std::unique_ptr<TlsFiles> tls;
    if (to.scheme == "tls" || (to.scheme == "relp" && tlsOptions)) {
        tls = std::make_unique<TlsFiles>(TlsFiles{o.tlsCa, o.tlsCert, o.tlsKey});
    } else if (tlsOptions) {
        throw UsageError("--tls-ca, --tls-cert and --tls-key apply to tls:// and relp:// only");
    }
    if (to.scheme == "udp") return std::make_unique<UdpTransport>(std::move(to));
    if (to.scheme == "relp") return std::make_unique<RelpTransport>(std::move(to), std::move(tls));
    return std::make_unique<StreamTransport>(std::move(to), std::move(tls));
#else
    throw UsageError(
        "this zmlog was built without forwarding (librelp or GnuTLS was missing); "
        "--output=syslog prints the messages");
#endif
}

}  // namespace PF::Utils::LOG::zmlog
