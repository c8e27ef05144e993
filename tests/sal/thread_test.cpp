#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

#include <sal/semaphore.h>
#include <sal/thread.h>

#include "testsupport.h"

namespace {

using sal::BinarySemaphore;
using testsupport::nowMs;
using testsupport::waitUntil;

// A run() that counts its runs and then waits until it is released.
class Worker : public sal::Thread {
public:
    explicit Worker(bool releaseOnShutdown = true) : m_bReleaseOnShutdown(releaseOnShutdown) {}
    ~Worker() override {
        m_release.give();
        shutdown(-1);
    }
    void run() override {
        m_runThread = std::this_thread::get_id();
        ++m_runs;
        m_started.give();
        m_release.take();
        ++m_finished;
    }
    bool shutdownCallback() override {
        ++m_callbacks;
        m_callbackThread = std::this_thread::get_id();
        if (m_bReleaseOnShutdown) {
            m_release.give();
        }
        return true;
    }

    bool m_bReleaseOnShutdown;
    BinarySemaphore m_started;
    BinarySemaphore m_release;
    std::atomic<int> m_runs{0};
    std::atomic<int> m_finished{0};
    std::atomic<int> m_callbacks{0};
    std::thread::id m_runThread;
    std::thread::id m_callbackThread;
};

TEST(Thread, StartRunsRunOnAnotherThread) {
    Worker worker;
    EXPECT_FALSE(worker.isRunning());
    ASSERT_TRUE(worker.start());
    ASSERT_EQ(0, worker.m_started.take(5000));
    EXPECT_TRUE(worker.isRunning());
    EXPECT_NE(std::this_thread::get_id(), worker.m_runThread);
    worker.m_release.give();
    EXPECT_TRUE(waitUntil([&] { return !worker.isRunning(); }, 5000));
    EXPECT_EQ(1, worker.m_runs.load());
    EXPECT_EQ(1, worker.m_finished.load());
}

TEST(Thread, StartWhileRunningReturnsFalse) {
    Worker worker;
    ASSERT_TRUE(worker.start());
    ASSERT_EQ(0, worker.m_started.take(5000));
    EXPECT_FALSE(worker.start());
    EXPECT_FALSE(worker.start());
    worker.m_release.give();
    EXPECT_TRUE(waitUntil([&] { return !worker.isRunning(); }, 5000));
    EXPECT_EQ(1, worker.m_runs.load());
}

TEST(Thread, StartAfterRunReturnedRunsAgain) {
    Worker worker;
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(worker.start()) << "round " << round;
        ASSERT_EQ(0, worker.m_started.take(5000));
        worker.m_release.give();
        ASSERT_TRUE(waitUntil([&] { return !worker.isRunning(); }, 5000));
        EXPECT_EQ(round, worker.m_runs.load());
        EXPECT_EQ(round, worker.m_finished.load());
    }
}

TEST(Thread, ShutdownCallsCallbackOnCallerAndWaits) {
    Worker worker;
    ASSERT_TRUE(worker.start());
    ASSERT_EQ(0, worker.m_started.take(5000));
    EXPECT_TRUE(worker.shutdown(5000));
    EXPECT_EQ(1, worker.m_callbacks.load());
    EXPECT_EQ(std::this_thread::get_id(), worker.m_callbackThread);
    EXPECT_EQ(1, worker.m_finished.load());  // run() had returned when shutdown returned true
    EXPECT_FALSE(worker.isRunning());
}

TEST(Thread, ShutdownTimesOutWhileRunKeepsGoing) {
    Worker worker(false);  // the callback does not make run() return
    ASSERT_TRUE(worker.start());
    ASSERT_EQ(0, worker.m_started.take(5000));
    const std::int64_t start = nowMs();
    EXPECT_FALSE(worker.shutdown(150));
    const std::int64_t elapsed = nowMs() - start;
    EXPECT_GE(elapsed, 140);
    EXPECT_LT(elapsed, 3000);
    EXPECT_TRUE(worker.isRunning());
    EXPECT_EQ(0, worker.m_finished.load());
    worker.m_release.give();
    EXPECT_TRUE(worker.shutdown(-1));  // without limit
    EXPECT_EQ(1, worker.m_finished.load());
}

