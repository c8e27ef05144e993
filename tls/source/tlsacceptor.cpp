// TlsAcceptor: TCP accept and TLS handshakes of a listening TLS transport, on one thread.
#include "tlsacceptor.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarntls {

namespace {

// New peers taken per wake-up, so that a stream of them cannot starve the handshakes in progress.
const int kAcceptsPerRound = 16;

}  // namespace

TlsAcceptor::TlsAcceptor(const std::shared_ptr<TlsContext>& context, int listenFd)
    : m_context(context), m_listenFd(listenFd) {
    if (pipe2(m_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        m_wake[0] = m_wake[1] = -1;
    }
    m_thread = std::thread([this] { run(); });
}

TlsAcceptor::~TlsAcceptor() {
    stop();
    for (int fd : m_wake) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void TlsAcceptor::stop() {
    std::lock_guard<std::mutex> once(m_stopMutex);
    if (!m_bStopped.exchange(true)) {
        const char byte = 0;
        if (m_wake[1] >= 0) {
            const ssize_t written = ::write(m_wake[1], &byte, 1);
            (void)written;  // the pipe is empty but for this byte; a failure leaves the poll time-out
        }
        { std::lock_guard<std::mutex> hold(m_readyMutex); }
        m_readyChanged.notify_all();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
    std::lock_guard<std::mutex> hold(m_readyMutex);
    m_ready.clear();
}

std::unique_ptr<TlsLink> TlsAcceptor::accept() {
    std::unique_lock<std::mutex> hold(m_readyMutex);
    m_readyChanged.wait(hold, [this] { return m_bStopped.load() || !m_ready.empty(); });
    if (m_bStopped.load()) {
        return nullptr;
    }
    std::unique_ptr<TlsLink> link = std::move(m_ready.front());
    m_ready.pop_front();
    return link;
}

int TlsAcceptor::nextTimeoutMs() const {
    if (m_pending.empty()) {
        return m_wake[0] >= 0 ? -1 : 100;
    }
    auto earliest = m_pending.front().deadline;
    for (const Pending& pending : m_pending) {
        earliest = std::min(earliest, pending.deadline);
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(earliest - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count()) + 1;
}

void TlsAcceptor::run() {
    std::vector<pollfd> fds;
    while (!m_bStopped.load()) {
        fds.clear();
        fds.push_back(pollfd{m_wake[0], POLLIN, 0});
        fds.push_back(pollfd{m_listenFd, POLLIN, 0});
        for (const Pending& pending : m_pending) {
            fds.push_back(pollfd{pending.link->fd(), pending.events, 0});
        }
        const int ready = ::poll(fds.data(), fds.size(), nextTimeoutMs());
        if (m_bStopped.load()) {
            break;
        }
        if (ready < 0 && errno != EINTR) {
            tlsLog().getErrorStream() << "TARN/TLS: waiting for peers failed: " << std::strerror(errno);
            break;
        }
        // Handshakes whose socket is ready take their step; the set is then cut to those going on.
        std::vector<Pending> goingOn;
        for (std::size_t i = 0; i < m_pending.size(); ++i) {
            const bool stepDue = ready > 0 && fds[i + 2].revents != 0;
            if (!stepDue || advance(m_pending[i])) {
                goingOn.push_back(std::move(m_pending[i]));
            }
        }
        m_pending.swap(goingOn);
        expire();
        if (ready > 0 && fds[1].revents != 0) {
            acceptNewPeers();
        }
    }
    m_pending.clear();
}

bool TlsAcceptor::advance(Pending& pending) {
    std::string error;
    switch (pending.link->handshakeStep(error)) {
        case TlsLink::eWantRead:
            pending.events = POLLIN;
            return true;
        case TlsLink::eWantWrite:
            pending.events = POLLOUT;
            return true;
        case TlsLink::eDone: {
            tlsLog().getInfoStream() << "TARN/TLS: handshake with " << pending.link->peerText() << " done ("
                                     << pending.link->protocol() << ")";
            std::lock_guard<std::mutex> hold(m_readyMutex);
            m_ready.push_back(std::move(pending.link));
            m_readyChanged.notify_one();
            return false;
        }
        case TlsLink::eFailed:
        default:
            tlsLog().getWarnStream() << "TARN/TLS: handshake with " << pending.link->peerText()
                                     << " failed: " << error;
            return false;
    }
}

void TlsAcceptor::expire() {
    const auto now = std::chrono::steady_clock::now();
    const int timeoutMs = m_context->config().handshakeTimeoutMs;
    auto end = std::remove_if(m_pending.begin(), m_pending.end(), [&](const Pending& pending) {
        if (pending.deadline > now) {
            return false;
        }
        tlsLog().getWarnStream() << "TARN/TLS: handshake with " << pending.link->peerText()
                                 << " timed out after " << timeoutMs << " ms";
        return true;
    });
    m_pending.erase(end, m_pending.end());
}

void TlsAcceptor::acceptNewPeers() {
    for (int i = 0; i < kAcceptsPerRound; ++i) {
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED) {
                tlsLog().getErrorStream() << "TARN/TLS: accept failed: " << std::strerror(errno);
            }
            return;
        }
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::string error;
        std::unique_ptr<TlsLink> link = TlsLink::create(m_context, fd, error);
        if (!link) {
            tlsLog().getErrorStream() << "TARN/TLS: " << error;
            continue;
        }
        if (m_pending.size() >= kMaxPending) {
            tlsLog().getWarnStream() << "TARN/TLS: " << kMaxPending
                                     << " handshakes in progress; dropping the one with "
                                     << m_pending.front().link->peerText();
            m_pending.erase(m_pending.begin());
        }
        Pending pending{std::move(link),
                        std::chrono::steady_clock::now() +
                            std::chrono::milliseconds(m_context->config().handshakeTimeoutMs),
                        POLLIN};
        if (advance(pending)) {
            m_pending.push_back(std::move(pending));
        }
    }
}

}  // namespace tarntls
