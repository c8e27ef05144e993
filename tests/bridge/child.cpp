#include "child.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>

extern char** environ;

namespace bridgetest {

namespace {

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

const char* tarnTool() {
    return TARN_TOOL_PATH;
}

const char* bridgeProgram() {
    return TARN_BRIDGE_PATH;
}

Child::Child(const std::string& program, const std::vector<std::string>& args, const std::string& errorFile) {
    std::signal(SIGPIPE, SIG_IGN);
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO,
                                     errorFile.empty() ? "/dev/null" : errorFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    std::vector<std::string> words = {program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) == 0) {
        m_pid = pid;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    m_in = in[1];
    m_out = out[0];
}

Child::~Child() {
    if (m_pid > 0 && m_status < 0) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
    }
    for (const int fd : {m_in, m_out}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool Child::send(const std::string& line) {
    const std::string text = line + "\n";
    std::size_t done = 0;
    while (m_in >= 0 && done < text.size()) {
        const ssize_t n = ::write(m_in, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return done == text.size();
}

void Child::signal(int number) {
    if (m_pid > 0 && m_status < 0) {
        ::kill(m_pid, number);
    }
}

bool Child::pump(int timeoutMs) {
    if (m_out < 0) {
        return false;
    }
    pollfd fd = {m_out, POLLIN, 0};
    const int ready = ::poll(&fd, 1, timeoutMs);
    if (ready <= 0) {
        return ready == 0 || errno == EINTR;
    }
    char bytes[4096];
    const ssize_t n = ::read(m_out, bytes, sizeof(bytes));
    if (n > 0) {
        m_buffer.append(bytes, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
        ::close(m_out);
        m_out = -1;
    }
    return true;
}

bool Child::nextLine(std::string& line, int timeoutMs) {
    const std::int64_t deadline = now() + timeoutMs;
    for (;;) {
        const std::size_t end = m_buffer.find('\n');
        if (end != std::string::npos) {
            line = m_buffer.substr(0, end);
            m_buffer.erase(0, end + 1);
            return true;
        }
        const std::int64_t left = deadline - now();
        if (left <= 0 || !pump(static_cast<int>(left))) {
            return false;
        }
    }
}

bool Child::waitFor(const std::function<bool(const std::string&)>& match, int timeoutMs, std::string* line,
                    std::vector<std::string>* skipped) {
    const std::int64_t deadline = now() + timeoutMs;
    std::string candidate;
    for (;;) {
        const std::int64_t left = deadline - now();
        if (left <= 0 || !nextLine(candidate, static_cast<int>(left))) {
            return false;
        }
        if (match(candidate)) {
            if (line) {
                *line = candidate;
            }
            return true;
        }
        if (skipped) {
            skipped->push_back(candidate);
        }
    }
}

bool Child::waitForLine(const std::string& exact, int timeoutMs, std::vector<std::string>* skipped) {
    return waitFor([&](const std::string& candidate) { return candidate == exact; }, timeoutMs, nullptr,
                   skipped);
}

bool Child::waitForText(const std::string& part, int timeoutMs, std::string* line) {
    return waitFor([&](const std::string& candidate) { return candidate.find(part) != std::string::npos; },
                   timeoutMs, line);
}

void Child::putBack(const std::vector<std::string>& lines) {
    std::string front;
    for (const std::string& line : lines) {
        front += line + "\n";
    }
    m_buffer.insert(0, front);
}

int Child::wait(int timeoutMs) {
    if (m_pid <= 0) {
        return -1;
    }
    const std::int64_t deadline = now() + timeoutMs;
    while (m_status < 0) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (now() >= deadline) {
            return -1;
        }
        if (!pump(5)) {
            ::usleep(5000);  // output closed: only the exit is left to wait for
        }
    }
    return m_status;
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
    const std::int64_t deadline = now() + timeoutMs;
    while (now() < deadline) {
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
    const std::int64_t deadline = now() + kWaitMs;
    std::vector<std::string> early;
    std::string line;
    while (now() < deadline) {
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
