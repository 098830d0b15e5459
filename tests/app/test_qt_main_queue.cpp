// The main queue on the Qt event loop: order, posts from other threads, and a
// task that runs a nested event loop (a modal alert) while more work waits.
#include "platform/dispatch.h"
#include "support/gui_test_support.h"

#include <QEventLoop>
#include <QTimer>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace quendral;
using namespace quendral::test;

TEST(QtMainQueue, TasksRunOnTheGuiThreadInTheOrderTheyWerePosted)
{
    std::vector<int> order;
    for (int i = 0; i < 100; ++i) {
        dispatch::mainQueue()->async([&order, i] {
            EXPECT_TRUE(dispatch::isMainThread());
            order.push_back(i);
        });
    }
    ASSERT_TRUE(spinUntil([&] { return order.size() == 100; }));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
}

TEST(QtMainQueue, PostsFromManyThreadsAllArriveAndEachThreadsOrderHolds)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 250;
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                dispatch::mainQueue()->async([&, t, i] {
                    seen[static_cast<std::size_t>(t)].push_back(i);
                    ++ran;
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(spinUntil([&] { return ran.load() == kThreads * kPerThread; }));
    for (const auto& values : seen) {
        ASSERT_EQ(values.size(), static_cast<std::size_t>(kPerThread));
        for (int i = 0; i < kPerThread; ++i) {
            EXPECT_EQ(values[static_cast<std::size_t>(i)], i);
        }
    }
}

TEST(QtMainQueue, SyncFromABackgroundThreadWaitsForTheTaskAndSeesItsResult)
{
    int value = 0;
    std::atomic<bool> done{false};
    std::thread worker([&] {
        dispatch::mainQueue()->sync([&] { value = 42; });
        EXPECT_EQ(value, 42);
        done = true;
    });
    ASSERT_TRUE(spinUntil([&] { return done.load(); }));
    worker.join();
}

TEST(QtMainQueue, ATaskInANestedEventLoopLetsTheWaitingTasksRunInOrder)
{
    // Everything is queued before the GUI thread looks: the first task then
    // waits in a nested loop (as a modal alert does) until the tasks behind
    // it, one of them from another thread, have run in that loop, in order,
    // and nothing runs twice.
    std::vector<std::string> order;
    dispatch::mainQueue()->async([&] {
        order.push_back("modal opens");
        QEventLoop loop;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, [&] {
            if (order.size() == 4) {
                loop.quit();
            }
        });
        poll.start(1);
        QTimer::singleShot(5000, &loop, &QEventLoop::quit);
        loop.exec();
        order.push_back("modal closes");
    });
    dispatch::mainQueue()->async([&] { order.push_back("second"); });
    std::thread([&] { dispatch::mainQueue()->async([&] { order.push_back("from a thread"); }); }).join();
    dispatch::mainQueue()->async([&] { order.push_back("third"); });

    ASSERT_TRUE(spinUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, (std::vector<std::string>{"modal opens", "second", "from a thread", "third", "modal closes"}));
    QTest::qWait(20);
    EXPECT_EQ(order.size(), 5U);
}

TEST(QtMainQueue, TasksThatPostTheirSuccessorsLeaveTheEventLoopItsTurns)
{
    // A task that posts the next one keeps the queue from ever being empty.
    // The window's own events (painting, timers, input) must still get their
    // turn while such a chain runs, not only after it has ended.
    constexpr int kChain = 10000;
    int ran = 0;
    int ranWhenTheLoopTurned = -1;
    std::function<void()> step = [&] {
        ++ran;
        if (ran == 10) {
            QMetaObject::invokeMethod(
                qApp, [&] { ranWhenTheLoopTurned = ran; }, Qt::QueuedConnection);
        }
        if (ran < kChain) {
            dispatch::mainQueue()->async(step);
        }
    };
    dispatch::mainQueue()->async(step);
    ASSERT_TRUE(spinUntil([&] { return ran == kChain && ranWhenTheLoopTurned >= 0; }));
    EXPECT_GE(ranWhenTheLoopTurned, 10);
    EXPECT_LT(ranWhenTheLoopTurned, 1000);
}

TEST(QtMainQueue, APostRightAfterTheQueueRanEmptyIsNeverLost)
{
    // The window is woken only when the queue goes from empty to not empty.
    // A thread that posts the moment the previous task has run hits that edge
    // every time: a lost wake-up would leave its task waiting for ever.
    constexpr int kRounds = 5000;
    std::mutex mutex;
    std::condition_variable ranOne;
    int ran = 0;
    std::atomic<bool> finished{false};
    std::thread poster([&] {
        for (int i = 0; i < kRounds; ++i) {
            dispatch::mainQueue()->async([&] {
                {
                    std::lock_guard lock(mutex);
                    ++ran;
                }
                ranOne.notify_one();
            });
            std::unique_lock lock(mutex);
            if (!ranOne.wait_for(lock, std::chrono::seconds(10), [&] { return ran > i; })) {
                break; // lost: the count below tells
            }
        }
        finished = true;
    });
    const bool done = spinUntil([&] { return finished.load(); }, std::chrono::seconds(60));
    poster.join();
    ASSERT_TRUE(done);
    std::lock_guard lock(mutex);
    EXPECT_EQ(ran, kRounds);
}

TEST(QtMainQueue, BurstsFromManyThreadsAroundANestedEventLoopArriveOnceAndInOrder)
{
    // Threads post in bursts with pauses, so that the queue keeps running
    // empty and filling again; one task in the middle runs a nested event loop
    // (a modal alert) until much more has arrived. Every task runs once, and
    // each thread's tasks in the order it posted them.
    constexpr int kThreads = 3;
    constexpr int kPerThread = 3000;
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<int> ran{0};
    bool nestedDone = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                dispatch::mainQueue()->async([&, t, i] {
                    seen[static_cast<std::size_t>(t)].push_back(i);
                    ++ran;
                    if (t == 0 && i == 500) {
                        QEventLoop loop;
                        QTimer poll;
                        QObject::connect(&poll, &QTimer::timeout, [&] {
                            if (ran.load() >= kThreads * kPerThread / 2) {
                                loop.quit();
                            }
                        });
                        poll.start(1);
                        QTimer::singleShot(20000, &loop, &QEventLoop::quit);
                        loop.exec();
                        nestedDone = true;
                    }
                });
                if (i % 97 == 0) {
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            }
        });
    }
    const bool done =
        spinUntil([&] { return ran.load() == kThreads * kPerThread && nestedDone; }, std::chrono::seconds(60));
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(done);
    QTest::qWait(20);
    EXPECT_EQ(ran.load(), kThreads * kPerThread);
    for (const auto& values : seen) {
        ASSERT_EQ(values.size(), static_cast<std::size_t>(kPerThread));
        for (int i = 0; i < kPerThread; ++i) {
            ASSERT_EQ(values[static_cast<std::size_t>(i)], i);
        }
    }
}
