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

namespace {

// Numbered tasks posted to the main queue from several threads at once, and
// the numbers each thread's tasks were seen to run in.
class PostsFromThreads {
public:
    PostsFromThreads(int threads, int perThread) : _perThread(perThread), _seen(static_cast<std::size_t>(threads)) {}
    PostsFromThreads(const PostsFromThreads&) = delete;
    PostsFromThreads& operator=(const PostsFromThreads&) = delete;
    ~PostsFromThreads() { join(); }

    // `inTask(t, i)` runs in task i of thread t once it was counted;
    // `afterPost(i)` on the posting thread after its task i was posted.
    void start(const std::function<void(int, int)>& inTask = {}, const std::function<void(int)>& afterPost = {})
    {
        for (int t = 0; t < static_cast<int>(_seen.size()); ++t) {
            _threads.emplace_back([this, t, inTask, afterPost] {
                for (int i = 0; i < _perThread; ++i) {
                    dispatch::mainQueue()->async([this, t, i, inTask] {
                        _seen[static_cast<std::size_t>(t)].push_back(i);
                        ++_ran;
                        if (inTask) {
                            inTask(t, i);
                        }
                    });
                    if (afterPost) {
                        afterPost(i);
                    }
                }
            });
        }
    }
    void join()
    {
        for (auto& thread : _threads) {
            thread.join();
        }
        _threads.clear();
    }
    [[nodiscard]] int total() const { return static_cast<int>(_seen.size()) * _perThread; }
    [[nodiscard]] int ran() const { return _ran.load(); }
    // Every task ran once, each thread's in the order it posted them.
    void expectEachThreadsOrder() const
    {
        for (const auto& values : _seen) {
            ASSERT_EQ(values.size(), static_cast<std::size_t>(_perThread));
            for (int i = 0; i < _perThread; ++i) {
                ASSERT_EQ(values[static_cast<std::size_t>(i)], i);
            }
        }
    }

private:
    int _perThread;
    std::vector<std::vector<int>> _seen;
    std::atomic<int> _ran{0};
    std::vector<std::thread> _threads;
};

} // namespace

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
    PostsFromThreads posts(4, 250);
    posts.start();
    posts.join();
    ASSERT_TRUE(spinUntil([&] { return posts.ran() == posts.total(); }));
    posts.expectEachThreadsOrder();
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
    PostsFromThreads posts(3, 3000);
    bool nestedDone = false;
    posts.start(
        [&](int t, int i) {
            if (t != 0 || i != 500) {
                return;
            }
            QEventLoop loop;
            QTimer poll;
            QObject::connect(&poll, &QTimer::timeout, [&] {
                if (posts.ran() >= posts.total() / 2) {
                    loop.quit();
                }
            });
            poll.start(1);
            QTimer::singleShot(20000, &loop, &QEventLoop::quit);
            loop.exec();
            nestedDone = true;
        },
        [](int i) {
            if (i % 97 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    const bool done = spinUntil([&] { return posts.ran() == posts.total() && nestedDone; }, std::chrono::seconds(60));
    posts.join();
    ASSERT_TRUE(done);
    QTest::qWait(20);
    EXPECT_EQ(posts.ran(), posts.total());
    posts.expectEachThreadsOrder();
}
