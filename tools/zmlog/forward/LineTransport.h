// --output=syslog: the messages on standard output, one a line, for
// `logger` or any other tool. A write error ends zmlog (Error), it is not
// retried.
#pragma once

#include "OutputSink.h"
#include "Transport.h"

namespace PF::Utils::LOG::zmlog {

class LineTransport : public Transport {
  public:
    explicit LineTransport(int fd) : out_(fd) {}

    void Send(std::string_view message) override {
        out_.Text().append(message).push_back('\n');
        ++held_;
    }
    void Flush() override {
        out_.Flush();
        held_ = 0;
    }
    std::size_t Unconfirmed() const override { return held_; }
    std::size_t Reset() override { return 0; }

  private:
    OutputSink out_;
    std::size_t held_ = 0;
};

}  // namespace PF::Utils::LOG::zmlog
