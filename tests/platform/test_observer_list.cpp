#include "platform/observer_list.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using quendral::ObserverList;

TEST(ObserverList, CallsEveryObserverInOrderOfAdding)
{
    ObserverList<std::function<void(const std::string&)>> list;
    std::vector<std::string> calls;
    list.add([&](const std::string& what) { calls.push_back("a:" + what); });
    list.add([&](const std::string& what) { calls.push_back("b:" + what); });
    list.notify(std::string("x"));
    EXPECT_EQ(calls, (std::vector<std::string>{"a:x", "b:x"}));
}

TEST(ObserverList, ARemovedObserverIsNotCalledAndIdsAreNotReused)
{
    ObserverList<std::function<void()>> list;
    int first = 0;
    int second = 0;
    const auto firstId = list.add([&] { ++first; });
    list.remove(firstId);
    const auto secondId = list.add([&] { ++second; });
    EXPECT_NE(firstId, secondId);
    list.remove(firstId); // gone already: nothing happens
    list.notify();
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
}

TEST(ObserverList, AnObserverMayRemoveItselfAndAddAnotherWhileCalled)
{
    ObserverList<std::function<void()>> list;
    int calls = 0;
    int added = 0;
    std::uint64_t self = 0;
    self = list.add([&] {
        ++calls;
        list.remove(self);
        list.add([&] { ++added; });
    });
    list.notify(); // the copy taken before the call holds only the first one
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(added, 0);
    list.notify();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(added, 1);
}
