#include "../support/wait.h"
#include "platform/dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
namespace dispatch = quendral::dispatch;

using quendral::test::waitFor;

TEST(SerialQueue, RunsTasksOneAtATimeInOrder)
{
    auto queue = dispatch::makeSerialQueue("test.order");
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    for (int i = 0; i < 200; ++i) {
        queue->async([&, i] {
            if (running.fetch_add(1) != 0) {
                overlapped = true;
            }
            std::this_thread::yield();
            {
                std::lock_guard lock(mutex);
                order.push_back(i);
            }
            running.fetch_sub(1);
        });
    }
    queue->sync([] {});
    std::lock_guard lock(mutex);
    ASSERT_EQ(order.size(), 200U);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
    EXPECT_FALSE(overlapped.load());
}

TEST(SerialQueue, SyncFromItsOwnTaskRunsInline)
{
    auto queue = dispatch::makeSerialQueue("test.inline");
    bool innerRan = false;
    queue->sync([&] {
        EXPECT_TRUE(queue->isCurrent());
        queue->sync([&] { innerRan = true; });
    });
    EXPECT_TRUE(innerRan);
    EXPECT_FALSE(queue->isCurrent());
}

TEST(SerialQueue, AnIdleQueueDropsATaskThatWouldChangeNothing)
{
    auto queue = dispatch::makeSerialQueue("test.skip.idle");
    std::atomic<bool> ran{false};
    bool looked = false;
    const bool queued = queue->asyncUnlessIdleAnd(
        [&] {
            looked = true;
            return true;
        },
        [&] { ran = true; });
    queue->sync([] {});
    EXPECT_FALSE(queued);
    EXPECT_TRUE(looked);
    EXPECT_FALSE(ran.load());
}

TEST(SerialQueue, ATaskThatIsNeededIsQueuedLikeAnyOther)
{
    auto queue = dispatch::makeSerialQueue("test.skip.needed");
    std::atomic<bool> ran{false};
    EXPECT_TRUE(queue->asyncUnlessIdleAnd([] { return false; }, [&] { ran = true; }));
    queue->sync([] {});
    EXPECT_TRUE(ran.load());
}

TEST(SerialQueue, ABusyQueueRunsTheTaskAfterWhatWaitsWithoutAskingWhetherItIsNeeded)
{
    // The tasks ahead may change what the dropped task would have found, so a
    // queue with anything running or waiting never drops one.
    auto queue = dispatch::makeSerialQueue("test.skip.busy");
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<bool> release{false};
    std::atomic<bool> started{false};
    queue->async([&] {
        started = true;
        while (!release.load()) {
            std::this_thread::yield();
        }
        std::lock_guard lock(mutex);
        order.push_back(1);
    });
    ASSERT_TRUE(waitFor([&] { return started.load(); }));
    queue->async([&] {
        std::lock_guard lock(mutex);
        order.push_back(2);
    });
    bool asked = false;
    const bool queued = queue->asyncUnlessIdleAnd(
        [&] {
            asked = true;
            return true;
        },
        [&] {
            std::lock_guard lock(mutex);
            order.push_back(3);
        });
    release = true;
    queue->sync([] {});
    EXPECT_TRUE(queued);
    EXPECT_FALSE(asked);
    std::lock_guard lock(mutex);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueue, NoTaskStartsWhileTheQueueLooksWhetherATaskIsNeeded)
{
    // What the look reads is changed only by the queue's own tasks: while it
    // looks, none of them may run, or it could drop a task one of them needs.
    auto queue = dispatch::makeSerialQueue("test.skip.exclusive");
    std::atomic<bool> inLook{false};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> stop{false};
    std::thread poster([&] {
        while (!stop.load()) {
            queue->async([&] {
                if (inLook.load()) {
                    overlapped = true;
                }
            });
            std::this_thread::sleep_for(20us);
        }
    });
    for (int i = 0; i < 1000; ++i) {
        queue->asyncUnlessIdleAnd(
            [&] {
                inLook = true;
                std::this_thread::sleep_for(100us);
                inLook = false;
                return true;
            },
            [] {});
    }
    stop = true;
    poster.join();
    queue->sync([] {});
    EXPECT_FALSE(overlapped.load());
}

TEST(GlobalQueue, ANonSerialQueueAlwaysQueues)
{
    std::atomic<bool> ran{false};
    EXPECT_TRUE(dispatch::globalQueue()->asyncUnlessIdleAnd([] { return true; }, [&] { ran = true; }));
    EXPECT_TRUE(waitFor([&] { return ran.load(); }));
}

TEST(GlobalQueue, BlockedTasksDoNotStarveLaterOnes)
{
    // Eight tasks block until a ninth releases them; a fixed pool smaller
    // than nine would hang here.
    std::atomic<bool> release{false};
    std::atomic<int> finished{0};
    for (int i = 0; i < 8; ++i) {
        dispatch::globalQueue()->async([&] {
            while (!release.load()) {
                std::this_thread::sleep_for(1ms);
            }
            finished.fetch_add(1);
        });
    }
    dispatch::globalQueue()->async([&] { release = true; });
    EXPECT_TRUE(waitFor([&] { return finished.load() == 8; }));
}

