// bench_hotplug: how long a plugged-in board takes to reach the application,
// against a 250 ms port poll in the same run, and where an unplug's time goes.
//
// Run under umockdev-wrapper (it builds a USB device tree of its own):
//   umockdev-wrapper build/bench/bench_hotplug [iterations]
//
// For each iteration a USB board joins the tree (at a random moment of the
// poll's period). The clock starts right before its "add" uevent is sent and stops (1) when the port manager posts
// its connected notification on the main queue and (2) when the port menu,
// rebuilt on that notification, shows the new port. Meanwhile a thread
// enumerates the serial devices every 250 ms, as an application without
// hot-plug events would, and notes when it first lists the board, timed
// from the same start.
//
// The board is then pulled. Every other board gets the "remove" uevent alone
// first (timed like "add", the main thread free), then the rest. The others
// are pulled in one go: the test bed sends the "remove" uevent, then
// does its own removal work (hangs up the terminal, takes the device out of
// its tree) on the main thread, which the application can only use after
// that. The three shares are timed apart: the uevent going out, the test
// bed's removal work, and from then to the disconnected notification (ours).
#include "controller/port_list.h"
#include "platform/dispatch.h"
#include "platform/notification_center.h"
#include "serial/device_registry.h"
#include "serial/serial_port_manager.h"
#include "umockdev_testbed.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace quendral;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

namespace {

// The recording window of the tests, plus the moment the wanted title appeared.
class TimingView final : public MainView {
public:
    void setStatusText(const std::string& /*text*/) override {}
    void setStatusTextWithLink(const std::string& /*text*/, std::size_t /*length*/, const std::string& /*url*/) override
    {
    }
    void setProgress(double /*percent*/) override {}
    void startProgressAnimation() override {}
    void setControlEnabled(Control /*control*/, bool /*enabled*/) override {}
    [[nodiscard]] bool isControlEnabled(Control /*control*/) const override { return true; }
    [[nodiscard]] std::vector<std::string> portMenuTitles() const override { return _titles; }
    [[nodiscard]] std::optional<std::string> selectedPortTitle() const override { return _selected; }
    void removeAllPortMenuItems() override
    {
        _titles.clear();
        _selected.reset();
    }
    void addPortMenuItem(const std::string& title) override
    {
        _titles.push_back(title);
        if (title == wanted) {
            shownAt = SteadyClock::now();
        }
    }
    void selectPortMenuItem(const std::string& title) override { _selected = title; }
    void showAlert(const std::string& /*message*/) override {}
    bool showDialog(const std::string& /*message*/) override { return false; }
    std::optional<std::string> askForText(const std::string& /*m*/, const std::string& /*i*/) override
    {
        return std::nullopt;
    }
    bool showDriverAlert(const std::string& /*m*/, const std::string& /*i*/, const std::string& /*d*/,
                         const std::string& /*a*/) override
    {
        return false;
    }
    std::optional<std::string> chooseFirmwareFile() override { return std::nullopt; }
    void openURL(const std::string& /*url*/) override {}

    std::string wanted;
    std::optional<SteadyClock::time_point> shownAt;

private:
    std::vector<std::string> _titles;
    std::optional<std::string> _selected;
};

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

void report(const char* what, const std::vector<double>& ms)
{
    std::printf("%-46s n=%zu  p50 %.3f ms  p99 %.3f ms  max %.3f ms\n", what, ms.size(), percentile(ms, 0.5),
                percentile(ms, 0.99), *std::max_element(ms.begin(), ms.end()));
}

double millisecondsBetween(SteadyClock::time_point from, SteadyClock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

} // namespace

// Enumerates the serial devices every `interval` on a thread of its own and
// notes when the wanted tty is first listed.
class PortPoller {
public:
    explicit PortPoller(std::chrono::milliseconds interval) : _interval(interval), _thread([this] { run(); }) {}
    ~PortPoller()
    {
        {
            std::lock_guard lock(_mutex);
            _stopping = true;
        }
        _wake.notify_all();
        _thread.join();
    }
    PortPoller(const PortPoller&) = delete;
    PortPoller& operator=(const PortPoller&) = delete;

    void watchFor(const std::string& sysname)
    {
        std::lock_guard lock(_mutex);
        _wanted = sysname;
        _seenAt.reset();
    }
    [[nodiscard]] std::optional<SteadyClock::time_point> seenAt() const
    {
        std::lock_guard lock(_mutex);
        return _seenAt;
    }

private:
    void run()
    {
        std::unique_lock lock(_mutex);
        while (!_wake.wait_for(lock, _interval, [this] { return _stopping; })) {
            const std::string wanted = _wanted;
            lock.unlock();
            bool listed = false;
            for (const DeviceHandle& device : DeviceRegistry::shared().serialDevices()) {
                listed = listed || device->sysname == wanted;
            }
            const auto now = SteadyClock::now();
            lock.lock();
            if (listed && wanted == _wanted && !_seenAt) {
                _seenAt = now;
            }
        }
    }

