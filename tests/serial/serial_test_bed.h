#pragma once
// A umockdev tree with one USB Controller ("/dev/ttyACM0") for each test.
#include "platform/dispatch.h"
#include "serial/serial_port.h"
#include "support/recording_serial_delegate.h"
#include "support/umockdev_fixture.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <poll.h>
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

    std::shared_ptr<RecordingSerialDelegate> delegate;
};

} // namespace quendral::test
