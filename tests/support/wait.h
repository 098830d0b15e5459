#pragma once
// The one wait of the tests that run the main queue on their own thread:
// serve the main queue until a condition holds.
#include "platform/dispatch.h"

#include <chrono>
#include <functional>

namespace quendral::test {

// True as soon as `done()` holds; false once `timeout` has passed without it.
// Main-queue tasks (delegate callbacks, notifications) run meanwhile.
inline bool waitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds timeout = std::chrono::milliseconds(5000))
{
    return dispatch::RunLoop::main().runUntil(done, timeout);
}

} // namespace quendral::test
