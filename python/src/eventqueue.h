// The queue between the library's threads, which push what arrives, and Python, which takes it.
//
// Pushing never touches Python and never blocks beyond the queue's own lock, so a receive thread is
// never held up by the interpreter. A full queue drops its oldest entry and counts the drop. An
// eventfd is made readable on every push and on close, so that an asyncio loop can wait for the
// queue with add_reader instead of a thread.
//
// Threads: push and close from any thread; pop from any thread (callers release the GIL first).
#ifndef TARN_PYTHON_EVENTQUEUE_H
#define TARN_PYTHON_EVENTQUEUE_H

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

namespace tarnpy {

template <class T>
class EventQueue {
public:
    enum class Result { Item, Empty, Closed };

    explicit EventQueue(std::size_t limit) : m_limit(limit), m_fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~EventQueue() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    // Returns false when the item was not taken (the queue is closed).
    bool push(T item) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_closed) {
                return false;
            }
            if (m_items.size() >= m_limit) {
                m_items.pop_front();
                ++m_dropped;
            }
            m_items.push_back(std::move(item));
        }
        m_changed.notify_all();
        signal();
        return true;
    }

    // Nothing more is taken; what is queued can still be popped.
    void close() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_closed = true;
        }
        m_changed.notify_all();
        signal();
    }

    // The first queued item that `match` accepts, waiting until `deadline`. Items it passes over
    // stay queued in their order.
    template <class Match>
    Result pop(T& out, Match match, std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            for (auto it = m_items.begin(); it != m_items.end(); ++it) {
                if (match(*it)) {
                    out = std::move(*it);
                    m_items.erase(it);
                    return Result::Item;
                }
            }
            if (m_closed) {
                return Result::Closed;
            }
            if (m_changed.wait_until(lock, deadline) == std::cv_status::timeout) {
                // One more look: an item may have come with the time-out.
                for (auto it = m_items.begin(); it != m_items.end(); ++it) {
                    if (match(*it)) {
                        out = std::move(*it);
                        m_items.erase(it);
                        return Result::Item;
                    }
                }
                return m_closed ? Result::Closed : Result::Empty;
            }
        }
    }

    bool isClosed() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_closed;
    }
    std::size_t size() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_items.size();
    }
    std::uint64_t dropped() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_dropped;
    }

    // Readable after a push or close since the last clearSignal().
    int fd() const { return m_fd; }
    void clearSignal() {
        std::uint64_t count = 0;
        while (::read(m_fd, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count))) {
        }
    }

private:
    void signal() {
        const std::uint64_t one = 1;
        // The counter cannot overflow in practice; a failed write only costs a wake-up.
        if (::write(m_fd, &one, sizeof(one)) < 0) {
            return;
        }
    }

    const std::size_t m_limit;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<T> m_items;
    bool m_closed = false;
    std::uint64_t m_dropped = 0;
    int m_fd;
};

}  // namespace tarnpy

#endif  // TARN_PYTHON_EVENTQUEUE_H
