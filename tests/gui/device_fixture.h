#pragma once
// A window test with a simulated Controller on /dev/ttyACM0 of a umockdev tree,
// and the log captured from the console.
#include "controller_simulator.h"
#include "gui_test_support.h"
#include "log/logger.h"
#include "serial/serial_port.h"
#include "support/captured_console.h"
#include "umockdev_testbed.h"

#include <gtest/gtest.h>

namespace quendral::test {

class DeviceWindowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim::UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
        testbed = std::make_unique<sim::UmockdevTestbed>();
        device = testbed->addUsbSerialDevice({});
        ASSERT_TRUE(device);
        controller = std::make_unique<sim::ControllerSimulator>(device->deviceEnd());
        controller->start();
        Logger::reset();
        Logger::setConsole(&console);
    }

    void TearDown() override
    {
        for (const auto& port : SerialPort::allSerialPorts()) {
            port->close();
            spinUntil([&] { return !port->isOpen(); });
        }
        controller->stop();
        Logger::setConsole(nullptr);
    }

    // Log messages so far, without their time stamps.
    [[nodiscard]] std::vector<std::string> loggedMessages() const { return console.messages(); }

    [[nodiscard]] bool logged(const std::string& message) const
    {
        const auto messages = loggedMessages();
        return std::find(messages.begin(), messages.end(), message) != messages.end();
    }

    std::unique_ptr<sim::UmockdevTestbed> testbed;
    std::shared_ptr<sim::UmockdevSerialDevice> device;
    std::unique_ptr<sim::ControllerSimulator> controller;
    CapturedConsole console;
};

} // namespace quendral::test
