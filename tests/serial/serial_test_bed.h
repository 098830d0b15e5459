#pragma once
// A umockdev tree with one USB Controller ("/dev/ttyACM0") for each test.
#include "platform/dispatch.h"
#include "serial/serial_port.h"
#include "support/recording_serial_delegate.h"
#include "support/umockdev_fixture.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <poll.h>
#include <set>
#include <string>
#include <unistd.h>

namespace quendral::test {

using namespace std::chrono_literals;

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

class SerialTestBed : public UmockdevTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(UmockdevTest::SetUp());
        ASSERT_TRUE(plugDevice());
        delegate = std::make_shared<RecordingSerialDelegate>();
    }

    void TearDown() override
    {
        closeAllPorts();
        UmockdevTest::TearDown();
        dispatch::RunLoop::main().drain();
    }

    // /dev/ttyACM0, opened once `prepare` has set it up; none (after a
    // failure) when there is no such port.
    SerialPort::Ptr openAfter(const std::function<void(SerialPort&)>& prepare)
    {
        auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
        if (!port) {
            ADD_FAILURE() << "no port for /dev/ttyACM0";
            return nullptr;
        }
        prepare(*port);
        port->open();
        EXPECT_TRUE(port->isOpen());
        return port;
    }

    SerialPort::Ptr openPort(const std::shared_ptr<SerialPortDelegate>& withDelegate)
    {
        return openAfter([&](SerialPort& port) { port.setDelegate(withDelegate); });
    }

    // Opened without a delegate at `baudRate`; the device end sees that speed.
    SerialPort::Ptr openAtSpeed(unsigned long baudRate)
    {
        auto port = openAfter([&](SerialPort& opening) { opening.setBaudRate(baudRate); });
        if (port) {
            EXPECT_EQ(device->speed(), baudRate);
        }
        return port;
    }

    // The port with a delegate of its own that declines `callback`, as a
    // delegate without that method does (the delegate is decliningDelegate).
    SerialPort::Ptr openPortDeclining(SerialPortDelegateCallback callback)
    {
        decliningDelegate = std::make_shared<RecordingSerialDelegate>(std::set<SerialPortDelegateCallback>{callback});
        return openPort(decliningDelegate);
    }

    // Counts the port's notifications of `property` into `count`; the observer's id.
    static std::uint64_t countNotifications(const SerialPort::Ptr& port, SerialPortProperty property,
                                            std::atomic<int>& count)
    {
        return port->addPropertyObserver([&count, property](const SerialPort::Ptr&, SerialPortProperty changed) {
            if (changed == property) {
                ++count;
            }
        });
    }

    static bool closeAndWait(const SerialPort::Ptr& port)
    {
        port->close();
        return waitFor([&] { return !port->isOpen(); });
    }

    std::shared_ptr<RecordingSerialDelegate> delegate;
    std::shared_ptr<RecordingSerialDelegate> decliningDelegate;
};

} // namespace quendral::test
