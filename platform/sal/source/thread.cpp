#include <sal/thread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace sal {

// What the OS thread shares with the Thread object. The OS thread holds its own reference, so a
// Thread deleted from inside its run() leaves the state alive until the thread has finished with it.
struct RunState {
    std::mutex mutex;
    std::condition_variable finished;
    bool bRunning = false;
};

struct Thread::Impl {
    std::shared_ptr<RunState> pState = std::make_shared<RunState>();
    std::mutex threadMutex;  // guards `thread` (start, shutdown and the destructor may reap it)
    std::thread thread;
};

namespace {

void runThread(Thread* pThread, std::shared_ptr<RunState> pState) {
    // run() must not let an exception escape into the host's process; one that does ends this run.
    try {
        pThread->run();
    } catch (...) {
    }
    // From here on the Thread object may already be gone: only the shared state is touched.
    std::lock_guard<std::mutex> lock(pState->mutex);
    pState->bRunning = false;
    pState->finished.notify_all();
}

// Joins a finished OS thread so that its resources go back; never joins the calling thread.
void reap(std::thread& thread) {
    if (thread.joinable()) {
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }
}

}  // namespace

Thread::Thread() : m_pImpl(new Impl) {}

Thread::~Thread() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(m_pImpl->threadMutex);
        thread = std::move(m_pImpl->thread);
    }
    reap(thread);  // waits for a run() still going; detaches when called from inside it
}

bool Thread::shutdownCallback() {
    return true;
}

bool Thread::start() {
    std::lock_guard<std::mutex> threadLock(m_pImpl->threadMutex);
    RunState& state = *m_pImpl->pState;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.bRunning) {
            return false;
        }
        state.bRunning = true;
    }
    reap(m_pImpl->thread);  // the previous run has returned; its OS thread is ending or ended
    try {
        m_pImpl->thread = std::thread(runThread, this, m_pImpl->pState);
    } catch (const std::system_error&) {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.bRunning = false;
        return false;
    }
    return true;
}

bool Thread::shutdown(int timeoutMs) {
    shutdownCallback();
    bool bOwnThread;
    {
        std::lock_guard<std::mutex> threadLock(m_pImpl->threadMutex);
        bOwnThread = m_pImpl->thread.get_id() == std::this_thread::get_id();
    }
    RunState& state = *m_pImpl->pState;
    std::unique_lock<std::mutex> lock(state.mutex);
    // A shutdown from inside run() cannot wait for itself: it reports that run() is still going.
    if (!bOwnThread) {
        auto done = [&state] { return !state.bRunning; };
        if (timeoutMs < 0) {
            state.finished.wait(lock, done);
        } else {
            state.finished.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
        }
    }
    return !state.bRunning;
}

bool Thread::isRunning() const {
    std::lock_guard<std::mutex> lock(m_pImpl->pState->mutex);
    return m_pImpl->pState->bRunning;
}

void Thread::mssleep(unsigned int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

}  // namespace sal
