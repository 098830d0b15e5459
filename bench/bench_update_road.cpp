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
// Each run does two updates, in alternating order: one with the requests of
// the update sharing one kept connection (what the application does), one
// with every request connecting afresh (as before), so that the two figures
// come from the same minutes of a shared machine.
//
//     umockdev-wrapper build/bench/bench_update_road [RUNS]     (default 5)
//     umockdev-wrapper build/bench/bench_update_road --trace    (one pair, every moment)
//
// (it starts itself under umockdev-wrapper when run without it).
#include "e2e/road_world.h"

#include "bench_support.h"

#include "flashing/upload_status.h"
#include "log/logger.h"
#include "platform/notification_center.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <streambuf>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace quendral;
using namespace quendral::test;
using Instant = std::chrono::steady_clock::time_point;
using quendral::bench::loadAverage;
using quendral::bench::median;

namespace {

// What the job slept: the nominal lengths asked for, the time the sleeps
// really took, and how many there were.
struct Slept {
    double nominal = 0;
    double actual = 0;
    int sleeps = 0;
    // Each sleep: when it began and ended, and its nominal length.
    struct Interval {
        Instant from;
        Instant to;
        double nominal = 0;
    };
    std::vector<Interval> intervals;
};

// What happened when, for --trace: log lines, status texts, sleeps.
struct Event {
    Instant at;
    std::string what;
};

// A console for the logger that notes the moment of each line.
class TimedLines final : public std::streambuf {
public:
    std::vector<Event> take()
    {
        std::lock_guard lock(_mutex);
        return std::exchange(_events, {});
    }

protected:
    int overflow(int c) override
    {
        std::lock_guard lock(_mutex);
        if (c == '\n' && !_line.empty()) {
            _events.push_back({std::chrono::steady_clock::now(), std::exchange(_line, {})});
        } else if (c != EOF) {
            _line.push_back(static_cast<char>(c));
        }
        return c == EOF ? 0 : c;
    }

private:
    std::mutex _mutex;
    std::string _line;
    std::vector<Event> _events;
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
        _slept.intervals.push_back({before, after, duration.count()});
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
    int connections = 0;
    // The update server's own CPU time for this update (its TLS handshakes and
    // its handling of each request), as the server counts it.
    double server = 0;
    [[nodiscard]] double overhead() const { return total - slept.nominal - tool; }
    // What is left when the server's CPU time is taken away too: on a machine
    // this small the server's work holds the client up for that long.
    [[nodiscard]] double ownTime() const { return overhead() - server; }
};

double seconds(Instant from, Instant to)
{
    return std::chrono::duration<double>(to - from).count();
}

// The update's moments in order, each with the time since the one before;
// the stretches inside a sleep or the tool's run are marked, the rest is the
// application's own time.
void printTimeline(Instant start, std::vector<Event> events, const Slept& slept, Instant toolStart, Instant toolEnd)
{
    for (const auto& interval : slept.intervals) {
        events.push_back({interval.from, "(sleep " + std::to_string(interval.nominal) + " s begins)"});
        events.push_back({interval.to, "(sleep ends)"});
    }
    events.push_back({toolStart, "(tool begins)"});
    events.push_back({toolEnd, "(tool ends)"});
    std::stable_sort(events.begin(), events.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
    const auto inside = [&](Instant from, Instant to) {
        if (from >= toolStart && to <= toolEnd) {
            return true;
        }
        return std::any_of(slept.intervals.begin(), slept.intervals.end(),
                           [&](const Slept::Interval& i) { return from >= i.from && to <= i.to; });
    };
    Instant previous = start;
    double own = 0;
    for (const auto& event : events) {
        const double gap = seconds(previous, event.at) * 1000.0;
        const bool waiting = inside(previous, event.at);
        if (!waiting) {
            own += gap;
        }
        std::printf("  %9.1f ms  %s%7.2f  %s\n", seconds(start, event.at) * 1000.0, waiting ? "   " : "+  ", gap,
                    event.what.substr(0, 110).c_str());
        previous = event.at;
    }
    std::printf("  own time between the moments above: %.1f ms\n", own);
}

Figures oneUpdate(SleepCountingClock& clock, bool reuseConnection, TimedLines* trace)
{
    Figures figures;
    RoadRun run({}, clock);
    if (!run.prepare()) {
        std::cerr << "bench_update_road: " << run.problem << "\n";
        return figures;
    }
    dispatch::RunLoop::main().runFor(std::chrono::milliseconds(100));
    run.openWindow();
    UpdateServerConfig config;
    config.baseUrl = run.server.baseUrl();
    config.caFile = run.server.caFile();
    config.reuseConnection = reuseConnection;
    run.controller->setUpdateServerConfig(std::move(config));

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
    std::set<int> connections;
    for (const auto& request : run.server.recordedRequests()) {
        connections.insert(request.value("connection", 0));
        ++figures.requests;
    }
    figures.connections = static_cast<int>(connections.size());
    if (const auto control = run.server.control(nlohmann::json::object());
        control && control->contains("busy_seconds")) {
        figures.server = control->at("busy_seconds").get<double>();
    } else {
        std::cerr << "bench_update_road: the server did not say how busy it was\n";
        figures.updated = false;
        return figures;
    }
    run.controller->setUpdateFinishedHandler(nullptr);
    if (trace != nullptr) {
        std::vector<Event> events = trace->take();
        for (const auto& [at, text] : run.view.timedTexts()) {
            events.push_back({at, "status: " + text});
        }
        events.push_back({*end, "(the job ends)"});
        std::erase_if(events, [&](const Event& e) { return e.at < start || e.at > *end; });
        printTimeline(start, std::move(events), figures.slept, *toolStart, *toolEnd);
    }
    return figures;
}

} // namespace

int main(int argc, char** argv)
{
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "bench_update_road");
        return 127;
    }
    const bool trace = argc > 1 && std::string(argv[1]) == "--trace";
    const int runs = argc > 1 && !trace ? std::max(1, std::atoi(argv[1])) : trace ? 1 : 5;

    dispatch::setMainThreadToCurrent();
    (void)RoadRun::testbed(); // before the port manager starts listening
    (void)SerialPortManager::sharedSerialPortManager().availablePorts();
    TempDir logFolder;
    TimedLines timedLines;
    std::ostream timedConsole(&timedLines);
    Logger::setConsole(trace ? &timedConsole : nullptr);
    Logger::setDataFolder(logFolder.path());
    Logger::initLogPath();
    LabResources resources;
    SleepCountingClock clock;

    std::cout << "load average before: " << loadAverage() << "\n";
    std::printf("%-4s %-10s %9s %9s %9s %9s %7s %9s %5s %9s %9s %9s\n", "run", "requests", "total s", "slept s",
                "(actual)", "bossac s", "sleeps", "requests", "conns", "added ms", "server ms", "app ms");
    std::vector<double> addedKept;
    std::vector<double> addedFresh;
    std::vector<double> saved;
    std::vector<double> serverKept;
    std::vector<double> ownKept;
    std::vector<double> ownFresh;
    for (int i = 1; i <= runs; ++i) {
        double kept = 0;
        double fresh = 0;
        // Alternate which goes first, so neither always meets a warmer cache.
        for (const bool reuse : {i % 2 == 1, i % 2 == 0}) {
            const Figures f = oneUpdate(clock, reuse, trace ? &timedLines : nullptr);
            if (!f.updated) {
                return 1;
            }
            (reuse ? kept : fresh) = f.overhead() * 1000.0;
            if (reuse) {
                serverKept.push_back(f.server * 1000.0);
            }
            (reuse ? ownKept : ownFresh).push_back(f.ownTime() * 1000.0);
            std::printf("%-4d %-10s %9.3f %9.3f %9.3f %9.3f %7d %9d %5d %9.1f %9.1f %9.1f\n", i,
                        reuse ? "one conn." : "fresh each", f.total, f.slept.nominal, f.slept.actual, f.tool,
                        f.slept.sleeps, f.requests, f.connections, f.overhead() * 1000.0, f.server * 1000.0,
                        f.ownTime() * 1000.0);
        }
        addedKept.push_back(kept);
        addedFresh.push_back(fresh);
        saved.push_back(fresh - kept);
    }
    std::cout << "load average after: " << loadAverage() << "\n";
    const auto summary = [](const char* what, const std::vector<double>& values) {
        std::printf("%-44s median %6.1f ms, min %6.1f ms, max %6.1f ms\n", what, median(values),
                    *std::min_element(values.begin(), values.end()), *std::max_element(values.begin(), values.end()));
    };
    summary("added per update, one kept connection:", addedKept);
    summary("added per update, a connection per request:", addedFresh);
    summary("saved by the kept connection (same run):", saved);
    summary("the server's CPU time, one kept connection:", serverKept);
    summary("the application alone, one kept connection:", ownKept);
    summary("the application alone, a connection each:", ownFresh);
    std::printf("target: under 20 ms added per update on a quiet machine\n");
    Logger::setDataFolder(std::nullopt);
    return 0;
}
