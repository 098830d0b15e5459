#include "platform/notification_center.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using quendral::Notification;
using quendral::NotificationCenter;
using quendral::ScopedObserver;

TEST(NotificationCenter, DeliversNameObjectAndUserInfo)
{
    NotificationCenter center;
    std::vector<std::string> seen;
    center.addObserver("uploadState", nullptr, [&](const Notification& n) {
        ASSERT_NE(n.objectAs<std::string>(), nullptr);
        seen.push_back(*n.objectAs<std::string>());
        EXPECT_EQ(std::any_cast<int>(n.userInfo.at("k")), 3);
    });
    center.post("uploadState", nullptr, std::string("Writing firmware..."), {{"k", 3}});
    center.post("uploadProgress", nullptr, 40);
    EXPECT_EQ(seen, std::vector<std::string>{"Writing firmware..."});
}

TEST(NotificationCenter, ObserverFilteredBySenderIgnoresOtherSenders)
{
    NotificationCenter center;
    int delegate = 0;
    int somebodyElse = 0;
    int calls = 0;
    center.addObserver("updateFromConfig", &delegate, [&](const Notification&) { ++calls; });
    center.post("updateFromConfig", &somebodyElse);
    EXPECT_EQ(calls, 0);
    center.post("updateFromConfig", &delegate);
    EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, ObserverWithoutSenderHearsEverySender)
{
    NotificationCenter center;
    int a = 0;
    int b = 0;
    int calls = 0;
    center.addObserver("x", nullptr, [&](const Notification&) { ++calls; });
    center.post("x", &a);
    center.post("x", &b);
    center.post("x", nullptr);
    EXPECT_EQ(calls, 3);
}

TEST(NotificationCenter, RemovedObserverIsNotCalled)
{
    NotificationCenter center;
    int calls = 0;
    const auto id = center.addObserver("x", nullptr, [&](const Notification&) { ++calls; });
    center.post("x", nullptr);
    center.removeObserver(id);
    center.post("x", nullptr);
    EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, ObserverRemovedDuringAPostIsNotCalledAfterwards)
{
    NotificationCenter center;
    int secondCalls = 0;
    NotificationCenter::ObserverId second = 0;
    center.addObserver("x", nullptr, [&](const Notification&) { center.removeObserver(second); });
    second = center.addObserver("x", nullptr, [&](const Notification&) { ++secondCalls; });
    center.post("x", nullptr);
    EXPECT_EQ(secondCalls, 0);
}

TEST(NotificationCenter, EmptyNameObservesEveryName)
{
    NotificationCenter center;
    std::vector<std::string> names;
    center.addObserver("", nullptr, [&](const Notification& n) { names.push_back(n.name); });
    center.post("a", nullptr);
    center.post("b", nullptr);
    EXPECT_EQ(names, (std::vector<std::string>{"a", "b"}));
}

TEST(ScopedObserver, RemovesItsObserverWhenDestroyed)
{
    NotificationCenter center;
    int calls = 0;
    {
        ScopedObserver observer(center, "x", nullptr, [&](const Notification&) { ++calls; });
        center.post("x", nullptr);
    }
    center.post("x", nullptr);
    EXPECT_EQ(calls, 1);
}
