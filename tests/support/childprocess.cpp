#include "childprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "testsupport.h"

extern char** environ;

namespace testsupport {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, Errors errors,
                           const std::string& errorFile) {
    // Writing to a child that has already ended must fail, not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    int in[2];
    int out[2];
    int err[2] = {-1, -1};
    if (argv.empty() || ::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        (errors == Errors::Pipe && ::pipe2(err, O_CLOEXEC) != 0)) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (errors == Errors::ToFile) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO,
                                         errorFile.empty() ? "/dev/null" : errorFile.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
    } else {
        posix_spawn_file_actions_adddup2(&actions, errors == Errors::Pipe ? err[1] : out[1], STDERR_FILENO);
    }
    std::vector<std::string> words = argv;
    std::vector<char*> args;
    for (std::string& word : words) {
        args.push_back(&word[0]);
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0) {
        m_pid = pid;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    if (err[1] >= 0) {
        ::close(err[1]);
    }
    m_in = in[1];
    m_outFd = out[0];
    m_errFd = err[0];
}

ChildProcess::~ChildProcess() {
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

bool ChildProcess::send(const std::string& line) {
    return sendRaw(line + "\n");
}

bool ChildProcess::sendRaw(const std::string& text) {
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

void ChildProcess::closeInput() {
    if (m_in >= 0) {
        ::close(m_in);
        m_in = -1;
    }
}

void ChildProcess::signal(int number) {
    if (m_pid > 0 && m_status < 0) {
        ::kill(m_pid, number);
    }
}

bool ChildProcess::pump(int timeoutMs) {
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

bool ChildProcess::takeLine(std::string& buffer, std::string& line) {
    const std::size_t end = buffer.find('\n');
    if (end == std::string::npos) {
        return false;
    }
    line = buffer.substr(0, end);
    buffer.erase(0, end + 1);
    return true;
}

bool ChildProcess::nextLine(std::string& line, int timeoutMs) {
    const std::int64_t deadline = nowMs() + timeoutMs;
    while (!takeLine(m_out, line)) {
        const std::int64_t left = deadline - nowMs();
        if (left <= 0 || (m_outFd < 0) || !pump(static_cast<int>(left))) {
            return false;
        }
    }
    return true;
}

void ChildProcess::putBack(const std::vector<std::string>& lines) {
    std::string front;
    for (const std::string& line : lines) {
        front += line + "\n";
    }
    m_out.insert(0, front);
}

bool ChildProcess::nextErrorLine(std::string& line, int timeoutMs) {
    const std::int64_t deadline = nowMs() + timeoutMs;
    while (!takeLine(m_err, line)) {
        const std::int64_t left = deadline - nowMs();
        if (left <= 0 || (m_errFd < 0) || !pump(static_cast<int>(left))) {
            return false;
        }
    }
    return true;
}

bool ChildProcess::waitForLine(const std::function<bool(const std::string&)>& match, std::string& line,
                               int timeoutMs, std::vector<std::string>* skipped) {
    const std::int64_t deadline = nowMs() + timeoutMs;
    for (;;) {
        const std::int64_t left = deadline - nowMs();
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

bool ChildProcess::waitForLine(const std::string& exact, int timeoutMs, std::vector<std::string>* skipped) {
    std::string line;
    return waitForLine([&](const std::string& candidate) { return candidate == exact; }, line, timeoutMs,
                       skipped);
}

bool ChildProcess::readExactly(std::string& bytes, std::size_t count, int timeoutMs) {
    const std::int64_t deadline = nowMs() + timeoutMs;
    while (m_out.size() < count) {
        const std::int64_t left = deadline - nowMs();
        if (left <= 0 || m_outFd < 0 || !pump(static_cast<int>(left))) {
            return false;
        }
    }
    bytes = m_out.substr(0, count);
    m_out.erase(0, count);
    return true;
}

std::string ChildProcess::errorsSoFar() {
    std::size_t before = 0;
    do {
        before = m_out.size() + m_err.size();
    } while (pump(0) && m_out.size() + m_err.size() != before);
    return m_err;
}

int ChildProcess::wait(int timeoutMs) {
    if (m_pid <= 0) {
        return -1;
    }
    const std::int64_t deadline = nowMs() + timeoutMs;
    while (m_status < 0) {
        int status = 0;
        const pid_t done = ::waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (nowMs() >= deadline) {
            return -1;
        }
        if (!pump(5)) {
            ::usleep(5000);  // output closed: only the exit is left to wait for
        }
    }
    // The child is gone: what it wrote is all in the pipes now, unless a process it started holds
    // them open; that is not waited for past the deadline.
    const std::int64_t drainUntil = std::max(deadline, nowMs() + 1000);
    while ((m_outFd >= 0 || m_errFd >= 0) && nowMs() < drainUntil) {
        pump(100);
    }
    return m_status;
}

}  // namespace testsupport
