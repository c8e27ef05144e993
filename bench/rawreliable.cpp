#include "rawreliable.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "sockets.h"

namespace bench {

namespace rawreliable {

namespace {

const std::int32_t kModulus = 65535;

// The number a word stands for: the word as a signed value, truncating remainder.
std::int32_t sequenceOf(std::uint32_t word) {
    return static_cast<std::int32_t>(word) % kModulus;
}

std::int32_t sequenceAt(std::uint64_t index) {
    return static_cast<std::int32_t>(index % static_cast<std::uint64_t>(kModulus));
}

// Windowed difference of two numbers: > 0 when `a` comes after `b`.
std::int32_t distance(std::int32_t a, std::int32_t b) {
    std::int32_t d = static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
    if (d < -32767) {
        d += kModulus;
    } else if (d > 32767) {
        d -= kModulus;
    }
    return d;
}

}  // namespace

void writeHeader(std::uint8_t* at, const char* letters, std::uint32_t word) {
    at[0] = 1;
    std::memcpy(at + 1, letters, 3);
    for (int i = 0; i < 4; ++i) {
        at[4 + i] = static_cast<std::uint8_t>(word >> (8 * i));
    }
}

bool readHeader(const std::uint8_t* datagram, long length, const char* letters, std::uint32_t& word) {
    if (length < static_cast<long>(kHeaderLength) || datagram[0] != 1 ||
        std::memcmp(datagram + 1, letters, 3) != 0) {
        return false;
    }
    word = 0;
    for (int i = 0; i < 4; ++i) {
        word |= static_cast<std::uint32_t>(datagram[4 + i]) << (8 * i);
    }
    return true;
}

Answer answerData(std::uint32_t word, std::int32_t& expected) {
    const std::int32_t seq = sequenceOf(word);
    const std::int32_t d = distance(seq, expected);
    if (d < 0) {
        return Answer{"ACK", word, false};
    }
    if (d > 0) {
        return Answer{"NAK", static_cast<std::uint32_t>(expected), false};
    }
    expected = (expected + 1) % kModulus;
    return Answer{"ACK", static_cast<std::uint32_t>(seq), true};
}

std::uint32_t Window::nextWord() const {
    return static_cast<std::uint32_t>(sequenceAt(m_next));
}

void Window::sent() {
    if (m_next < m_high) {
        ++m_resent;
    }
    ++m_next;
    m_high = std::max(m_high, m_next);
}

std::int32_t Window::lastAcked() const {
    return m_base == 0 ? -1 : sequenceAt(m_base - 1);
}

void Window::onAck(std::uint32_t word) {
    const std::int32_t d = distance(sequenceOf(word), lastAcked());
    if (d > 0 && m_base + static_cast<std::uint64_t>(d) <= m_high) {
        m_base += static_cast<std::uint64_t>(d);
        m_next = std::max(m_next, m_base);
    }
}

void Window::onNak(std::uint32_t word) {
    const std::int32_t d = distance(sequenceOf(word), lastAcked());
    if (d <= 0) {
        return;  // already acknowledged
    }
    const std::uint64_t index = m_base + static_cast<std::uint64_t>(d) - 1;
    if (index == m_wentBackTo && m_staleNaks > 0) {
        --m_staleNaks;  // drawn by a datagram that was out before the go-back
        return;
    }
    if (index >= m_next) {
        return;  // the sender is already going back to before it
    }
    m_staleNaks = m_next - index - 1;
    m_wentBackTo = index;
    m_next = index;
    ++m_nakGoBacks;
}

void Window::onSilence() {
    ++m_silences;
    m_next = m_base;
    m_wentBackTo = ~static_cast<std::uint64_t>(0);
    m_staleNaks = 0;
}

}  // namespace rawreliable

namespace {

using namespace rawreliable;

const std::size_t kLargestDatagram = 1500;
const int kReceiveBuffer = 4 * 1024 * 1024;
const int kResendAfterMs = 500;
const int kReceiverPollMs = 100;  // how soon the receiver notices the end if the wake-up is missed
const std::int64_t kLeastPatienceNs = 10000000000LL;

class Receiver {
public:
    explicit Receiver(int fd) : m_fd(fd) {}

    void run() {
        std::uint8_t datagram[kLargestDatagram];
        while (!m_bStop.load(std::memory_order_relaxed)) {
            sockaddr_in from;
            socklen_t fromLength = sizeof(from);
            const ssize_t n = recvfrom(m_fd, datagram, sizeof(datagram), 0,
                                       reinterpret_cast<sockaddr*>(&from), &fromLength);
            std::uint32_t word = 0;
            if (!readHeader(datagram, n, "CMD", word)) {
                continue;
            }
            const Answer answer = answerData(word, m_expected);
            std::uint8_t header[kHeaderLength];
            writeHeader(header, answer.letters, answer.word);
            sendto(m_fd, header, sizeof(header), 0, reinterpret_cast<const sockaddr*>(&from), sizeof(from));
            if (answer.delivered) {
                m_lastNs.store(nowNs(), std::memory_order_relaxed);
                m_delivered.store(++m_count, std::memory_order_relaxed);
            }
        }
    }

