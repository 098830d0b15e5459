#pragma once
// The umockdev fixture every test with a USB world of its own builds on: a
// test bed of the test's own (the program runs under umockdev-wrapper), USB
// serial devices plugged into it and simulated Controllers on their device
// ends. The first device plugged and the first Controller are at hand as
// `device` and `simulator`.
#include "controller_simulator.h"
#include "platform/clock.h"
#include "serial/serial_port.h"
#include "support/wait.h"
#include "umockdev_testbed.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace quendral::test {

class UmockdevTest : public ::testing::Test {
protected:
    // A derived SetUp calls this first, through ASSERT_NO_FATAL_FAILURE.
    void SetUp() override
    {
        ASSERT_TRUE(sim::UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
        testbed = std::make_unique<sim::UmockdevTestbed>();
    }

    // Stops every Controller; a derived TearDown closes its ports first.
    void TearDown() override
    {
        for (const auto& controller : controllers) {
            controller->stop();
        }
    }

    // A USB serial device (by default /dev/ttyACM0, 2341:003E).
    std::shared_ptr<sim::UmockdevSerialDevice> plugDevice(const sim::UsbSerialDeviceInfo& info = {})
    {
        auto plugged = testbed->addUsbSerialDevice(info);
        EXPECT_TRUE(plugged) << "could not plug " << info.ttyName;
        devices.push_back(plugged);
        if (!device) {
            device = plugged;
        }
        return plugged;
    }

    // A USB serial device with a Controller on its device end, not started yet.
    sim::ControllerSimulator& plugSimulatedController(const sim::UsbSerialDeviceInfo& info = {},
                                                      Clock& clock = systemClock())
    {
        const auto plugged = plugDevice(info);
        controllers.push_back(std::make_unique<sim::ControllerSimulator>(plugged ? plugged->deviceEnd() : -1, clock));
        if (simulator == nullptr) {
            simulator = controllers.back().get();
        }
        return *controllers.back();
    }

    // Until `done` or the wait's bound, serving the main queue: the run loop
    // here, the window's event loop in the window's tests.
    virtual bool waitUntil(const std::function<bool()>& done) { return waitFor(done); }

    // Closes every port still open and waits until each has really closed.
    void closeAllPorts()
    {
        for (const auto& port : SerialPort::allSerialPorts()) {
            port->close();
            waitUntil([&] { return !port->isOpen(); });
        }
    }

    std::unique_ptr<sim::UmockdevTestbed> testbed;
    std::vector<std::shared_ptr<sim::UmockdevSerialDevice>> devices;
    std::vector<std::unique_ptr<sim::ControllerSimulator>> controllers;
    std::shared_ptr<sim::UmockdevSerialDevice> device;
    sim::ControllerSimulator* simulator = nullptr;
};

// For test programs with one USB world for all their tests: the port manager
// exists once per process and listens to the test bed that exists when it
// starts, so that test bed lives as long as the program. `build` makes it.
class ProgramUmockdevWorld : public ::testing::Environment {
public:
    void SetUp() override
    {
        if (!sim::UmockdevTestbed::isAvailable()) {
            return; // every test then fails with the hint
        }
        dispatch::setMainThreadToCurrent();
        build();
    }

protected:
    virtual void build() = 0;
};

} // namespace quendral::test