TEST(MainQueue, SyncFromBackgroundThreadsRunsOnTheMainThread)
{
    ASSERT_TRUE(dispatch::isMainThread());
    std::atomic<int> onMain{0};
    std::atomic<int> returned{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            int value = 0;
            dispatch::mainQueue()->sync([&] {
                if (dispatch::isMainThread()) {
                    onMain.fetch_add(1);
                }
                value = 7;
            });
            if (value == 7) {
                returned.fetch_add(1);
            }
        });
    }
    EXPECT_TRUE(waitFor([&] { return returned.load() == 4; }));
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(onMain.load(), 4);
}

TEST(MainQueue, SyncFromTheMainThreadRunsInlineWithoutDeadlock)
{
    bool ran = false;
    dispatch::mainQueue()->sync([&] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST(MainQueue, AsyncNeverRunsInline)
{
    bool ran = false;
    dispatch::mainQueue()->async([&] { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_TRUE(waitFor([&] { return ran; }));
}

TEST(Timer, OneShotFiresOnceAfterItsDelay)
{
    std::atomic<int> fired{0};
    const auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point firedAt;
    auto timer = dispatch::Timer::create(dispatch::mainQueue(), 50ms, 0ms, 5ms, [&] {
        firedAt = std::chrono::steady_clock::now();
        fired.fetch_add(1);
    });
    timer->resume();
    ASSERT_TRUE(waitFor([&] { return fired.load() == 1; }));
    dispatch::RunLoop::main().runFor(120ms);
    EXPECT_EQ(fired.load(), 1);
    EXPECT_GE(firedAt - start, 50ms);
}

TEST(Timer, RepeatingTimerKeepsItsInterval)
{
    std::vector<std::chrono::steady_clock::time_point> firings;
    auto timer = dispatch::Timer::create(dispatch::mainQueue(), 0ms, 20ms, 2ms,
                                         [&] { firings.push_back(std::chrono::steady_clock::now()); });
    const auto start = std::chrono::steady_clock::now();
    timer->resume();
    ASSERT_TRUE(waitFor([&] { return firings.size() >= 6; }));
    timer->cancel();
    // Measured from the start, not from the first firing: on a busy machine
    // the first firings can reach the main queue late and bunch up with the
    // next ones, but no firing ever comes before its time.
    EXPECT_GE(firings[5] - start, 5 * 20ms - 1ms);
    // Only a loose upper bound: the suite shares two cores with compilers and sanitizers.
    EXPECT_LT(firings[5] - start, 1000ms);
}

TEST(Timer, FiresWithinItsLeewayOnAQuietMachine)
{
    auto queue = dispatch::makeSerialQueue("test.leeway");
    std::atomic<bool> fired{false};
    std::atomic<long long> lateByUs{0};
    const auto due = std::chrono::steady_clock::now() + 30ms;
    auto timer = dispatch::Timer::create(queue, 30ms, 0ms, 10ms, [&] {
        lateByUs =
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - due).count();
        fired = true;
    });
    EXPECT_EQ(timer->leeway(), 10ms);
    timer->resume();
    ASSERT_TRUE(waitFor([&] { return fired.load(); }));
    EXPECT_GE(lateByUs.load(), 0);
    // Generous bound: the suite may share two cores with a compiler.
    EXPECT_LT(lateByUs.load(), 10'000 + 40'000);
}

TEST(Timer, CancelStopsFurtherFirings)
{
    std::atomic<int> fired{0};
    auto timer = dispatch::Timer::create(dispatch::globalQueue(), 0ms, 5ms, 1ms, [&] { fired.fetch_add(1); });
    timer->resume();
    ASSERT_TRUE(waitFor([&] { return fired.load() >= 2; }));
    timer->cancel();
    EXPECT_TRUE(timer->isCancelled());
    std::this_thread::sleep_for(10ms); // let a firing already handed to a worker finish
    const int afterCancel = fired.load();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(fired.load(), afterCancel);
}

TEST(Timer, CancelBeforeFirstFireMeansItNeverFires)
{
    std::atomic<int> fired{0};
    auto timer = dispatch::Timer::create(dispatch::mainQueue(), 20ms, 0ms, 1ms, [&] { fired.fetch_add(1); });
    timer->resume();
    timer->cancel();
    dispatch::RunLoop::main().runFor(60ms);
    EXPECT_EQ(fired.load(), 0);
}

TEST(Timer, DestroyingATimerCancelsIt)
{
    std::atomic<int> fired{0};
    {
        auto timer = dispatch::Timer::create(dispatch::mainQueue(), 20ms, 0ms, 1ms, [&] { fired.fetch_add(1); });
        timer->resume();
    }
    dispatch::RunLoop::main().runFor(60ms);
    EXPECT_EQ(fired.load(), 0);
}

TEST(Timer, CancelFromItsOwnHandler)
{
    std::atomic<int> fired{0};
    dispatch::TimerPtr timer;
    timer = dispatch::Timer::create(dispatch::mainQueue(), 0ms, 5ms, 1ms, [&] {
        fired.fetch_add(1);
        timer->cancel();
    });
    timer->resume();
    dispatch::RunLoop::main().runFor(60ms);
    EXPECT_EQ(fired.load(), 1);
}

TEST(After, RunsTaskOnTheGivenQueueAfterTheDelay)
{
    auto queue = dispatch::makeSerialQueue("test.after");
    std::atomic<bool> onQueue{false};
    std::atomic<bool> ran{false};
    const auto start = std::chrono::steady_clock::now();
    dispatch::after(30ms, queue, [&] {
        onQueue = queue->isCurrent();
        ran = true;
    });
    ASSERT_TRUE(waitFor([&] { return ran.load(); }));
    EXPECT_TRUE(onQueue.load());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}
