// Line settings: setter rules and what reaches the device.
#include "serial_test_bed.h"

#include "log/logger.h"

#include <sstream>

using namespace quendral;
using namespace quendral::test;

using SerialPortSettings = SerialTestBed;

namespace {

// Changes the tty's speed behind the port's back, from the device end.
void setSpeedFromDeviceEnd(int fd, speed_t speed)
{
    termios settings{};
    ASSERT_EQ(::tcgetattr(fd, &settings), 0);
    ASSERT_EQ(::cfsetspeed(&settings, speed), 0);
    ASSERT_EQ(::tcsetattr(fd, TCSANOW, &settings), 0);
}

} // namespace

TEST_F(SerialPortSettings, SettingTheSameBaudRateAgainDoesNotTouchTheDevice)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    port->setBaudRate(115200);
    ASSERT_EQ(device->speed(), 115200u);
    setSpeedFromDeviceEnd(device->deviceEnd(), B9600);
    port->setBaudRate(115200);
    EXPECT_EQ(device->speed(), 9600u) << "an unchanged rate must not reach the device";
    port->setBaudRate(57600);
    EXPECT_EQ(device->speed(), 57600u);
}

TEST_F(SerialPortSettings, ParityOutsideTheKnownValuesIsStoredAsNone)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setParity(SerialPortParity::Odd);
    EXPECT_EQ(port->parity(), SerialPortParity::Odd);
    port->setParity(7);
    EXPECT_EQ(port->parity(), SerialPortParity::None);
    port->setParity(2);
    EXPECT_EQ(port->parity(), SerialPortParity::Even);
}

TEST_F(SerialPortSettings, ParityStopBitsAndEchoReachTheDevice)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    port->setParity(SerialPortParity::Odd);
    port->setNumberOfStopBits(2);
    port->setShouldEchoReceivedData(true);
    // The pseudo-terminal driver forces PARENB off (a pty has no parity), so
    // parity shows through PARODD only.
    termios seen{};
    ASSERT_EQ(::tcgetattr(device->deviceEnd(), &seen), 0);
    EXPECT_NE(seen.c_cflag & PARODD, 0u);
    EXPECT_NE(seen.c_cflag & CSTOPB, 0u);
    EXPECT_NE(seen.c_lflag & ECHO, 0u);
    port->setParity(SerialPortParity::Even);
    port->setNumberOfStopBits(1);
    ASSERT_EQ(::tcgetattr(device->deviceEnd(), &seen), 0);
    EXPECT_EQ(seen.c_cflag & PARODD, 0u);
    EXPECT_EQ(seen.c_cflag & CSTOPB, 0u);
}

TEST_F(SerialPortSettings, SettingsOfAClosedPortApplyAtTheNextOpen)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setBaudRate(1200);
    EXPECT_NE(device->speed(), 1200u);
    port->open();
    ASSERT_TRUE(port->isOpen());
    EXPECT_EQ(device->speed(), 1200u);
}

TEST_F(SerialPortSettings, NonStandardRateSucceedsOnlyWhenAllowed)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    port->setBaudRate(115200);
    ASSERT_EQ(delegate->count("error"), 0u);

    port->setBaudRate(250000);
    ASSERT_TRUE(waitFor([&] { return delegate->count("error") == 1; }));
    EXPECT_EQ(delegate->errors().front().code, EINVAL);
    EXPECT_EQ(delegate->errors().front().path, "/dev/ttyACM0");
    EXPECT_EQ(device->speed(), 115200u);

    port->setAllowsNonStandardBaudRates(true);
    port->setBaudRate(115200);
    port->setBaudRate(250000);
    dispatch::RunLoop::main().runFor(50ms);
    EXPECT_EQ(delegate->count("error"), 1u);
    EXPECT_EQ(device->speed(), 250000u);
}

TEST_F(SerialPortSettings, RtsCtsFlowControlReachesTheDevice)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setUsesRTSCTSFlowControl(true); // closed: stored, applied at open
    port->open();
    ASSERT_TRUE(port->isOpen());
    termios seen{};
    ASSERT_EQ(::tcgetattr(device->deviceEnd(), &seen), 0);
    EXPECT_NE(seen.c_cflag & CRTSCTS, 0u);
    // DTR/DSR and DCD flow control have no Linux equivalent: stored only.
    port->setUsesDTRDSRFlowControl(true);
    port->setUsesDCDOutputFlowControl(true);
    EXPECT_TRUE(port->usesDTRDSRFlowControl());
    EXPECT_TRUE(port->usesDCDOutputFlowControl());
}

TEST_F(SerialPortSettings, DeprecatedCleanupWarnsAndClosesAfterTellingOfRemoval)
{
    std::ostringstream console;
    Logger::setConsole(&console);
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    port->cleanup();
    ASSERT_TRUE(waitFor([&] { return !port->isOpen(); }));
    Logger::setConsole(&std::cout);
    EXPECT_NE(console.str().find("WARNING: Cleanup is deprecated and was never intended to be called publicly. You "
                                 "should update your code to avoid calling this method."),
              std::string::npos);
    ASSERT_TRUE(waitFor([&] { return delegate->count("closed") == 1; }));
    const auto kinds = delegate->kinds();
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "removed"), 1);
}
