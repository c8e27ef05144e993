#include "child.h"

#include <arpa/inet.h>
#include <ftw.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

namespace bridgetest {

const char* tarnTool() {
    return TARN_TOOL_PATH;
}

const char* bridgeProgram() {
    return TARN_BRIDGE_PATH;
}

namespace {

std::vector<std::string> argvOf(const std::string& program, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace

Child::Child(const std::string& program, const std::vector<std::string>& args, const std::string& errorFile)
    : testsupport::ChildProcess(argvOf(program, args), Errors::ToFile, errorFile) {}

bool Child::waitFor(const std::function<bool(const std::string&)>& match, int timeoutMs, std::string* line,
                    std::vector<std::string>* skipped) {
    std::string found;
    if (!waitForLine(match, found, timeoutMs, skipped)) {
        return false;
    }
    if (line) {
        *line = found;
    }
    return true;
}

bool Child::waitForText(const std::string& part, int timeoutMs, std::string* line) {
    return waitFor([&](const std::string& candidate) { return candidate.find(part) != std::string::npos; },
                   timeoutMs, line);
}

TempDir::TempDir() {
    char pattern[] = "/tmp/tarn-bridge-test-XXXXXX";
    if (::mkdtemp(pattern) != nullptr) {
        m_path = pattern;
    }
}

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

}  // namespace

TempDir::~TempDir() {
    if (!m_path.empty()) {
        ::nftw(m_path.c_str(), removeEntry, 8, FTW_DEPTH | FTW_PHYS);
    }
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    const std::string path = m_path + "/" + name;
    std::ofstream(path) << content;
    return path;
}

bool waitForListener(std::uint16_t port, int timeoutMs) {
    const std::int64_t deadline = testsupport::nowMs() + timeoutMs;
    while (testsupport::nowMs() < deadline) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in peer = {};
        peer.sin_family = AF_INET;
        peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        peer.sin_port = htons(port);
        const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) == 0;
        ::close(fd);
        if (ok) {
            return true;
        }
        ::usleep(20000);  // polling a condition with a deadline
    }
    return false;
}

Broker::Broker(const TempDir& dir, const std::string& extraConfig) {
    // Started by root, mosquitto would become the user "mosquitto" and could no longer read the
    // files of the test's private directory: it stays the user that runs the test.
    const passwd* self = ::getpwuid(::getuid());
    const std::string user = self != nullptr ? std::string("user ") + self->pw_name + "\n" : std::string();
    m_log = dir.path() + "/mosquitto.log";
    m_config = dir.write("mosquitto.conf", "listener " + std::to_string(port()) +
                                               " 127.0.0.1\nallow_anonymous true\npersistence false\n" +
                                               user + extraConfig);
    start();
}

Broker::~Broker() {
    stop();
}

bool Broker::start() {
    m_pProcess = new Child(MOSQUITTO_PATH, {"-c", m_config}, m_log);
    m_bUp = m_pProcess->started() && waitForListener(port(), kWaitMs);
    return m_bUp;
}

void Broker::stop() {
    if (m_pProcess != nullptr) {
        m_pProcess->signal(SIGTERM);
        m_pProcess->wait(kWaitMs);
        delete m_pProcess;
        m_pProcess = nullptr;
    }
    m_bUp = false;
}

std::string Broker::log() const {
    std::ifstream in(m_log);
    std::string text;
    std::string line;
    while (std::getline(in, line)) {
        text += line + "\n";
    }
    return text;
}

bool Broker::restart() {
    stop();
    return start();
}

namespace {

std::vector<std::string> serveArgs(const std::string& transport, std::uint16_t port) {
    return {"serve", "--" + transport, "--bind", "127.0.0.1", "--port", std::to_string(port)};
}

}  // namespace

Serve::Serve(const std::string& transport, std::uint16_t port)
    : m_process(tarnTool(), serveArgs(transport, port)) {
    // "listening on tcp 127.0.0.1:41234"
    std::string first;
    if (m_process.nextLine(first, kWaitMs)) {
        const std::size_t colon = first.rfind(':');
        if (colon != std::string::npos) {
            m_port = static_cast<std::uint16_t>(std::atoi(first.c_str() + colon + 1));
        }
    }
}

Subscriber::Subscriber(const Broker& broker, const std::string& filter)
    : m_process(MOSQUITTO_SUB_PATH, {"-h", "127.0.0.1", "-p", std::to_string(broker.port()), "-t", filter,
                                     "-t", "probe/" + std::to_string(::getpid()), "-F", "%r %t %p"}) {
    // Ready once a probe comes back: anything published after that reaches this subscriber, and
    // the retained messages of the filter arrived before it.
    const std::string probe = "probe/" + std::to_string(::getpid());
    const std::int64_t deadline = testsupport::nowMs() + kWaitMs;
    std::vector<std::string> early;
    std::string line;
    while (testsupport::nowMs() < deadline) {
        publish(broker, probe, "ready");
        if (m_process.waitFor([&](const std::string& l) { return l == "0 " + probe + " ready"; }, 200, &line,
                              &early)) {
            break;
        }
    }
    // The messages that came before the probe are left for the test to read.
    m_process.putBack(early);
}

bool Subscriber::waitForMessage(const std::string& topicAndPayload, std::string& seen, int timeoutMs) {
    std::vector<std::string> skipped;
    const bool found = m_process.waitFor(
        [&](const std::string& line) {
            return line.size() > 2 && line.compare(2, std::string::npos, topicAndPayload) == 0;
        },
        timeoutMs, nullptr, &skipped);
    seen.clear();
    for (const std::string& line : skipped) {
        seen += line + "\n";
    }
    m_process.putBack(skipped);
    return found;
}

bool publish(const Broker& broker, const std::string& topic, const std::string& payload, bool retain) {
    std::vector<std::string> args = {"-h", "127.0.0.1", "-p", std::to_string(broker.port()),
                                     "-q", "1",         "-t", topic};
    if (payload.empty()) {
        args.push_back("-n");
    } else {
        args.push_back("-m");
        args.push_back(payload);
    }
    if (retain) {
        args.push_back("-r");
    }
    Child child(MOSQUITTO_PUB_PATH, args);
    return child.wait(kWaitMs) == 0;
}

}  // namespace bridgetest
