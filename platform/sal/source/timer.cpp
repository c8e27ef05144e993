#include <sal/timer.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <queue>
#include <system_error>
#include <thread>
#include <vector>

// How the timers work
//
// One scheduler thread keeps a min-heap of deadlines for all timers of the process. When an expiry
// comes due it first offers it to the callback's inline attempt, which does short work right there;
// everything else goes to a pool of worker threads, which run the callbacks. The pool starts with one worker
// and grows by one whenever expiries are waiting, no worker is free and no worker has picked up an expiry for
// a few milliseconds: then every worker is stuck in a callback (a callback may block for a long time). A
// backlog of quick callbacks that the workers are working through does not grow the pool. Extra workers
// retire after a few idle seconds. The service is created on first use and never destroyed, so no timer used
// during static destruction can find it gone.
//
// A timer has at most one live heap entry. start() records the new deadline under the timer's own
// lock and pushes an entry only when none is queued or the new deadline is earlier than the queued
// one; stop() only bumps the generation. A stop()+start() pair on a running schedule therefore
// touches neither the heap nor the scheduler thread: when the old entry comes due, the scheduler
// sees that the deadline has moved and queues it again for the new one.

namespace sal {

namespace {

using Clock = std::chrono::steady_clock;

// Expiries waiting while no worker has picked one up for this long get a new worker.
constexpr std::chrono::milliseconds kStarvedAfter(5);
// A worker beyond the first that found nothing to do for this long ends.
constexpr std::chrono::seconds kRetireAfter(5);
constexpr int kPermanentWorkers = 1;
// How much later than its deadline an expiry may be served so that it shares a wake-up of the
// scheduler with others.
constexpr std::chrono::milliseconds kGrouping(1);

}  // namespace

struct Timer::State {
    std::mutex mutex;
    std::condition_variable idle;  // signalled when a run of the callback ends

    ICallback* pCallback = nullptr;
    std::vector<ICallback*> retired;  // replaced while running on the caller's own thread

    std::atomic<bool> bArmed{false};  // written under `mutex`, read without it by isRunning()
    std::uint64_t generation = 0;     // bumped by start and stop: expiries of an older one are void
    bool bOneShot = true;
    Clock::duration period{};
    Clock::time_point deadline;

    bool bQueued = false;           // a heap entry for this timer is live
    std::uint64_t queuedToken = 0;  // identifies the live entry; entries with another token are void
    Clock::time_point queuedDeadline;

    bool bCallbackRunning = false;
    std::thread::id runner;    // the worker inside the callback
    bool bPendingRun = false;  // an expiry came due while the callback was still running
    std::uint64_t pendingGeneration = 0;
};

namespace {

using StatePtr = std::shared_ptr<Timer::State>;

struct Entry {
    Clock::time_point deadline;
    std::uint64_t token;
    StatePtr pState;
};

struct Later {
    bool operator()(const Entry& a, const Entry& b) const { return a.deadline > b.deadline; }
};

struct Job {
    StatePtr pState;
    std::uint64_t generation;
    Clock::time_point queuedAt;
};

void runJob(const Job& job);

class TimerService {
public:
    static TimerService& instance() {
        // Never destroyed: see the note at the top of the file.
        static TimerService* s_pService = new TimerService;
        return *s_pService;
    }

    // Called with the state's lock held (lock order: timer state, then service).
    void enqueue(Timer::State& state, const StatePtr& pState, Clock::time_point deadline) {
        state.bQueued = true;
        state.queuedToken += 1;
        state.queuedDeadline = deadline;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_heap.push(Entry{deadline, state.queuedToken, pState});
        // A sleeping scheduler is woken only when it would otherwise serve this entry later than
        // its deadline plus the grouping allowance; an awake one looks at the heap before it sleeps.
        if (deadline + kGrouping < m_plannedWake) {
            m_plannedWake = Clock::time_point::min();
            m_schedulerWake.notify_one();
        }
    }

private:
    // The threads carry names ("sal-timer", "sal-timer-work") so that they can be told apart in a
    // debugger, in top and in /proc; the name is set before the thread is let go.
    TimerService() {
        startThread("sal-timer", [this] { schedule(); });
        for (int i = 0; i < kPermanentWorkers; ++i) {
            addWorker();
        }
    }

