// A real rsyslogd for the forwarding tests, started in the foreground by the
// test on 127.0.0.1 with a free port and a configuration, pid file and work
// directory of its own. Whatever it receives it writes to a file as it
// arrived (the raw message, one a line); a ruleset without a queue writes
// each message before the acknowledgement RELP sends for it, so a SIGKILL
// loses nothing that was acknowledged.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zmtest {

// A CA, and a server and a client certificate from it (for localhost and
// 127.0.0.1), made with openssl in dir: ca.pem, server.pem/.key,
// client.pem/.key.
bool MakeTestCertificates(const std::string& dir);

class Rsyslog {
  public:
    // input: "tcp", "tls", "udp", "relp" or "relp-tls"; certificates from
    // MakeTestCertificates in certDir for the TLS ones (clients must show one).
    Rsyslog(const std::string& dir, const std::string& input, const std::string& certDir = "");
    ~Rsyslog();
    Rsyslog(const Rsyslog&) = delete;
    Rsyslog& operator=(const Rsyslog&) = delete;

    // rsyslogd and the modules the inputs need are installed.
    static bool Available();

    // Starts it and waits until it listens; false when it did not.
    bool Start();
    void Kill();  // SIGKILL
    int Port() const { return port_; }
    std::string Url() const;
    // The messages received so far.
    std::vector<std::string> Received() const;
    std::string Errors() const;  // what rsyslogd printed

  private:
    bool Listening() const;

    std::string dir_;
    std::string input_;
    int port_ = 0;
    pid_t pid_ = -1;
};

}  // namespace zmtest
