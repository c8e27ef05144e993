// TLS test helpers: certificates, configurations, a recording server and child processes.
#include "tlstestsupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace tlstest {

namespace {

bool run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// A P-256 key and a certificate request for `subject` in `dir`/`name`.key and .csr.
bool request(const std::string& dir, const std::string& name, const std::string& subject) {
    return run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + dir + "/" + name +
               ".key -out " + dir + "/" + name + ".csr -subj '" + subject + "'");
}

bool selfSignedCa(const std::string& dir, const std::string& name, const std::string& subject) {
    return run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -keyout " + dir +
               "/" + name + ".key -out " + dir + "/" + name + ".pem -subj '" + subject + "'");
}

// Signs `name`.csr with the CA `ca` for `days` days (negative: already expired) with `extensions`.
bool sign(const std::string& dir, const std::string& name, const std::string& ca, int days,
          const std::string& extensions) {
    const std::string ext = dir + "/" + name + ".ext";
    std::ofstream(ext) << extensions << "\n";
    return run("openssl x509 -req -in " + dir + "/" + name + ".csr -CA " + dir + "/" + ca + ".pem -CAkey " +
               dir + "/" + ca + ".key -CAcreateserial -days " + std::to_string(days) + " -extfile " + ext +
               " -out " + dir + "/" + name + ".pem");
}

// Makes the certificates in `d` unless an earlier suite of this build already did (the marker
// file is written last). Suites run in parallel, so one makes them under a lock while the others
// wait; certificates older than a day are made afresh (they are valid for two).
bool makeCertsIn(const std::string& d) {
    if (!run("mkdir -p '" + d + "'")) {
        return false;
    }
    const int lock = ::open((d + "/.lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (lock < 0 || flock(lock, LOCK_EX) != 0) {
        return false;
    }
    const std::string marker = d + "/complete";
    bool ok = run("test -n \"$(find '" + marker + "' -mmin -1440 2>/dev/null)\"");
    if (!ok) {
        const std::string serverExt =
            "subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth";
        const std::string clientExt = "extendedKeyUsage=clientAuth";
        ok = selfSignedCa(d, "ca", "/O=TARN Test/CN=TARN Test CA") &&
             selfSignedCa(d, "otherca", "/O=Elsewhere/CN=Other CA") &&
             request(d, "server", "/O=TARN Test/CN=localhost") && sign(d, "server", "ca", 2, serverExt) &&
             request(d, "client", "/O=TARN Test/CN=tarn-client") && sign(d, "client", "ca", 2, clientExt) &&
             request(d, "expired", "/O=TARN Test/CN=localhost") && sign(d, "expired", "ca", -1, serverExt) &&
             request(d, "otherserver", "/O=Elsewhere/CN=localhost") &&
             sign(d, "otherserver", "otherca", 2, serverExt) &&
             request(d, "otherclient", "/O=Elsewhere/CN=intruder") &&
             sign(d, "otherclient", "otherca", 2, clientExt) && run("touch '" + marker + "'");
    }
    flock(lock, LOCK_UN);
    ::close(lock);
    return ok;
}

Certs makeCerts() {
    Certs c;
    const std::string d = TARN_TLS_CERT_DIR;
    if (!makeCertsIn(d)) {
        return c;
    }
    c.dir = d;
    c.ca = d + "/ca.pem";
    c.caKey = d + "/ca.key";
    c.server = d + "/server.pem";
    c.serverKey = d + "/server.key";
    c.client = d + "/client.pem";
    c.clientKey = d + "/client.key";
    c.expired = d + "/expired.pem";
    c.expiredKey = d + "/expired.key";
    c.otherCa = d + "/otherca.pem";
    c.otherCaKey = d + "/otherca.key";
    c.otherServer = d + "/otherserver.pem";
    c.otherServerKey = d + "/otherserver.key";
    c.otherClient = d + "/otherclient.pem";
    c.otherClientKey = d + "/otherclient.key";
    return c;
}

}  // namespace

