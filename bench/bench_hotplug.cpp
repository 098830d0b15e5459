// bench_hotplug: how long a plugged-in board takes to reach the application.
//
// Run under umockdev-wrapper (it builds a USB device tree of its own):
//   umockdev-wrapper build/bench/bench_hotplug [iterations]
//
// For each iteration a USB board joins the tree; the clock starts right
// before its "add" uevent is sent and stops (1) when the port manager posts
// its connected notification on the main queue and (2) when the port menu,
// rebuilt on that notification, shows the new port. The board is then pulled
// ("remove" uevent) and (3) the disconnected notification is timed the same way.
#include "controller/port_list.h"
#include "platform/dispatch.h"
#include "platform/notification_center.h"
#include "serial/serial_port_manager.h"
#include "umockdev_testbed.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
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
    std::printf("%-44s n=%zu  p50 %.3f ms  p99 %.3f ms  max %.3f ms\n", what, ms.size(), percentile(ms, 0.5),
                percentile(ms, 0.99), *std::max_element(ms.begin(), ms.end()));
}

double millisecondsBetween(SteadyClock::time_point from, SteadyClock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

} // namespace

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

    std::vector<double> toNotification;
    std::vector<double> toMenu;
    std::vector<double> toRemoval;
    for (int i = 0; i < iterations; ++i) {
        sim::UsbSerialDeviceInfo info;
        info.ttyName = "ttyACM" + std::to_string(100 + i);
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

        disconnectedAt.reset();
        const auto pulled = SteadyClock::now();
        testbed.unplug(*device);
        if (!dispatch::RunLoop::main().runUntil([&] { return disconnectedAt.has_value(); }, 10s)) {
            std::fprintf(stderr, "bench_hotplug: %s never left\n", info.ttyName.c_str());
            return 1;
        }
        toRemoval.push_back(millisecondsBetween(pulled, *disconnectedAt));
        dispatch::RunLoop::main().runFor(1ms); // the rebuild after the removal
    }
    report("add uevent -> connected notification", toNotification);
    report("add uevent -> port in the rebuilt menu", toMenu);
    report("unplug (remove uevent) -> disconnected notif.", toRemoval);
    return 0;
}
