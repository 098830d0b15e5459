#pragma once
// One umockdev world for the whole test program: the port manager exists
// once per process and listens to the test bed it was created in, so the
// test bed lives as long as the program. At start it holds a built-in port
// (ttyS0) and two USB devices; every test leaves it as it found it.
#include "platform/dispatch.h"
#include "platform/notification_center.h"
#include "serial/serial_port_manager.h"
#include "support/wait.h"
#include "umockdev_testbed.h"

#include <gtest/gtest.h>

#include <any>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace quendral::test {

using namespace std::chrono_literals;

// Hot-plug goes through the test bed's uevents and the manager's watcher
// thread: these tests give every such wait ten seconds.
inline constexpr std::chrono::milliseconds kHotplugWait = 10000ms;

struct PortManagerWorld {
    std::unique_ptr<sim::UmockdevTestbed> testbed;
    std::shared_ptr<sim::UmockdevSerialDevice> builtin;
    // ttyUSB0 (0403:6001) and ttyACM0 (2341:003E) at first; a test that takes
    // them away plugs in replacements under new names.
    std::shared_ptr<sim::UmockdevSerialDevice> adapter;
    std::shared_ptr<sim::UmockdevSerialDevice> board;
    // The manager's list right after it was created, and the registry's order then.
    std::vector<std::string> enumeratedPaths;
    std::vector<std::string> registryPaths;
};

PortManagerWorld& world();

// Unique names for devices a test plugs in, so that no test meets another's leftovers.
std::string nextTtyName(const std::string& base);

inline std::vector<std::string> pathsOf(const SerialPortList& ports)
{
    std::vector<std::string> paths;
    for (const auto& port : ports) {
        paths.push_back(port->path());
    }
    return paths;
}

// The port manager's notifications as they arrive.
class NotificationRecorder {
public:
    struct Entry {
        std::string name;
        const void* sender = nullptr;
        std::vector<std::string> paths;
        bool onMainThread = false;
        std::vector<std::string> availableAtPost;
    };

    NotificationRecorder()
    {
        auto& center = NotificationCenter::defaultCenter();
        _connected = ScopedObserver(center, SerialPortsWereConnectedNotification, nullptr,
                                    [this](const Notification& n) { record(n, ConnectedSerialPortsKey); });
        _disconnected = ScopedObserver(center, SerialPortsWereDisconnectedNotification, nullptr,
                                       [this](const Notification& n) { record(n, DisconnectedSerialPortsKey); });
    }

    [[nodiscard]] std::vector<Entry> entries() const
    {
        std::lock_guard lock(_mutex);
        return _entries;
    }
    [[nodiscard]] std::size_t count(const std::string& name) const
    {
        std::lock_guard lock(_mutex);
        std::size_t n = 0;
        for (const auto& entry : _entries) {
            n += entry.name == name ? 1 : 0;
        }
        return n;
    }
    [[nodiscard]] bool waitForCount(const std::string& name, std::size_t n) const
    {
        return waitFor([&] { return count(name) >= n; }, kHotplugWait);
    }
    [[nodiscard]] Entry last(const std::string& name) const
    {
        std::lock_guard lock(_mutex);
        for (auto it = _entries.rbegin(); it != _entries.rend(); ++it) {
            if (it->name == name) {
                return *it;
            }
        }
        return {};
    }

private:
    void record(const Notification& notification, const std::string& key)
    {
        Entry entry{notification.name, notification.sender, {}, dispatch::isMainThread(), {}};
        const auto found = notification.userInfo.find(key);
        if (found != notification.userInfo.end()) {
            if (const auto* ports = std::any_cast<SerialPortList>(&found->second)) {
                entry.paths = pathsOf(*ports);
            } else {
                entry.paths = {"<wrong type>"};
            }
        } else {
            entry.paths = {"<missing key>"};
        }
        entry.availableAtPost = pathsOf(SerialPortManager::sharedSerialPortManager().availablePorts());
        std::lock_guard lock(_mutex);
        _entries.push_back(std::move(entry));
    }

    mutable std::mutex _mutex;
    std::vector<Entry> _entries;
    ScopedObserver _connected;
    ScopedObserver _disconnected;
};

class PortManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim::UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
        ASSERT_TRUE(world().testbed);
        ASSERT_TRUE(SerialPortManager::sharedSerialPortManager().isMonitoring());
        // Events of earlier tests are all handled.
        dispatch::RunLoop::main().runFor(20ms);
        before = pathsOf(SerialPortManager::sharedSerialPortManager().availablePorts());
    }

    void TearDown() override
    {
        for (const auto& device : plugged) {
            if (device->isPlugged()) {
                world().testbed->unplug(*device);
            }
        }
        const bool restored =
            waitFor([&] { return pathsOf(SerialPortManager::sharedSerialPortManager().availablePorts()) == before; },
                    kHotplugWait);
        EXPECT_TRUE(restored) << "the test left ports behind";
        for (const auto& port : SerialPort::allSerialPorts()) {
            port->close();
        }
        waitFor(
            [] {
                for (const auto& port : SerialPort::allSerialPorts()) {
                    if (port->isOpen()) {
                        return false;
                    }
                }
                return true;
            },
            kHotplugWait);
        dispatch::RunLoop::main().drain();
    }

    // Plugs in a USB device; unplugged again after the test.
    std::shared_ptr<sim::UmockdevSerialDevice> plugIn(const std::string& base, std::uint16_t vendor,
                                                      std::uint16_t product)
    {
        sim::UsbSerialDeviceInfo info;
        info.ttyName = nextTtyName(base);
        info.vendorId = vendor;
        info.productId = product;
        auto device = world().testbed->addUsbSerialDevice(info);
        EXPECT_TRUE(device) << info.ttyName;
        if (device) {
            plugged.push_back(device);
        }
        return device;
    }

    static bool listed(const std::string& path)
    {
        const auto paths = pathsOf(SerialPortManager::sharedSerialPortManager().availablePorts());
        return std::find(paths.begin(), paths.end(), path) != paths.end();
    }

    std::vector<std::string> before;
    std::vector<std::shared_ptr<sim::UmockdevSerialDevice>> plugged;
};

} // namespace quendral::test