const Certs& certs() {
    static const Certs made = makeCerts();
    if (made.dir.empty()) {
        ADD_FAILURE() << "the openssl command could not make the test certificates";
    }
    return made;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TLSConfig serverConfig() {
    TLSConfig config;
    config.certFile = certs().server;
    config.keyFile = certs().serverKey;
    config.caFiles = {certs().ca};
    return config;
}

TLSConfig clientConfig() {
    TLSConfig config;
    config.caFiles = {certs().ca};
    return config;
}

TLSConfig clientConfigWithCert() {
    TLSConfig config = clientConfig();
    config.certFile = certs().client;
    config.keyFile = certs().clientKey;
    return config;
}

class RecordingConnector final : public ITARNConnector {
public:
    explicit RecordingConnector(TlsServer& server) : m_server(server) {}
    void onNewConnection(TARNConnection* connection) override {
        TLSTransport* const transport = TLSTransport::of(connection);
        std::lock_guard<std::mutex> hold(m_server.m_mutex);
        const std::string prefix = "server#" + std::to_string(m_server.m_connections.size());
        m_server.m_servers.emplace_back(new testsupport::RecordingServer(m_server.m_events, prefix));
        connection->setServer(m_server.m_servers.back().get());
        m_server.m_connections.push_back(connection);
        m_server.m_subjects.push_back(transport != nullptr ? transport->getPeerSubject() : "<no transport>");
    }

private:
    TlsServer& m_server;
};

TlsServer::TlsServer(const TLSConfig& config) : m_listener(config), m_bListening(false) {
    m_bListening = m_listener.listen("127.0.0.1", 0, new RecordingConnector(*this));
}

TlsServer::~TlsServer() {
    m_listener.shutdown(-1);
    std::vector<TARNConnection*> connections;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        connections = m_connections;
    }
    for (TARNConnection* connection : connections) {
        connection->disconnect();
    }
    // Deleting a connection pauses 200 ms; a hostile run leaves hundreds, so they go in parallel.
    const std::size_t kBatch = 64;
    for (std::size_t first = 0; first < connections.size(); first += kBatch) {
        std::vector<std::thread> deleters;
        for (std::size_t i = first; i < std::min(connections.size(), first + kBatch); ++i) {
            deleters.emplace_back([connection = connections[i]] { delete connection; });
        }
        for (std::thread& deleter : deleters) {
            deleter.join();
        }
    }
}

std::size_t TlsServer::count() const {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_connections.size();
}

TARNConnection* TlsServer::connection(std::size_t index) const {
    std::lock_guard<std::mutex> hold(m_mutex);
    return index < m_connections.size() ? m_connections[index] : nullptr;
}

std::string TlsServer::subject(std::size_t index) const {
    std::lock_guard<std::mutex> hold(m_mutex);
    return index < m_subjects.size() ? m_subjects[index] : "";
}

bool TlsServer::waitCount(std::size_t n, int timeoutMs) const {
    return testsupport::waitUntil(
        [&] {
            if (count() < n) {
                return false;
            }
            for (std::size_t i = 0; i < n; ++i) {
                if (m_events.count("server#" + std::to_string(i) + ":connected") == 0) {
                    return false;
                }
            }
            return true;
        },
        timeoutMs);
}

TlsClient::TlsClient(const TLSConfig& config)
    : client(events), transport(new TLSTransport(config)), connection(transport) {}

TlsClient::~TlsClient() {
    connection.disconnect();
}

bool TlsClient::connect(std::uint16_t port, const std::string& host) {
    return connection.connect(host, port, &client);
}

bool Child::readExactly(Bytes& bytes, std::size_t count, int timeoutMs) {
    std::string text;
    if (!testsupport::ChildProcess::readExactly(text, count, timeoutMs)) {
        return false;
    }
    bytes.assign(text.begin(), text.end());
    return true;
}

}  // namespace tlstest