    template <class Body>
    bool startThread(const char* name, Body body) {
        try {
            std::thread thread(body);
            ::pthread_setname_np(thread.native_handle(), name);
            thread.detach();
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }

    // With m_mutex held.
    void addWorker() {
        if (startThread("sal-timer-work", [this] { work(); })) {
            ++m_workers;
        }
    }

    // Expiries that come due close together are served in one wake-up: the scheduler sleeps until
    // the earliest deadline plus kGrouping and then fires everything that is due. No expiry is
    // early; none is later than kGrouping plus the time the thread takes to wake.
    void schedule() {
        std::vector<Entry> due;
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            const Clock::time_point now = Clock::now();
            const Clock::time_point starved = starvedSince();
            if (starved != Clock::time_point::max() && starved + kStarvedAfter <= now) {
                addWorker();
                m_lastPickup = now;  // give the new worker its time before the next one
            }
            while (!m_heap.empty() && m_heap.top().deadline <= now) {
                due.push_back(m_heap.top());
                m_heap.pop();
            }
            if (!due.empty()) {
                lock.unlock();
                for (const Entry& entry : due) {
                    expire(entry, now);
                }
                due.clear();
                lock.lock();
                continue;
            }
            Clock::time_point wake = Clock::time_point::max();
            if (!m_heap.empty()) {
                wake = m_heap.top().deadline + kGrouping;
            }
            if (starvedSince() != Clock::time_point::max()) {
                wake = std::min(wake, starvedSince() + kStarvedAfter);
            }
            m_plannedWake = wake;
            if (wake == Clock::time_point::max()) {
                m_schedulerWake.wait(lock);
            } else {
                m_schedulerWake.wait_until(lock, wake);
            }
            m_plannedWake = Clock::time_point::min();
        }
    }

    // With m_mutex held: since when expiries have been waiting with no free worker and no pickup,
    // or time_point::max() when they are not.
    Clock::time_point starvedSince() const {
        if (m_jobs.empty() || m_idleWorkers > 0) {
            return Clock::time_point::max();
        }
        return std::max(m_jobs.front().queuedAt, m_lastPickup);
    }

    // An entry came due. Decides under the timer's lock whether it fires, moved, or is void.
    void expire(const Entry& entry, Clock::time_point now) {
        Timer::State& state = *entry.pState;
        std::unique_lock<std::mutex> stateLock(state.mutex);
        if (!state.bQueued || entry.token != state.queuedToken) {
            return;  // superseded by an earlier entry for the same timer
        }
        state.bQueued = false;
        if (!state.bArmed.load(std::memory_order_relaxed)) {
            return;
        }
        if (state.deadline > entry.deadline) {
            enqueue(state, entry.pState, state.deadline);  // restarted since: wait for the new deadline
            return;
        }
        if (state.bOneShot) {
            state.bArmed.store(false, std::memory_order_relaxed);
        } else {
            // Anchored to the first deadline, so that the period does not drift; periods missed
            // while the process stood still are skipped, not fired in a burst.
            do {
                state.deadline += state.period;
            } while (state.deadline <= now);
            enqueue(state, entry.pState, state.deadline);
        }
        const std::uint64_t generation = state.generation;
        if (runInline(state, stateLock)) {
            return;
        }
        if (generation == state.generation) {
            dispatch(Job{entry.pState, generation, now});
        }
    }

    // With the state's lock held: offers the expiry to the callback's inline attempt on this
    // thread. True when the attempt did the work; false when a worker must run the callback (it is
    // running on one already, or the attempt declined).
    static bool runInline(Timer::State& state, std::unique_lock<std::mutex>& stateLock) {
        if (state.bCallbackRunning || state.pCallback == nullptr) {
            return false;
        }
        state.bCallbackRunning = true;
        state.runner = std::this_thread::get_id();
        ICallback* pCallback = state.pCallback;
        stateLock.unlock();
        bool bDone = true;
        // As on a worker: an exception ends this run and nothing else.
        try {
            bDone = pCallback->callInline();
        } catch (...) {
        }
        stateLock.lock();
        state.bCallbackRunning = false;
        state.runner = std::thread::id();
        std::vector<ICallback*> retired;
        retired.swap(state.retired);
        state.idle.notify_all();
        if (!retired.empty()) {
            stateLock.unlock();
            for (ICallback* pOld : retired) {
                delete pOld;
            }
            stateLock.lock();
        }
        return bDone;
    }

    void dispatch(Job job) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_jobs.push_back(std::move(job));
        if (m_idleWorkers > 0) {
            m_workWake.notify_one();
        } else {
            m_schedulerWake.notify_one();  // it decides when a new worker is due
        }
    }

