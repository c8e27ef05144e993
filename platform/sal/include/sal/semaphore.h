// Semaphores. Every wait takes a limit in milliseconds (WAIT_FOREVER: no limit; 0: try once) and is
// measured on the monotonic clock. take() returns 0 when it took the semaphore and 1 when the time
// ran out. All operations may be called from any thread; a semaphore must outlive every give() on
// it (the give wakes its waiter after releasing the semaphore's own lock).
#ifndef SAL_SEMAPHORE_H
#define SAL_SEMAPHORE_H

#include <condition_variable>
#include <mutex>

#include <sal/sal_export.h>
#include <sal/types.h>

namespace sal {

// Given or not given. A give while already given keeps one give (gives do not accumulate); a take
// consumes it.
class SAL_EXPORT BinarySemaphore {
public:
    explicit BinarySemaphore(bool given = false);
    BinarySemaphore(const BinarySemaphore&) = delete;
    BinarySemaphore& operator=(const BinarySemaphore&) = delete;
    int take(unsigned int timeoutMs = WAIT_FOREVER);
    void give();

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_bGiven;
};

// A count: each give adds one, each take waits for a count above zero and removes one.
class SAL_EXPORT CountingSemaphore {
public:
    explicit CountingSemaphore(unsigned int initialCount = 0);
    CountingSemaphore(const CountingSemaphore&) = delete;
    CountingSemaphore& operator=(const CountingSemaphore&) = delete;
    int take(unsigned int timeoutMs = WAIT_FOREVER);
    void give();
    unsigned int getCount() const;

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    unsigned int m_count;
};

// Mutual exclusion, not recursive: the thread that took it gives it back.
class SAL_EXPORT MutexSemaphore {
public:
    MutexSemaphore() = default;
    MutexSemaphore(const MutexSemaphore&) = delete;
    MutexSemaphore& operator=(const MutexSemaphore&) = delete;
    int take(unsigned int timeoutMs = WAIT_FOREVER);
    void give();

private:
    std::timed_mutex m_mutex;
};

}  // namespace sal

#endif  // SAL_SEMAPHORE_H
