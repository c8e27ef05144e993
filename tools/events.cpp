#include "events.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>

namespace tarncli {

namespace {

int g_signalPipe[2] = {-1, -1};
volatile std::sig_atomic_t g_signalled = 0;

void onSignal(int) {
    const int saved = errno;
    g_signalled = 1;
    const char byte = 's';
    if (g_signalPipe[1] >= 0) {
        // A full pipe is already readable; nothing more to do.
        const ssize_t ignored = ::write(g_signalPipe[1], &byte, 1);
        (void)ignored;
    }
    errno = saved;
}

void makePipe(int fds[2]) {
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        fds[0] = -1;
        fds[1] = -1;
    }
}

// A line longer than this without a line end is taken as it stands (and then refused as too large
// by the command that reads it), so that input without line ends cannot grow memory without bound.
const std::size_t kLongestLine = 64 * 1024;

}  // namespace

EventQueue::EventQueue() {
    makePipe(m_pipe);
}

EventQueue::~EventQueue() {
    for (const int fd : m_pipe) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void EventQueue::push(const Event& event) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(event);
    }
    m_arrived.notify_all();
    const char byte = 'e';
    const ssize_t ignored = ::write(m_pipe[1], &byte, 1);  // a full pipe is readable already
    (void)ignored;
}

bool EventQueue::pop(Event& event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_events.empty()) {
        return false;
    }
    event = m_events.front();
    m_events.pop_front();
    return true;
}

bool EventQueue::waitFor(const std::function<bool(const Event&)>& match, Event& event, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        for (auto it = m_events.begin(); it != m_events.end(); ++it) {
            if (match(*it)) {
                event = *it;
                m_events.erase(it);
                return true;
            }
        }
        if (m_arrived.wait_until(lock, deadline) == std::cv_status::timeout) {
            // One last look: the event may have come with the time-out.
            for (auto it = m_events.begin(); it != m_events.end(); ++it) {
                if (match(*it)) {
                    event = *it;
                    m_events.erase(it);
                    return true;
                }
            }
            return false;
        }
    }
}

std::size_t EventQueue::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size();
}

void EventQueue::drainWakeups() {
    char bytes[256];
    while (::read(m_pipe[0], bytes, sizeof(bytes)) > 0) {
    }
}

void EventGate::push(const Event& event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bOpen) {
        m_queue.push(event);
    } else {
        m_held.push_back(event);
    }
}

void EventGate::open(const Event& connected) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bOpen) {
        return;
    }
    m_bOpen = true;
    m_queue.push(connected);
    for (const Event& event : m_held) {
        m_queue.push(event);
    }
    m_held.clear();
}

bool EventGate::isOpen() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bOpen;
}

void installSignalPipe() {
    if (g_signalPipe[0] >= 0) {
        return;
    }
    makePipe(g_signalPipe);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int signalFd() {
    return g_signalPipe[0];
}

bool signalReceived() {
    return g_signalled != 0;
}

std::int64_t monotonicMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

MainLoop::MainLoop(EventQueue& queue, bool readInput) : m_queue(queue), m_bReading(readInput) {}

bool MainLoop::takeLine(std::string& line) {
    const std::size_t end = m_buffer.find('\n');
    if (end == std::string::npos) {
        if (m_buffer.size() < kLongestLine) {
            return false;
        }
        line = m_buffer;
        m_buffer.clear();
        return true;
    }
    line = m_buffer.substr(0, end);
    m_buffer.erase(0, end + 1);
    return true;
}

MainLoop::Wake MainLoop::next(Event& event, std::string& line, std::int64_t deadlineMs) {
    for (;;) {
        if (signalReceived()) {
            return Wake::Signal;
        }
        if (m_queue.pop(event)) {
            return Wake::Event;
        }
        if (takeLine(line)) {
            return Wake::Line;
        }
        if (m_bEofPending) {
            m_bEofPending = false;
            return Wake::EndOfInput;
        }
        int timeout = -1;
        if (deadlineMs >= 0) {
            const std::int64_t left = deadlineMs - monotonicMs();
            if (left <= 0) {
                return Wake::Deadline;
            }
            timeout = static_cast<int>(std::min<std::int64_t>(left, 60000));
        }
        pollfd fds[3] = {{m_queue.fd(), POLLIN, 0}, {signalFd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        const nfds_t count = m_bReading ? 3 : 2;
        const int ready = ::poll(fds, count, timeout);
        if (ready < 0 && errno != EINTR) {
            return Wake::Signal;  // poll itself failed: nothing sensible left but to stop
        }
        if (ready <= 0) {
            continue;
        }
        if (fds[0].revents != 0) {
            m_queue.drainWakeups();
        }
        if (m_bReading && fds[2].revents != 0) {
            char bytes[4096];
            const ssize_t n = ::read(STDIN_FILENO, bytes, sizeof(bytes));
            if (n > 0) {
                m_buffer.append(bytes, static_cast<std::size_t>(n));
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                m_bReading = false;
                m_bEofPending = true;
                if (!m_buffer.empty()) {
                    m_buffer += '\n';  // a last line without its line end still counts
                }
            }
        }
    }
}

}  // namespace tarncli
