#include "tarnpeers.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include <testsupport.h>

namespace eudptest {

std::string text(const ParameterList& params) {
    std::ostringstream out;
    params.print(out);
    return out.str();
}

void RecordingClient::onStatusChanged(EConnStatus status) {
    Recorder::status(status, testsupport::nowMs());
}

void RecordingServer::onStatusChanged(EConnStatus status) {
    Recorder::status(status, testsupport::nowMs());
}

CollectingConnector::Shared::~Shared() {
    owned.closeAll();
    for (RecordingServer* server : servers) {
        delete server;
    }
}

std::size_t CollectingConnector::Shared::count() {
    std::lock_guard<std::mutex> lock(mutex);
    return connections.size();
}

TARNConnection* CollectingConnector::Shared::connection(std::size_t i) {
    std::lock_guard<std::mutex> lock(mutex);
    return connections.at(i);
}

RecordingServer* CollectingConnector::Shared::server(std::size_t i) {
    std::lock_guard<std::mutex> lock(mutex);
    return servers.at(i);
}

void CollectingConnector::onNewConnection(TARNConnection* connection) {
    RecordingServer* server = new RecordingServer;
    m_pShared->owned.add(connection, server);
    std::lock_guard<std::mutex> lock(m_pShared->mutex);
    m_pShared->connections.push_back(connection);
    m_pShared->servers.push_back(server);
}

PeerProcess::~PeerProcess() {
    kill();
}

bool PeerProcess::start(const std::vector<std::string>& arguments) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        return false;
    }
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        return false;
    }
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        close(pipeFds[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(pipeFds[1]);
    m_pid = pid;
    m_out = pipeFds[0];
    return true;
}

std::string PeerProcess::readLine(int timeoutMs) {
    std::int64_t deadline = testsupport::nowMs() + timeoutMs;
    while (true) {
        std::size_t end = m_pending.find('\n');
        if (end != std::string::npos) {
            std::string line = m_pending.substr(0, end);
            m_pending.erase(0, end + 1);
            return line;
        }
        int left = static_cast<int>(deadline - testsupport::nowMs());
        if (left <= 0 || m_out < 0) {
            return std::string();
        }
        pollfd fd = {m_out, POLLIN, 0};
        if (poll(&fd, 1, left) <= 0) {
            continue;
        }
        char buffer[256];
        ssize_t n = read(m_out, buffer, sizeof buffer);
        if (n <= 0) {
            return std::string();
        }
        m_pending.append(buffer, static_cast<std::size_t>(n));
    }
}

void PeerProcess::kill() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
    }
    if (m_out >= 0) {
        close(m_out);
        m_out = -1;
    }
}

}  // namespace eudptest
