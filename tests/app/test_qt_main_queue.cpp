// The main queue on the Qt event loop: order, posts from other threads, and a
// task that runs a nested event loop (a modal alert) while more work waits.
#include "platform/dispatch.h"
#include "support/gui_test_support.h"

#include <QEventLoop>
#include <QTimer>
#include <gtest/gtest.h>

#include <atomic>
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