TEST(Thread, ShutdownOfIdleThreadReturnsTrue) {
    Worker worker;
    EXPECT_TRUE(worker.shutdown(0));
    EXPECT_EQ(1, worker.m_callbacks.load());  // the callback is called all the same
}

TEST(Thread, DefaultShutdownCallbackReturnsTrue) {
    class Plain : public sal::Thread {
    public:
        void run() override {}
    } plain;
    EXPECT_TRUE(plain.shutdownCallback());
    ASSERT_TRUE(plain.start());
    EXPECT_TRUE(plain.shutdown(5000));
}

// A run() that, once it has announced itself, only touches state outside the object, so the object
// may go while it runs.
class Detached : public sal::Thread {
public:
    Detached(BinarySemaphore& started, BinarySemaphore& release, std::atomic<int>& finished)
        : m_started(started), m_release(release), m_finished(finished) {}
    void run() override {
        BinarySemaphore& release = m_release;
        std::atomic<int>& finished = m_finished;
        m_started.give();
        release.take();
        finished = 1;
    }
    BinarySemaphore& m_started;
    BinarySemaphore& m_release;
    std::atomic<int>& m_finished;
};

TEST(Thread, DestructorWaitsForRunningRun) {
    BinarySemaphore started;
    BinarySemaphore release;
    std::atomic<int> finished{0};
    std::unique_ptr<Detached> pThread(new Detached(started, release, finished));
    ASSERT_TRUE(pThread->start());
    ASSERT_EQ(0, started.take(5000));
    // Released only once this thread waits in the destructor.
    const int deleter = testsupport::currentThreadId();
    std::atomic<bool> deleting{false};
    std::atomic<std::int64_t> releasedAt{0};
    std::thread releaser([&] {
        waitUntil([&] { return deleting.load(); }, 5000);
        testsupport::waitUntilBlocked(deleter, 5000);
        releasedAt = nowMs();
        release.give();
    });
    deleting = true;
    pThread.reset();  // blocks until run() returned; must not terminate the process
    const std::int64_t deletedAt = nowMs();
    EXPECT_EQ(1, finished.load());
    EXPECT_NE(0, releasedAt.load());
    EXPECT_GE(deletedAt, releasedAt.load());
    releaser.join();
}

class SelfDeleting : public sal::Thread {
public:
    explicit SelfDeleting(std::atomic<int>& done) : m_done(done) {}
    void run() override {
        std::atomic<int>& done = m_done;
        delete this;  // the destructor runs on this very thread: it must not join itself
        done = 1;
    }
    std::atomic<int>& m_done;
};

TEST(Thread, DestroyedFromInsideItsOwnRun) {
    std::atomic<int> done{0};
    SelfDeleting* pThread = new SelfDeleting(done);
    ASSERT_TRUE(pThread->start());
    EXPECT_TRUE(waitUntil([&] { return done.load() == 1; }, 5000));
}

class SelfShutdown : public sal::Thread {
public:
    void run() override {
        const std::int64_t start = nowMs();
        const bool result = shutdown(1000);
        m_tookMs = nowMs() - start;
        m_result = result ? 1 : 0;
    }
    std::atomic<int> m_result{-1};
    std::atomic<std::int64_t> m_tookMs{-1};
};

TEST(Thread, ShutdownFromInsideRunDoesNotWaitForItself) {
    SelfShutdown thread;
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(waitUntil([&] { return thread.m_result.load() != -1; }, 5000));
    EXPECT_EQ(0, thread.m_result.load());  // run() was still going when it asked
    // The call alone is timed: waiting for itself, it would take the whole second.
    EXPECT_LT(thread.m_tookMs.load(), 900);
    EXPECT_TRUE(thread.shutdown(5000));
}

class Throwing : public sal::Thread {
public:
    void run() override { throw std::runtime_error("escaped"); }
};

TEST(Thread, ExceptionFromRunDoesNotEndTheProcess) {
    Throwing thread;
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.shutdown(5000));
    ASSERT_TRUE(thread.start());  // and it can run again
    EXPECT_TRUE(thread.shutdown(5000));
}

TEST(Thread, MsSleepSleepsAtLeastTheTime) {
    const std::int64_t start = nowMs();
    sal::Thread::mssleep(120);
    const std::int64_t elapsed = nowMs() - start;
    EXPECT_GE(elapsed, 120);
    EXPECT_LT(elapsed, 3000);
}

}  // namespace
