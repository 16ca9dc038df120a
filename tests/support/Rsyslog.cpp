#include "support/Rsyslog.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include "support/TestSupport.h"

namespace zmtest {
namespace {

bool Udp(const std::string& input) {
    return input == "udp";
}

// A port nobody listens on now (the kernel's choice of a free one).
int FreePort(bool udp) {
    const int fd = ::socket(AF_INET, udp ? SOCK_DGRAM : SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    ::close(fd);
    return port;
}

std::string Config(const std::string& dir, const std::string& input, int port,
                   const std::string& certs) {
    const std::string ca = certs + "/ca.pem", cert = certs + "/server.pem",
                      key = certs + "/server.key";
    std::string c = "global(workDirectory=\"" + dir + "/work\" maxMessageSize=\"64k\"";
    if (input == "tls")
        c += " defaultNetstreamDriverCAFile=\"" + ca + "\" defaultNetstreamDriverCertFile=\"" +
             cert + "\" defaultNetstreamDriverKeyFile=\"" + key + "\"";
    const std::string module = input == "tls" || input == "tcp" ? "imtcp"
                               : input == "udp"                 ? "imudp"
                                                                : "imrelp";
    c += ")\nmodule(load=\"" + module + "\"";
    if (input == "tls")
        c += " streamDriver.name=\"gtls\" streamDriver.mode=\"1\" "
             "streamDriver.authMode=\"x509/certvalid\"";
    c += ")\ntemplate(name=\"raw\" type=\"string\" string=\"%rawmsg%\\n\")\n"
         "ruleset(name=\"in\" queue.type=\"Direct\") {\n  action(type=\"omfile\" file=\"" +
         dir + "/received\" template=\"raw\")\n}\ninput(type=\"" + module + "\" port=\"" +
         std::to_string(port) + "\" address=\"127.0.0.1\" ruleset=\"in\"";
    // A burst of datagrams must not overflow the socket.
    if (input == "udp") c += " rcvbufSize=\"16m\"";
    if (input == "relp-tls")
        c += " tls=\"on\" tls.caCert=\"" + ca + "\" tls.myCert=\"" + cert + "\" tls.myPrivKey=\"" +
             key + "\" tls.authMode=\"certvalid\"";
    return c + ")\n";
}

}  // namespace

bool MakeTestCertificates(const std::string& dir) {
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
    return Run("/bin/sh", "sh", {"-c", script, "sh", dir}).exitCode == 0;
}

Rsyslog::Rsyslog(const std::string& dir, const std::string& input, const std::string& certDir)
    : dir_(dir), input_(input), port_(FreePort(Udp(input))) {
    std::filesystem::create_directories(dir_ + "/work");
    WriteFile(dir_ + "/rsyslog.conf", Config(dir_, input_, port_, certDir));
}

Rsyslog::~Rsyslog() {
    Kill();
}

bool Rsyslog::Available() {
    return ::access("/usr/sbin/rsyslogd", X_OK) == 0 &&
           Exists("/usr/lib/x86_64-linux-gnu/rsyslog/imrelp.so") &&
           Exists("/usr/lib/x86_64-linux-gnu/rsyslog/lmnsd_gtls.so") &&
           ::access("/usr/bin/openssl", X_OK) == 0;
}

std::string Rsyslog::Url() const {
    const std::string scheme = input_ == "relp-tls" ? "relp" : input_;
    return scheme + "://127.0.0.1:" + std::to_string(port_);
}

bool Rsyslog::Listening() const {
    // Local address 127.0.0.1:port, listening (TCP 0A) or bound (UDP 07).
    char want[32];
    std::snprintf(want, sizeof want, "0100007F:%04X", port_);
    std::istringstream table(ReadFile(Udp(input_) ? "/proc/net/udp" : "/proc/net/tcp"));
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state;
        fields >> slot >> local >> remote >> state;
        if (local == want && state == (Udp(input_) ? "07" : "0A")) return true;
    }
    return false;
}

bool Rsyslog::Start() {
    const std::string conf = dir_ + "/rsyslog.conf";
    const std::string pidFile = dir_ + "/rsyslogd.pid";
    const std::string log = dir_ + "/rsyslogd.out";
    pid_ = ::fork();
    if (pid_ == 0) {
        const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        ::execl("/usr/sbin/rsyslogd", "rsyslogd", "-n", "-f", conf.c_str(), "-i", pidFile.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return WaitUntil([&] { return Listening(); }, std::chrono::seconds(10));
}

void Rsyslog::Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    std::filesystem::remove(dir_ + "/rsyslogd.pid");
}

std::vector<std::string> Rsyslog::Received() const {
    // Whole lines only: rsyslogd may be writing the last one.
    const std::string text = ReadFile(dir_ + "/received");
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

std::string Rsyslog::Errors() const {
    return ReadFile(dir_ + "/rsyslogd.out");
}

}  // namespace zmtest
