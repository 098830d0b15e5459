#pragma once
// The clock that waiting procedures count down with. Tests that exercise the
// 20- and 30-second waits install a clock whose sleeps pass instantly.
#include <chrono>

namespace quendral {

class Clock {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Seconds = std::chrono::duration<double>;

    virtual ~Clock() = default;
    [[nodiscard]] virtual TimePoint now() const = 0;
    virtual void sleepFor(Seconds duration) = 0;
};

// The machine's monotonic clock and real sleeps.
Clock& systemClock();

} // namespace quendral
