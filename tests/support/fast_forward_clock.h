#pragma once
// A clock for the waiting procedures' 20-second loops: time moves only when
// somebody sleeps, and a sleep of d moves it by d at once. Each sleep still
// takes a small slice of real time (d / realTimeDivisor), so that bytes on a
// pseudo-terminal and tasks on the main queue get their turn as they would
// during a real one-second wait.
#include "platform/clock.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace quendral::test {

class FastForwardClock final : public Clock {
public:
    explicit FastForwardClock(double realTimeDivisor = 40.0) : _divisor(realTimeDivisor) {}

    [[nodiscard]] TimePoint now() const override
    {
        return _origin + std::chrono::nanoseconds(_elapsedNanoseconds.load());
    }
    void sleepFor(Seconds duration) override
    {
        std::this_thread::sleep_for(duration / _divisor);
        _elapsedNanoseconds.fetch_add(std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
    }
    // Time passing without a sleep (a slow step).
    void advance(Seconds duration)
    {
        _elapsedNanoseconds.fetch_add(std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
    }
    [[nodiscard]] double elapsedSeconds() const { return static_cast<double>(_elapsedNanoseconds.load()) / 1e9; }

private:
    const TimePoint _origin = std::chrono::steady_clock::now();
    const double _divisor;
    std::atomic<long long> _elapsedNanoseconds{0};
};

} // namespace quendral::test
