#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <sal/cmdprocessor.h>
#include <sal/semaphore.h>

#include "testsupport.h"

namespace {

using sal::BinarySemaphore;
using sal::CmdProcessor;
using sal::SingletonDll;
using testsupport::waitUntil;

class FlagCommand : public sal::ICallback {
public:
    FlagCommand(std::atomic<int>& calls, std::atomic<int>& deleted) : m_calls(calls), m_deleted(deleted) {}
    ~FlagCommand() override { ++m_deleted; }
    void call() override { ++m_calls; }

private:
    std::atomic<int>& m_calls;
    std::atomic<int>& m_deleted;
};

TEST(CmdProcessor, RunsCommandsInOrderOnItsOwnThread) {
    CmdProcessor processor;
    std::mutex mutex;
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(processor.post([&, i] {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
        }));
    }
    processor.flush();
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(200u, order.size());
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(i, order[static_cast<std::size_t>(i)]);
        EXPECT_EQ(threads[0], threads[static_cast<std::size_t>(i)]);
    }
    EXPECT_NE(std::this_thread::get_id(), threads[0]);
    EXPECT_EQ(200u, processor.getExecutedCount());
}

TEST(CmdProcessor, FlushWaitsForEverythingPostedBefore) {
    CmdProcessor processor;
    std::atomic<int> done{0};
    for (int i = 0; i < 20; ++i) {
        processor.post([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            ++done;
        });
    }
    processor.flush();
    EXPECT_EQ(20, done.load());
    EXPECT_EQ(20u, processor.getExecutedCount());
    processor.flush();  // nothing queued: returns at once
}

TEST(CmdProcessor, FlushFromInsideACommandReturnsAtOnce) {
    CmdProcessor processor;
    std::atomic<int> flushed{0};
    processor.post([&] {
        processor.flush();
        flushed = 1;
    });
    EXPECT_TRUE(waitUntil([&] { return flushed.load() == 1; }, 5000));
    processor.flush();
}

TEST(CmdProcessor, CallbackCommandsAreRunAndDeleted) {
    std::atomic<int> calls{0};
    std::atomic<int> deleted{0};
    CmdProcessor processor;
    ASSERT_TRUE(processor.post(new FlagCommand(calls, deleted)));
    ASSERT_TRUE(processor.post(new FlagCommand(calls, deleted)));
    processor.flush();
    EXPECT_EQ(2, calls.load());
    EXPECT_EQ(2, deleted.load());
    EXPECT_FALSE(processor.post(static_cast<sal::ICallback*>(nullptr)));
    EXPECT_FALSE(processor.post(std::function<void()>()));
    EXPECT_EQ(2u, processor.getExecutedCount());
}

TEST(CmdProcessor, ExceptionInACommandDoesNotStopTheProcessor) {
    CmdProcessor processor;
    std::atomic<int> after{0};
    processor.post([] { throw std::runtime_error("command failed"); });
    processor.post([&] { after = 1; });
    processor.flush();
    EXPECT_EQ(1, after.load());
    EXPECT_EQ(2u, processor.getExecutedCount());
}

TEST(CmdProcessor, DestructorRunsWhatIsQueued) {
    std::atomic<int> done{0};
    {
        CmdProcessor processor;
        for (int i = 0; i < 10; ++i) {
            processor.post([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                ++done;
            });
        }
    }
    EXPECT_EQ(10, done.load());
}

TEST(CmdProcessor, PostIsRefusedOnceShuttingDown) {
    CmdProcessor* pProcessor = new CmdProcessor;
    BinarySemaphore entered;
    BinarySemaphore release;
    std::atomic<int> lateResult{-1};
    std::atomic<int> queuedRan{0};
    std::atomic<int> refusedDeleted{0};
    std::atomic<int> refusedCalls{0};
    pProcessor->post([&] {
        entered.give();
        release.take();
        lateResult = pProcessor->post([] {}) ? 1 : 0;
    });
    pProcessor->post([&] { queuedRan = 1; });
    ASSERT_EQ(0, entered.take(5000));
    std::thread deleter([pProcessor] { delete pProcessor; });
    // The destructor cannot finish while the first command waits; once it has begun, posts fail.
    ASSERT_TRUE(waitUntil([&] { return !pProcessor->post([] {}); }, 5000));
    EXPECT_FALSE(pProcessor->post(new FlagCommand(refusedCalls, refusedDeleted)));
    EXPECT_EQ(1, refusedDeleted.load());  // a refused command is deleted, never run
    release.give();
    deleter.join();
    EXPECT_EQ(0, lateResult.load());
    EXPECT_EQ(1, queuedRan.load());  // queued before the shutdown: still run
    EXPECT_EQ(0, refusedCalls.load());
}

TEST(CmdProcessor, DeletedFromInsideItsOwnCommand) {
    CmdProcessor* pProcessor = new CmdProcessor;
    std::atomic<int> deleted{0};
    pProcessor->post([pProcessor, &deleted] {
        delete pProcessor;  // must not join its own thread
        deleted = 1;
    });
    EXPECT_TRUE(waitUntil([&] { return deleted.load() == 1; }, 5000));
    EXPECT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
}

TEST(CmdProcessor, ConstructorRegistersAndDestructorClears) {
    ASSERT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
    {
        CmdProcessor processor;
        EXPECT_EQ(&processor, SingletonDll<CmdProcessor>::s_pInstance);
        {
            CmdProcessor other;  // leaves the registration of the first alone
            EXPECT_EQ(&processor, SingletonDll<CmdProcessor>::s_pInstance);
        }
        EXPECT_EQ(&processor, SingletonDll<CmdProcessor>::s_pInstance);
    }
    EXPECT_EQ(nullptr, SingletonDll<CmdProcessor>::s_pInstance);
}

TEST(SingletonDll, CreateDestroyCreate) {
    ASSERT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
    SingletonDll<CmdProcessor>::createInstance();
    CmdProcessor* pFirst = SingletonDll<CmdProcessor>::getInstance();
    ASSERT_NE(nullptr, pFirst);
    std::atomic<int> ran{0};
    EXPECT_TRUE(pFirst->post([&] { ran = 1; }));
    pFirst->flush();
    EXPECT_EQ(1, ran.load());
    SingletonDll<CmdProcessor>::destroyInstance();
    EXPECT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
    SingletonDll<CmdProcessor>::destroyInstance();  // a second destroy does nothing
    EXPECT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
    SingletonDll<CmdProcessor>::createInstance();
    EXPECT_NE(nullptr, SingletonDll<CmdProcessor>::getInstance());
    SingletonDll<CmdProcessor>::destroyInstance();
    EXPECT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
}

TEST(SingletonDll, DestroyWithoutCreateDoesNothing) {
    ASSERT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
    SingletonDll<CmdProcessor>::destroyInstance();
    EXPECT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());
}

TEST(SingletonDllDeathTest, SecondCreateAsserts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SingletonDll<CmdProcessor>::createInstance();
            SingletonDll<CmdProcessor>::createInstance();
        },
        "singleton\\.h:[0-9]+: static void sal::SingletonDll<T>::createInstance\\(\\) "
        "\\[with T = sal::CmdProcessor\\]: Assertion `s_pInstance == NULL' failed\\.");
    EXPECT_EQ(nullptr, SingletonDll<CmdProcessor>::getInstance());  // only the child had one
}

}  // namespace
