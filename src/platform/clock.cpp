#include "platform/clock.h"

#include <thread>

namespace quendral {
namespace {

class SystemClock final : public Clock {
public:
    [[nodiscard]] TimePoint now() const override { return std::chrono::steady_clock::now(); }
    void sleepFor(Seconds duration) override { std::this_thread::sleep_for(duration); }
};

} // namespace

Clock& systemClock()
{
    static SystemClock clock;
    return clock;
}

} // namespace quendral
