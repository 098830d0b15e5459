// What the application adds to one update of the simulated KorbatekDue:
// the whole road in one process (the window's controller with a recording
// window, the device lab's board in a umockdev world, the real bossac, the
// local HTTPS update server), timed from the update button to the job's end.
// From that wall time it takes away the fixed waits the job sleeps (every
// sleep of the controller's clock, at its nominal length: the 1-second polls
// of the identification, the ticket and the boot loader's re-appearance, the
// touch's delay) and bossac's own run (from the wrapper's "Preparing upload..."
// to the tool's end). What is left is the application's own time: serial
// opens and closes, the HTTPS requests with their TLS handshakes, decoding
// and checking the file, status texts, starting the tool, and any sleep's
// overshoot.
//
//     umockdev-wrapper build/bench/bench_update_road [RUNS]     (default 5)
//
// (it starts itself under umockdev-wrapper when run without it).
#include "e2e/road_world.h"

#include "flashing/upload_status.h"
#include "log/logger.h"
#include "platform/notification_center.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

using namespace quendral;
using namespace quendral::test;
using Instant = std::chrono::steady_clock::time_point;

namespace {

// What the job slept: the nominal lengths asked for, the time the sleeps
// really took, and how many there were.
struct Slept {
    double nominal = 0;
    double actual = 0;
    int sleeps = 0;
};

// The system clock, counting what the job sleeps.
class SleepCountingClock final : public Clock {
public:
    [[nodiscard]] TimePoint now() const override { return std::chrono::steady_clock::now(); }
    void sleepFor(Seconds duration) override
    {
        const auto before = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(duration);
        const auto after = std::chrono::steady_clock::now();
        std::lock_guard lock(_mutex);
        _slept.nominal += duration.count();
        _slept.actual += std::chrono::duration<double>(after - before).count();
        ++_slept.sleeps;
    }
    void reset()
    {
        std::lock_guard lock(_mutex);
        _slept = {};
    }
    [[nodiscard]] Slept slept() const
    {
        std::lock_guard lock(_mutex);
        return _slept;
    }

private:
    mutable std::mutex _mutex;
    Slept _slept;
};

struct Figures {
    bool updated = false;
    double total = 0;
    Slept slept;
    double tool = 0;
    int requests = 0;
    [[nodiscard]] double overhead() const { return total - slept.nominal - tool; }
};

double seconds(Instant from, Instant to)
{
    return std::chrono::duration<double>(to - from).count();
}

Figures oneUpdate(SleepCountingClock& clock)
{
    Figures figures;
    RoadRun run({}, clock);
    if (!run.prepare()) {
        std::cerr << "bench_update_road: " << run.problem << "\n";
        return figures;
    }
    dispatch::RunLoop::main().runFor(std::chrono::milliseconds(100));
    run.openWindow();

    // The tool's run as the wrapper reports it, timed on the posting thread.
    std::mutex mutex;
    std::optional<Instant> toolStart;
    std::optional<Instant> toolEnd;
    ScopedObserver toolState(NotificationCenter::defaultCenter(), upload::kStateNotification, nullptr,
                             [&](const Notification& notification) {
                                 const auto* text = std::any_cast<std::string>(&notification.object);
                                 if (text == nullptr) {
                                     return;
                                 }
                                 const auto now = std::chrono::steady_clock::now();
                                 std::lock_guard lock(mutex);
                                 if (*text == upload::kPreparingUpload) {
                                     toolStart = now;
                                 } else if (*text == upload::kFirmwareUpdated || *text == upload::kUpdateFailed) {
                                     toolEnd = now;
                                 }
                             });
    std::optional<Instant> end;
    run.controller->setUpdateFinishedHandler([&](UpdateOutcome outcome) {
        const auto now = std::chrono::steady_clock::now();
        std::lock_guard lock(mutex);
        end = now;
        run.outcome = outcome;
        run.finished = true;
    });

    clock.reset();
    const Instant start = std::chrono::steady_clock::now();
    run.pressUpdate();
    const bool ended = run.waitForEnd(std::chrono::seconds(120));
    RoadRun::waitForPortsClosed();

    std::lock_guard lock(mutex);
    figures.updated = ended && run.outcome.load() == UpdateOutcome::Updated && toolStart && toolEnd && end;
    if (!figures.updated) {
        std::cerr << "bench_update_road: the update did not succeed; texts:\n";
        for (const auto& text : run.view.statusTexts()) {
            std::cerr << "  [" << text << "]\n";
        }
        return figures;
    }
    figures.total = seconds(start, *end);
    figures.slept = clock.slept();
    figures.tool = seconds(*toolStart, *toolEnd);
    figures.requests = static_cast<int>(run.serverBodies().size());
    run.controller->setUpdateFinishedHandler(nullptr);
    return figures;
}

std::string loadAverage()
{
    std::ifstream in("/proc/loadavg");
    std::string one;
    std::string five;
    std::string fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n == 0 ? 0 : (n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2);
}

} // namespace

int main(int argc, char** argv)
{
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "bench_update_road");
        return 127;
    }
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;

    dispatch::setMainThreadToCurrent();
    (void)RoadRun::testbed(); // before the port manager starts listening
    (void)SerialPortManager::sharedSerialPortManager().availablePorts();
    TempDir logFolder;
    Logger::setConsole(nullptr);
    Logger::setDataFolder(logFolder.path());
    Logger::initLogPath();
    LabResources resources;
    SleepCountingClock clock;

    std::cout << "load average before: " << loadAverage() << "\n";
    std::printf("%-4s %9s %9s %9s %9s %7s %9s %9s\n", "run", "total s", "slept s", "(actual)", "bossac s", "sleeps",
                "requests", "added ms");
    std::vector<double> added;
    for (int i = 1; i <= runs; ++i) {
        const Figures f = oneUpdate(clock);
        if (!f.updated) {
            return 1;
        }
        added.push_back(f.overhead() * 1000.0);
        std::printf("%-4d %9.3f %9.3f %9.3f %9.3f %7d %9d %9.1f\n", i, f.total, f.slept.nominal, f.slept.actual, f.tool,
                    f.slept.sleeps, f.requests, f.overhead() * 1000.0);
    }
    std::cout << "load average after: " << loadAverage() << "\n";
    std::printf("added by the application per update: median %.1f ms, min %.1f ms, max %.1f ms (target < 200 ms)\n",
                median(added), *std::min_element(added.begin(), added.end()),
                *std::max_element(added.begin(), added.end()));
    Logger::setDataFolder(std::nullopt);
    return 0;
}
