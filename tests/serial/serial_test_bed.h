#pragma once
// A umockdev tree with one USB Controller ("/dev/ttyACM0") for each test.
#include "platform/dispatch.h"
#include "serial/serial_port.h"
#include "support/recording_serial_delegate.h"
#include "umockdev_testbed.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace quendral::test {

using namespace std::chrono_literals;

inline bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5000ms)
{
    return dispatch::RunLoop::main().runUntil(done, timeout);
}

// Everything the device end has received within `quiet` of silence.
inline std::string readDeviceEnd(int fd, std::chrono::milliseconds quiet = 200ms)
{
    std::string text;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(quiet.count())) <= 0 || (p.revents & POLLIN) == 0) {
            return text;
        }
        char buffer[1024];
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            return text;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
}

class SerialTestBed : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim::UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
        testbed = std::make_unique<sim::UmockdevTestbed>();
        device = testbed->addUsbSerialDevice({});
        ASSERT_TRUE(device);
        delegate = std::make_shared<RecordingSerialDelegate>();
    }

    void TearDown() override
    {
        for (const auto& port : SerialPort::allSerialPorts()) {
            port->close();
            waitFor([&] { return !port->isOpen(); });
        }
        dispatch::RunLoop::main().drain();
    }

    SerialPort::Ptr openPort(const std::shared_ptr<SerialPortDelegate>& withDelegate)
    {
        auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
        if (!port) {
            ADD_FAILURE() << "no port for /dev/ttyACM0";
            return nullptr;
        }
        port->setDelegate(withDelegate);
        port->open();
        EXPECT_TRUE(port->isOpen());
        return port;
    }

    static bool closeAndWait(const SerialPort::Ptr& port)
    {
        port->close();
        return waitFor([&] { return !port->isOpen(); });
    }

    std::unique_ptr<sim::UmockdevTestbed> testbed;
    std::shared_ptr<sim::UmockdevSerialDevice> device;
    std::shared_ptr<RecordingSerialDelegate> delegate;
};

} // namespace quendral::test