    // Ends run(): the shutdown makes a blocked receive return at once.
    void stop() {
        m_bStop.store(true);
        shutdown(m_fd, SHUT_RDWR);
    }

    std::uint64_t delivered() const { return m_delivered.load(); }
    std::int64_t lastNs() const { return m_lastNs.load(); }

private:
    const int m_fd;
    std::int32_t m_expected = 0;
    std::uint64_t m_count = 0;
    std::atomic<bool> m_bStop{false};
    std::atomic<std::uint64_t> m_delivered{0};
    std::atomic<std::int64_t> m_lastNs{0};
};

class Sender {
public:
    Sender(int fd, const sockaddr_in& to, const std::vector<std::uint8_t>& message, std::uint32_t window,
           std::uint64_t count)
        : m_fd(fd), m_to(to), m_datagram(kHeaderLength + message.size()), m_window(window, count) {
        std::copy(message.begin(), message.end(), m_datagram.begin() + kHeaderLength);
    }

    // Offers messages until `timeLimit` seconds after `startNs`, then finishes the ones offered.
    // False when they were not all acknowledged in as long again as the offering took (and at
    // least 10 s).
    bool run(std::int64_t startNs, double timeLimit) {
        const std::int64_t offerUntilNs = startNs + static_cast<std::int64_t>(timeLimit * 1e9);
        std::int64_t giveUpNs = 0;
        for (;;) {
            sendWhileRoom(offerUntilNs);
            if (m_window.done()) {
                return true;
            }
            const std::int64_t now = nowNs();
            if (giveUpNs == 0 && m_window.allOffered()) {
                giveUpNs = now + std::max(now - startNs, kLeastPatienceNs);
            } else if (giveUpNs != 0 && now > giveUpNs) {
                return false;
            }
            takeAnswers(!m_window.canSend());
        }
    }

    std::uint64_t offered() const { return m_window.total(); }
    const Window& window() const { return m_window; }

private:
    void sendWhileRoom(std::int64_t offerUntilNs) {
        while (m_window.canSend()) {
            if (m_window.nextIsNew() && nowNs() > offerUntilNs) {
                m_window.stopOffering();
                return;
            }
            writeHeader(m_datagram.data(), "CMD", m_window.nextWord());
            sendto(m_fd, m_datagram.data(), m_datagram.size(), 0, reinterpret_cast<const sockaddr*>(&m_to),
                   sizeof(m_to));
            m_window.sent();
        }
    }

    // Reads the answers that are there; with `wait`, first waits up to the resend time for one.
    void takeAnswers(bool wait) {
        std::uint8_t datagram[kLargestDatagram];
        for (;;) {
            const ssize_t n = recv(m_fd, datagram, sizeof(datagram), wait ? 0 : MSG_DONTWAIT);
            if (n < 0) {
                if (wait && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                    m_window.onSilence();
                }
                return;
            }
            std::uint32_t word = 0;
            if (readHeader(datagram, n, "ACK", word)) {
                m_window.onAck(word);
            } else if (readHeader(datagram, n, "NAK", word)) {
                m_window.onNak(word);
            }
            wait = false;
        }
    }

    const int m_fd;
    const sockaddr_in m_to;
    std::vector<std::uint8_t> m_datagram;
    Window m_window;
};

}  // namespace

StreamRun rawReliableStream(const std::vector<std::uint8_t>& message, std::uint32_t window,
                            std::uint64_t count, double timeLimit) {
    StreamRun run;
    const int receiverFd = boundUdpSocket();
    const int senderFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (receiverFd < 0 || senderFd < 0) {
        run.note = "socket set-up failed";
        close(receiverFd);
        close(senderFd);
        return run;
    }
    setOption(receiverFd, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
    setOption(senderFd, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
    setReceiveTimeout(receiverFd, kReceiverPollMs);
    setReceiveTimeout(senderFd, kResendAfterMs);
    Receiver receiver(receiverFd);
    std::thread receiving([&receiver] { receiver.run(); });
    Sender sender(senderFd, loopback(localPort(receiverFd)), message, window, count);

    const std::uint64_t dropsBefore = udpReceiveBufferErrors();
    const std::uint64_t backlogBefore = backlogDrops();
    const double cpuStart = processCpuSeconds();
    const std::int64_t startNs = nowNs();
    const bool complete = sender.run(startNs, timeLimit);
    receiver.stop();
    receiving.join();
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    run.kernelDrops = udpReceiveBufferErrors() - dropsBefore;
    run.backlogDrops = backlogDrops() - backlogBefore;
    const Window& account = sender.window();
    run.recovery = "go-backs " + std::to_string(account.nakGoBacks()) + " on NAK, " +
                   std::to_string(account.silences()) + " after 500 ms; resent " +
                   std::to_string(account.resent());
    run.sent = sender.offered();
    run.delivered = receiver.delivered();
    run.seconds = static_cast<double>(receiver.lastNs() - startNs) / 1e9;
    run.ok = complete && run.sent > 0 && run.delivered == run.sent;
    if (!complete) {
        run.note = "not all acknowledged";
    }
    close(receiverFd);
    close(senderFd);
    return run;
}

}  // namespace bench
