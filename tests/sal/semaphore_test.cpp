#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include <sal/semaphore.h>

#include "testsupport.h"

namespace {

using sal::BinarySemaphore;
using sal::CountingSemaphore;
using sal::MutexSemaphore;
using sal::WAIT_FOREVER;
using testsupport::nowMs;
using testsupport::waitUntil;

TEST(BinarySemaphore, TakeTimesOutAfterTheLimit) {
    BinarySemaphore semaphore;
    const std::int64_t start = nowMs();
    EXPECT_EQ(1, semaphore.take(100));
    const std::int64_t elapsed = nowMs() - start;
    std::printf("BinarySemaphore take(100) timed out after %lld ms\n", static_cast<long long>(elapsed));
    EXPECT_GE(elapsed, 100);
    EXPECT_LT(elapsed, 2000);
}

TEST(BinarySemaphore, TryOnce) {
    BinarySemaphore semaphore;
    const std::int64_t start = nowMs();
    EXPECT_EQ(1, semaphore.take(0));
    EXPECT_LT(nowMs() - start, 1000);
    semaphore.give();
    EXPECT_EQ(0, semaphore.take(0));
    EXPECT_EQ(1, semaphore.take(0));
}

TEST(BinarySemaphore, GiveWhileGivenKeepsOne) {
    BinarySemaphore semaphore;
    semaphore.give();
    semaphore.give();
    semaphore.give();
    EXPECT_EQ(0, semaphore.take(0));
    EXPECT_EQ(1, semaphore.take(0));
}

TEST(BinarySemaphore, ConstructedGiven) {
    BinarySemaphore semaphore(true);
    EXPECT_EQ(0, semaphore.take(0));
    EXPECT_EQ(1, semaphore.take(0));
}

TEST(BinarySemaphore, GiveWakesAWaiterWithoutLimit) {
    BinarySemaphore semaphore;
    std::atomic<int> result{-1};
    std::thread taker([&] { result = semaphore.take(WAIT_FOREVER); });
    EXPECT_FALSE(waitUntil([&] { return result.load() != -1; }, 150));
    semaphore.give();
    EXPECT_TRUE(waitUntil([&] { return result.load() != -1; }, 5000));
    taker.join();
    EXPECT_EQ(0, result.load());
}

TEST(BinarySemaphore, GiveWithinTheLimitIsTaken) {
    BinarySemaphore semaphore;
    // Given only once this thread waits in take().
    const int taker = testsupport::currentThreadId();
    std::atomic<bool> taking{false};
    std::thread giver([&] {
        waitUntil([&] { return taking.load(); }, 5000);
        testsupport::waitUntilBlocked(taker, 5000);
        semaphore.give();
    });
    taking = true;
    const std::int64_t start = nowMs();
    EXPECT_EQ(0, semaphore.take(10000));
    EXPECT_LT(nowMs() - start, 5000);
    giver.join();
}

TEST(CountingSemaphore, CountsGivesAndTakes) {
    CountingSemaphore semaphore(2);
    EXPECT_EQ(2u, semaphore.getCount());
    EXPECT_EQ(0, semaphore.take(0));
    EXPECT_EQ(0, semaphore.take(0));
    EXPECT_EQ(1, semaphore.take(0));
    semaphore.give();
    semaphore.give();
    semaphore.give();
    EXPECT_EQ(3u, semaphore.getCount());
    EXPECT_EQ(0, semaphore.take(0));
    EXPECT_EQ(2u, semaphore.getCount());
}

TEST(CountingSemaphore, TakeTimesOutAfterTheLimit) {
    CountingSemaphore semaphore;
    const std::int64_t start = nowMs();
    EXPECT_EQ(1, semaphore.take(100));
    const std::int64_t elapsed = nowMs() - start;
    EXPECT_GE(elapsed, 100);
    EXPECT_LT(elapsed, 2000);
    EXPECT_EQ(0u, semaphore.getCount());
}

TEST(CountingSemaphore, EveryGiveIsTakenOnce) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 1000;
    CountingSemaphore semaphore;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i) {
                semaphore.give();
            }
        });
    }
    int taken = 0;
    for (int i = 0; i < kProducers * kPerProducer; ++i) {
        if (semaphore.take(10000) == 0) {
            ++taken;
        }
    }
    for (auto& producer : producers) {
        producer.join();
    }
    EXPECT_EQ(kProducers * kPerProducer, taken);
    EXPECT_EQ(0u, semaphore.getCount());
    EXPECT_EQ(1, semaphore.take(0));
}

TEST(MutexSemaphore, ExcludesOtherThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    MutexSemaphore mutex;
    long counter = 0;  // deliberately plain: only the mutex protects it
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                ASSERT_EQ(0, mutex.take());
                if (inside.fetch_add(1) != 0) {
                    ++overlaps;
                }
                ++counter;
                inside.fetch_sub(1);
                mutex.give();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, overlaps.load());
    EXPECT_EQ(static_cast<long>(kThreads) * kRounds, counter);
}

TEST(MutexSemaphore, TakeTimesOutWhileHeldElsewhere) {
    MutexSemaphore mutex;
    ASSERT_EQ(0, mutex.take());
    std::atomic<int> tryOnce{-1};
    std::atomic<int> limited{-1};
    std::atomic<long long> elapsed{0};
    std::thread other([&] {
        tryOnce = mutex.take(0);
        const std::int64_t start = nowMs();
        limited = mutex.take(100);
        elapsed = nowMs() - start;
    });
    other.join();
    EXPECT_EQ(1, tryOnce.load());
    EXPECT_EQ(1, limited.load());
    EXPECT_GE(elapsed.load(), 100);
    EXPECT_LT(elapsed.load(), 2000);
    mutex.give();
}

TEST(MutexSemaphore, WaiterGetsItWhenGiven) {
    MutexSemaphore mutex;
    ASSERT_EQ(0, mutex.take());
    std::atomic<int> result{-1};
    std::thread other([&] {
        result = mutex.take(WAIT_FOREVER);
        if (result == 0) {
            mutex.give();
        }
    });
    EXPECT_FALSE(waitUntil([&] { return result.load() != -1; }, 150));
    mutex.give();
    other.join();
    EXPECT_EQ(0, result.load());
    EXPECT_EQ(0, mutex.take(0));  // given back by the other thread
    mutex.give();
}

}  // namespace
