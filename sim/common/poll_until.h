#pragma once
// The one polling wait of the device lab and its tests: look at a condition,
// give the rest of the world a turn, look again, until a deadline.
#include <chrono>
#include <thread>

namespace quendral::sim {

// True as soon as `done()` holds; false once `timeout` has passed without it.
// `turn()` runs between two looks (sleep, serve an event loop, ...).
template <typename Done, typename Turn>
bool pollUntil(Done&& done, std::chrono::steady_clock::duration timeout, Turn&& turn)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        turn();
    }
    return true;
}

// The same with 10 ms of sleep between looks, for conditions other threads make true.
template <typename Done> bool pollUntil(Done&& done, std::chrono::steady_clock::duration timeout)
{
    return pollUntil(done, timeout, [] { std::this_thread::sleep_for(std::chrono::milliseconds(10)); });
}

} // namespace quendral::sim
