// A real rsyslogd on 127.0.0.1 that writes each raw message to a file before
// acknowledging it (no queue), so a SIGKILL loses nothing acknowledged.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <sstream>

#include "support/TestSupport.h"

namespace zmtest {

class Rsyslog {
  public:
    // input: "tcp", "tls", "udp", "relp" or "relp-tls"; over TLS both sides
    // show a certificate of a CA made in dir.
    Rsyslog(const std::string& dir, const std::string& input)
        : dir_(dir), input_(input), tls_(input.find("tls") != std::string::npos) {
        // A port nobody listens on now: the kernel's choice of a free one.
        const int fd = ::socket(AF_INET, input == "udp" ? SOCK_DGRAM : SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
            port_ = ntohs(a.sin_port);
        ::close(fd);
        std::filesystem::create_directories(dir_ + "/work");
        WriteFile(dir_ + "/rsyslog.conf", Config());
        certified_ = !tls_ || MakeCertificates();
    }
    // rsyslogd and the modules the inputs need are installed.
    static bool Available() {
        return Exists("/usr/sbin/rsyslogd") && Exists("/usr/bin/openssl") &&
               Exists("/usr/lib/x86_64-linux-gnu/rsyslog/imrelp.so") &&
               Exists("/usr/lib/x86_64-linux-gnu/rsyslog/lmnsd_gtls.so");
    }
    // Starts it and waits until it listens; false when it did not.
    bool Start() {
        process_ = std::make_unique<Child>(
            "/bin/sh", "sh",
            std::vector<std::string>{"-c", "exec /usr/sbin/rsyslogd -n -f " + dir_ +
                                               "/rsyslog.conf -i " + dir_ + "/pid >>" + dir_ +
                                               "/out 2>&1"});
        return certified_ && WaitUntil([&] { return Listening(); });
    }
    void Kill() {  // SIGKILL
        process_.reset();
        std::filesystem::remove(dir_ + "/pid");
    }
    std::string Url() const {
        return (input_ == "relp-tls" ? "relp" : input_) + "://127.0.0.1:" + std::to_string(port_);
    }
    // zmlog's arguments to forward here.
    std::vector<std::string> ForwardArgs() const {
        std::vector<std::string> args{"--forward=" + Url()};
        if (tls_)
            args.insert(args.end(),
                        {"--tls-ca=" + dir_ + "/ca.pem", "--tls-cert=" + dir_ + "/client.pem",
                         "--tls-key=" + dir_ + "/client.key"});
        return args;
    }
    // The messages received so far: whole lines only, it may be writing one.
    std::vector<std::string> Received() const {
        const std::string text = ReadFile(dir_ + "/received");
        return Lines(text.substr(0, text.rfind('\n') + 1));
    }
    std::string Errors() const { return ReadFile(dir_ + "/out"); }

  private:
    std::string Config() const {
        const std::string module = input_ == "udp"                            ? "imudp"
                                   : input_ == "relp" || input_ == "relp-tls" ? "imrelp"
                                                                              : "imtcp";
        const std::string ca = dir_ + "/ca.pem", cert = dir_ + "/server.pem",
                          key = dir_ + "/server.key";
        std::string c = "global(workDirectory=\"" + dir_ + "/work\" maxMessageSize=\"64k\"";
        if (input_ == "tls")
            c += " defaultNetstreamDriverCAFile=\"" + ca + "\" defaultNetstreamDriverCertFile=\"" +
                 cert + "\" defaultNetstreamDriverKeyFile=\"" + key + "\"";
        c += ")\nmodule(load=\"" + module + "\"";
        if (input_ == "tls")
            c += " streamDriver.name=\"gtls\" streamDriver.mode=\"1\" "
                 "streamDriver.authMode=\"x509/certvalid\"";
        c += ")\ntemplate(name=\"raw\" type=\"string\" string=\"%rawmsg%\\n\")\n"
             "ruleset(name=\"in\" queue.type=\"Direct\") {\n  action(type=\"omfile\" file=\"" +
             dir_ + "/received\" template=\"raw\")\n}\ninput(type=\"" + module + "\" port=\"" +
             std::to_string(port_) + "\" address=\"127.0.0.1\" ruleset=\"in\"";
        if (input_ == "udp") c += " rcvbufSize=\"16m\"";  // a burst must not overflow the socket
        if (input_ == "relp-tls")
            c += " tls=\"on\" tls.caCert=\"" + ca + "\" tls.myCert=\"" + cert +
                 "\" tls.myPrivKey=\"" + key + "\" tls.authMode=\"certvalid\"";
        return c + ")\n";
    }
    // A CA, and a server and a client certificate from it (for localhost and
    // 127.0.0.1): ca.pem, server.pem/.key, client.pem/.key.
    bool MakeCertificates() const {
        const std::string script = R"(set -e
cd "$1"
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"; }
key ca.key
openssl req -x509 -new -key ca.key -out ca.pem -days 2 -subj "/CN=zmlog test CA"
for who in server client; do
  key $who.key
  openssl req -new -key $who.key -out $who.csr -subj /CN=localhost
  printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth,clientAuth\n' >$who.ext
  openssl x509 -req -in $who.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out $who.pem \
    -days 2 -extfile $who.ext
done
)";
        return Child("/bin/sh", "sh", {"-c", script, "sh", dir_}).Wait().exitCode == 0;
    }
    // Local address 127.0.0.1:port, listening (TCP 0A) or bound (UDP 07).
    bool Listening() const {
        char want[32];
        std::snprintf(want, sizeof want, "0100007F:%04X", port_);
        std::istringstream table(ReadFile(input_ == "udp" ? "/proc/net/udp" : "/proc/net/tcp"));
        for (std::string line, slot, local, remote, state; std::getline(table, line);) {
            std::istringstream(line) >> slot >> local >> remote >> state;
            if (local == want && state == (input_ == "udp" ? "07" : "0A")) return true;
        }
        return false;
    }

    std::string dir_, input_;
    bool tls_, certified_ = false;
    int port_ = 0;
    std::unique_ptr<Child> process_;
};

}  // namespace zmtest