    std::chrono::milliseconds _interval;
    mutable std::mutex _mutex;
    std::condition_variable _wake;
    bool _stopping = false;
    std::string _wanted;
    std::optional<SteadyClock::time_point> _seenAt;
    std::thread _thread;
};

int main(int argc, char** argv)
{
    if (!sim::UmockdevTestbed::isAvailable()) {
        std::fprintf(stderr, "bench_hotplug: run under umockdev-wrapper\n");
        return 2;
    }
    const int iterations = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    dispatch::setMainThreadToCurrent();
    sim::UmockdevTestbed testbed;
    SerialPortManager& manager = SerialPortManager::sharedSerialPortManager();
    if (!manager.isMonitoring()) {
        std::fprintf(stderr, "bench_hotplug: the port manager does not listen for hot-plug events\n");
        return 1;
    }
    TimingView view;
    PortList list(view, nullptr, &manager);
    list.observePortChanges();

    std::optional<SteadyClock::time_point> connectedAt;
    std::optional<SteadyClock::time_point> disconnectedAt;
    ScopedObserver connected(NotificationCenter::defaultCenter(), SerialPortsWereConnectedNotification, &manager,
                             [&](const Notification& /*n*/) { connectedAt = SteadyClock::now(); });
    ScopedObserver disconnected(NotificationCenter::defaultCenter(), SerialPortsWereDisconnectedNotification, &manager,
                                [&](const Notification& /*n*/) { disconnectedAt = SteadyClock::now(); });
    PortPoller poller(std::chrono::milliseconds(250));

    std::vector<double> toNotification;
    std::vector<double> toMenu;
    std::vector<double> toPoll;
    std::vector<double> removeEventOut;
    std::vector<double> testbedRemoval;
    std::vector<double> ourRemoval;
    std::vector<double> toRemoval;
    std::vector<double> removeEventToNotification;
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> pollPhase(0, 249);
    for (int i = 0; i < iterations; ++i) {
        sim::UsbSerialDeviceInfo info;
        info.ttyName = "ttyACM" + std::to_string(100 + i);
        // Boards arrive at any moment of the poll's period, not just after a poll.
        dispatch::RunLoop::main().runFor(std::chrono::milliseconds(pollPhase(random)));
        poller.watchFor(info.ttyName);
        auto device = testbed.addUsbSerialDevice(info, false);
        if (!device) {
            return 1;
        }
        view.wanted = info.ttyName;
        view.shownAt.reset();
        connectedAt.reset();
        const auto start = SteadyClock::now();
        testbed.uevent(*device, "add");
        if (!dispatch::RunLoop::main().runUntil([&] { return connectedAt && view.shownAt; }, 10s)) {
            std::fprintf(stderr, "bench_hotplug: %s never reached the menu\n", info.ttyName.c_str());
            return 1;
        }
        toNotification.push_back(millisecondsBetween(start, *connectedAt));
        toMenu.push_back(millisecondsBetween(start, *view.shownAt));
        if (!dispatch::RunLoop::main().runUntil([&] { return poller.seenAt().has_value(); }, 10s)) {
            std::fprintf(stderr, "bench_hotplug: the poller never listed %s\n", info.ttyName.c_str());
            return 1;
        }
        toPoll.push_back(millisecondsBetween(start, *poller.seenAt()));

        // Every other board: the "remove" uevent alone while the main thread
        // is free, as "add" is timed, then the rest of the unplug.
        if (i % 2 == 1) {
            disconnectedAt.reset();
            const auto sent = SteadyClock::now();
            testbed.uevent(*device, "remove");
            if (!dispatch::RunLoop::main().runUntil([&] { return disconnectedAt.has_value(); }, 10s)) {
                std::fprintf(stderr, "bench_hotplug: %s never left\n", info.ttyName.c_str());
                return 1;
            }
            removeEventToNotification.push_back(millisecondsBetween(sent, *disconnectedAt));
            testbed.unplug(*device); // a second "remove" for a port already gone, and the test bed's work
            dispatch::RunLoop::main().runFor(5ms);
            continue;
        }
        disconnectedAt.reset();
        const auto pulled = SteadyClock::now();
        SteadyClock::time_point eventOut;
        testbed.unplug(*device, [&] { eventOut = SteadyClock::now(); });
        const auto testbedDone = SteadyClock::now();
        if (!dispatch::RunLoop::main().runUntil([&] { return disconnectedAt.has_value(); }, 10s)) {
            std::fprintf(stderr, "bench_hotplug: %s never left\n", info.ttyName.c_str());
            return 1;
        }
        removeEventOut.push_back(millisecondsBetween(pulled, eventOut));
        testbedRemoval.push_back(millisecondsBetween(eventOut, testbedDone));
        ourRemoval.push_back(millisecondsBetween(testbedDone, *disconnectedAt));
        toRemoval.push_back(millisecondsBetween(pulled, *disconnectedAt));
        dispatch::RunLoop::main().runFor(1ms); // the rebuild after the removal
    }
    report("add uevent -> connected notification", toNotification);
    report("add uevent -> port in the rebuilt menu", toMenu);
    report("board in the tree -> listed by a 250 ms poll", toPoll);
    std::printf("poll / event ratio: p50 %.0fx, p99 %.0fx\n", percentile(toPoll, 0.5) / percentile(toNotification, 0.5),
                percentile(toPoll, 0.99) / percentile(toNotification, 0.99));
    report("remove uevent -> disconnected notification", removeEventToNotification);
    report("unplug -> disconnected notification (all)", toRemoval);
    report("  test bed: remove uevent sent and seen", removeEventOut);
    report("  test bed: its removal work", testbedRemoval);
    report("  ours: then -> disconnected notification", ourRemoval);
    return 0;
}
