#include "process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>

extern char** environ;

namespace clitest {

namespace {

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

const char* toolPath() {
    return TARN_TOOL_PATH;
}

ToolProcess::ToolProcess(const std::vector<std::string>& args, const std::string& program) {
    // Writing to a child that has already ended must fail, not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    int in[2];
    int out[2];
    int err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    const std::string path = program.empty() ? std::string(toolPath()) : program;
    std::vector<std::string> words = {path};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ) == 0) {
        m_pid = pid;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    m_in = in[1];
    m_outFd = out[0];
    m_errFd = err[0];
}

ToolProcess::~ToolProcess() {
    if (m_pid > 0 && m_status < 0) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
    }
    for (const int fd : {m_in, m_outFd, m_errFd}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool ToolProcess::send(const std::string& line) {
    return sendRaw(line + "\n");
}

bool ToolProcess::sendRaw(const std::string& text) {
    if (m_in < 0) {
        return false;
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(m_in, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void ToolProcess::closeInput() {
    if (m_in >= 0) {
        ::close(m_in);
        m_in = -1;
    }
}

void ToolProcess::signal(int number) {
    if (m_pid > 0 && m_status < 0) {
        ::kill(m_pid, number);
    }
}

bool ToolProcess::pump(int timeoutMs) {
    pollfd fds[2] = {{m_outFd, POLLIN, 0}, {m_errFd, POLLIN, 0}};
    if (m_outFd < 0 && m_errFd < 0) {
        return false;
    }
    const int ready = ::poll(fds, 2, timeoutMs);
    if (ready <= 0) {
        return ready == 0 || errno == EINTR;
    }
    int* const fdOf[2] = {&m_outFd, &m_errFd};
    std::string* const bufferOf[2] = {&m_out, &m_err};
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) {
            continue;
        }
        char bytes[4096];
        const ssize_t n = ::read(fds[i].fd, bytes, sizeof(bytes));
        if (n > 0) {
            bufferOf[i]->append(bytes, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            ::close(*fdOf[i]);
            *fdOf[i] = -1;
        }
    }
    return true;
}

bool ToolProcess::takeLine(std::string& buffer, std::string& line) {
    const std::size_t end = buffer.find('\n');
    if (end == std::string::npos) {
        return false;
    }
    line = buffer.substr(0, end);
    buffer.erase(0, end + 1);
    return true;
}

bool ToolProcess::nextLine(std::string& line, int timeoutMs) {
    const std::int64_t deadline = now() + timeoutMs;
    while (!takeLine(m_out, line)) {
        const std::int64_t left = deadline - now();
        if (left <= 0 || (m_outFd < 0) || !pump(static_cast<int>(left))) {
            return false;
        }
    }
    return true;
}

bool ToolProcess::nextErrorLine(std::string& line, int timeoutMs) {
    const std::int64_t deadline = now() + timeoutMs;
    while (!takeLine(m_err, line)) {
        const std::int64_t left = deadline - now();
        if (left <= 0 || (m_errFd < 0) || !pump(static_cast<int>(left))) {
            return false;
        }
    }
    return true;
}

bool ToolProcess::waitForLine(const std::function<bool(const std::string&)>& match, std::string& line,
                              int timeoutMs, std::vector<std::string>* skipped) {
    const std::int64_t deadline = now() + timeoutMs;
    for (;;) {
        const std::int64_t left = deadline - now();
        if (left <= 0 || !nextLine(line, static_cast<int>(left))) {
            return false;
        }
        if (match(line)) {
            return true;
        }
        if (skipped) {
            skipped->push_back(line);
        }
    }
}

bool ToolProcess::waitForLine(const std::string& exact, int timeoutMs, std::vector<std::string>* skipped) {
    std::string line;
    return waitForLine([&](const std::string& candidate) { return candidate == exact; }, line, timeoutMs,
                       skipped);
}

int ToolProcess::wait(int timeoutMs) {
    if (m_pid <= 0) {
        return -1;
    }
    const std::int64_t deadline = now() + timeoutMs;
    while (m_status < 0) {
        int status = 0;
        const pid_t done = ::waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (now() >= deadline) {
            return -1;
        }
        pump(5);
    }
    // The child is gone: what it wrote is all in the pipes now.
    while (m_outFd >= 0 || m_errFd >= 0) {
        pump(100);
    }
    return m_status;
}

namespace {

std::vector<std::string> serveArgs(const std::string& transport, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"serve", "--" + transport, "--bind", "127.0.0.1", "--port", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

}  // namespace

ServeProcess::ServeProcess(const std::string& transport, const std::vector<std::string>& extra)
    : m_process(serveArgs(transport, extra)) {
    // "listening on tcp 127.0.0.1:41234", or the JSON form with "port":41234}
    if (!m_process.nextLine(m_firstLine, kWaitMs)) {
        return;
    }
    std::size_t digits = m_firstLine.find_last_not_of("0123456789}");
    if (digits != std::string::npos) {
        const std::string tail = m_firstLine.substr(digits + 1);
        m_port = static_cast<std::uint16_t>(std::atoi(tail.c_str()));
    }
}

ServeProcess::~ServeProcess() {
    m_process.signal(SIGTERM);
    m_process.wait(kWaitMs);
}

std::string ServeProcess::next(int timeoutMs) {
    std::string line;
    m_process.nextLine(line, timeoutMs);
    return line;
}

int ServeProcess::quit() {
    m_process.send("quit");
    return m_process.wait(kWaitMs);
}

int runTool(const std::vector<std::string>& args, const std::string& input, int timeoutMs, std::string& out,
            std::string& err) {
    ToolProcess process(args);
    process.sendRaw(input);
    process.closeInput();
    const int status = process.wait(timeoutMs);
    out = process.restOfOutput();
    err = process.restOfErrors();
    return status;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::uint16_t closedTcpPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local));
    socklen_t length = sizeof(local);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length);
    ::close(fd);  // bound but never listening: connecting to it is refused
    return ntohs(local.sin_port);
}

}  // namespace clitest
