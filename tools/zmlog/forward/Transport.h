// Where forwarded messages go: a syslog collector over TCP, TLS, UDP or
// RELP, or standard output. A transport says how many of the messages sent
// last are not known to be delivered yet; the forwarder moves its cursor
// only past the others.
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace PF::Utils::LOG::zmlog {

struct Options;

// The collector cannot be reached or dropped the connection: retried.
class TransportError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Transport {
  public:
    virtual ~Transport() = default;

    // Sends one message, connecting first when needed; may hold it until
    // Flush. Throws TransportError.
    virtual void Send(std::string_view message) = 0;
    // Hands over what Send held. Throws TransportError.
    virtual void Flush() = 0;
    // How many of the messages sent last are not known to be delivered.
    virtual std::size_t Unconfirmed() const = 0;
    // Waits until every message sent is confirmed, where the protocol can
    // tell. Throws TransportError.
    virtual void Confirm() {}
    // After an error: drops the connection (the next Send connects again)
    // and returns how many of the unconfirmed messages, the newest ones,
    // the caller must send again.
    virtual std::size_t Reset() = 0;
};

// The transport for --forward=URL, or for standard output (empty URL).
// Throws UsageError for a bad URL or TLS options where they do not apply.
std::unique_ptr<Transport> MakeTransport(const Options& o);

}  // namespace PF::Utils::LOG::zmlog