    void work() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            while (m_jobs.empty()) {
                ++m_idleWorkers;
                const bool bWoken =
                    m_workWake.wait_for(lock, kRetireAfter, [this] { return !m_jobs.empty(); });
                --m_idleWorkers;
                if (!bWoken && m_workers > kPermanentWorkers) {
                    --m_workers;
                    return;
                }
            }
            Job job = std::move(m_jobs.front());
            m_jobs.pop_front();
            m_lastPickup = Clock::now();
            if (!m_jobs.empty() && m_idleWorkers == 0) {
                m_schedulerWake.notify_one();  // more waiting and nobody free: it may add a worker
            }
            lock.unlock();
            runJob(job);
            job.pState.reset();
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_schedulerWake;
    Clock::time_point m_plannedWake = Clock::time_point::min();  // while asleep: when it wakes
    std::condition_variable m_workWake;
    std::priority_queue<Entry, std::vector<Entry>, Later> m_heap;
    std::deque<Job> m_jobs;
    Clock::time_point m_lastPickup;
    int m_workers = 0;
    int m_idleWorkers = 0;
};

void callSafely(ICallback* pCallback) {
    if (pCallback == nullptr) {
        return;
    }
    // A callback's exception must not end the worker, let alone the host process.
    try {
        pCallback->call();
    } catch (...) {
    }
}

// Runs one expiry on a worker. One timer's callback never runs on two workers at once: an expiry
// that comes due meanwhile is remembered and runs when the current call returns, unless the timer
// was stopped or restarted in between.
void runJob(const Job& job) {
    Timer::State& state = *job.pState;
    std::unique_lock<std::mutex> lock(state.mutex);
    if (job.generation != state.generation) {
        return;
    }
    if (state.bCallbackRunning) {
        state.bPendingRun = true;
        state.pendingGeneration = job.generation;
        return;
    }
    state.bCallbackRunning = true;
    state.runner = std::this_thread::get_id();
    for (;;) {
        ICallback* pCallback = state.pCallback;
        lock.unlock();
        callSafely(pCallback);
        lock.lock();
        if (state.bPendingRun && state.pendingGeneration == state.generation) {
            state.bPendingRun = false;
            continue;
        }
        break;
    }
    state.bPendingRun = false;
    state.bCallbackRunning = false;
    state.runner = std::thread::id();
    std::vector<ICallback*> retired;
    retired.swap(state.retired);
    state.idle.notify_all();
    lock.unlock();
    for (ICallback* pOld : retired) {
        delete pOld;
    }
}

}  // namespace

Timer::Timer() : m_pState(std::make_shared<State>()) {}

Timer::~Timer() {
    ICallback* pCallback = nullptr;
    {
        std::unique_lock<std::mutex> lock(m_pState->mutex);
        m_pState->generation += 1;
        m_pState->bArmed.store(false, std::memory_order_relaxed);
        if (m_pState->bCallbackRunning && m_pState->runner == std::this_thread::get_id()) {
            // Destroyed from inside its own callback: the worker deletes the callback once the
            // call has returned.
            m_pState->retired.push_back(m_pState->pCallback);
        } else {
            m_pState->idle.wait(lock, [this] { return !m_pState->bCallbackRunning; });
            pCallback = m_pState->pCallback;
        }
        m_pState->pCallback = nullptr;
    }
    delete pCallback;
}

void Timer::setCallback(ICallback* pCallback) {
    ICallback* pOld = nullptr;
    {
        std::unique_lock<std::mutex> lock(m_pState->mutex);
        if (m_pState->bCallbackRunning && m_pState->runner == std::this_thread::get_id()) {
            m_pState->retired.push_back(m_pState->pCallback);  // still on the stack below us
        } else {
            m_pState->idle.wait(lock, [this] { return !m_pState->bCallbackRunning; });
            pOld = m_pState->pCallback;
        }
        m_pState->pCallback = pCallback;
    }
    if (pOld != pCallback) {
        delete pOld;
    }
}

// A repeating timer with period 0 would fire without pause and is refused; a one-shot timer with
// period 0 fires as soon as a worker is free.
bool Timer::start(unsigned int periodUs, bool oneShot) {
    if (periodUs == 0 && !oneShot) {
        return false;
    }
    State& state = *m_pState;
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.bArmed.load(std::memory_order_relaxed)) {
        return false;  // never postpones a running timer
    }
    state.generation += 1;
    state.bOneShot = oneShot;
    state.period = std::chrono::microseconds(periodUs);
    state.deadline = Clock::now() + state.period;
    state.bArmed.store(true, std::memory_order_relaxed);
    if (!state.bQueued || state.deadline < state.queuedDeadline) {
        TimerService::instance().enqueue(state, m_pState, state.deadline);
    }
    return true;
}

void Timer::stop() {
    std::lock_guard<std::mutex> lock(m_pState->mutex);
    m_pState->generation += 1;
    m_pState->bArmed.store(false, std::memory_order_relaxed);
}

bool Timer::isRunning() const {
    return m_pState->bArmed.load(std::memory_order_relaxed);
}

// From inside this timer's own callback there is nothing to wait for that could ever end, so the
// call returns at once there.
void Timer::waitUntilIdle() {
    std::unique_lock<std::mutex> lock(m_pState->mutex);
    if (m_pState->bCallbackRunning && m_pState->runner == std::this_thread::get_id()) {
        return;
    }
    m_pState->idle.wait(lock, [this] { return !m_pState->bCallbackRunning; });
}

}  // namespace sal
