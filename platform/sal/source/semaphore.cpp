#include <sal/semaphore.h>

#include <chrono>

namespace sal {

namespace {

// Every limit is measured on the monotonic clock, so a change of the wall clock neither shortens
// nor stretches a wait.
std::chrono::steady_clock::time_point deadlineAfter(unsigned int timeoutMs) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
}

// Waits for `ready` under `lock` within the limit; true when it holds.
template <class Ready>
bool waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, unsigned int timeoutMs,
             Ready ready) {
    // A try (limit 0) only looks: a wait with a limit already reached would still cost a call into
    // the system.
    if (timeoutMs == 0) {
        return ready();
    }
    if (timeoutMs == WAIT_FOREVER) {
        condition.wait(lock, ready);
        return true;
    }
    return condition.wait_until(lock, deadlineAfter(timeoutMs), ready);
}

}  // namespace

BinarySemaphore::BinarySemaphore(bool given) : m_bGiven(given) {}

int BinarySemaphore::take(unsigned int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!waitFor(lock, m_condition, timeoutMs, [this] { return m_bGiven; })) {
        return 1;
    }
    m_bGiven = false;
    return 0;
}

// The waiter is told after the lock is released: told under it, it would wake only to find the
// lock still held and sleep again until the release.
void BinarySemaphore::give() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bGiven = true;
    }
    m_condition.notify_one();
}

CountingSemaphore::CountingSemaphore(unsigned int initialCount) : m_count(initialCount) {}

int CountingSemaphore::take(unsigned int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!waitFor(lock, m_condition, timeoutMs, [this] { return m_count > 0; })) {
        return 1;
    }
    --m_count;
    return 0;
}

void CountingSemaphore::give() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
    }
    m_condition.notify_one();
}

unsigned int CountingSemaphore::getCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_count;
}

int MutexSemaphore::take(unsigned int timeoutMs) {
    if (timeoutMs == WAIT_FOREVER) {
        m_mutex.lock();
        return 0;
    }
    if (timeoutMs == 0) {
        return m_mutex.try_lock() ? 0 : 1;
    }
    return m_mutex.try_lock_until(deadlineAfter(timeoutMs)) ? 0 : 1;
}

void MutexSemaphore::give() {
    m_mutex.unlock();
}

}  // namespace sal
