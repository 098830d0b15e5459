// The simulated Controller, spoken to through a real SerialPort on a umockdev tty.
#include "controller_simulator.h"
#include "serial/serial_port.h"
#include "support/recording_serial_delegate.h"
#include "support/umockdev_fixture.h"
#include "support/wait.h"

#include <gtest/gtest.h>

using namespace quendral;
using namespace quendral::test;
using namespace std::chrono_literals;

namespace {

class ControllerSimulatorTest : public UmockdevTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(UmockdevTest::SetUp());
        plugSimulatedController().start();
        delegate = std::make_shared<RecordingSerialDelegate>();
        port = SerialPort::serialPortWithPath("/dev/ttyACM0");
        ASSERT_TRUE(port);
        port->setBaudRate(115200);
        port->setDelegate(delegate);
        port->open();
        ASSERT_TRUE(port->isOpen());
    }
    void TearDown() override
    {
        if (port) {
            port->close();
            waitFor([&] { return !port->isOpen(); });
        }
        UmockdevTest::TearDown();
        dispatch::RunLoop::main().drain();
    }
    bool receivedContains(const std::string& text, std::chrono::milliseconds timeout = 5000ms)
    {
        return waitFor([&] { return delegate->receivedText().find(text) != std::string::npos; }, timeout);
    }

    std::shared_ptr<RecordingSerialDelegate> delegate;
    SerialPort::Ptr port;
};

} // namespace

TEST_F(ControllerSimulatorTest, AnswersIdentificationAndVersion)
{
    simulator->setCID("ABCDEFGHIJKLMNOPQRSTUVWXYZ012345");
    simulator->setVersion("2.7.1");
    ASSERT_TRUE(port->sendData("getCID\n"));
    ASSERT_TRUE(port->sendData("getVersion\n"));
    ASSERT_TRUE(receivedContains("CID:ABCDEFGHIJKLMNOPQRSTUVWXYZ012345\nVERSION:2.7.1\n"));
    EXPECT_EQ(simulator->receivedLines(), (std::vector<std::string>{"getCID", "getVersion"}));
}

TEST_F(ControllerSimulatorTest, AnswersWithAMessageWhenOneIsSet)
{
    simulator->setMessage("Please update at the dealer");
    ASSERT_TRUE(port->sendData("getCID\n"));
    ASSERT_TRUE(receivedContains("CID:MSG:Please update at the dealer\n"));
}

TEST_F(ControllerSimulatorTest, DumpsItsNetworkSettingsBetweenMarkers)
{
    ASSERT_TRUE(port->sendData("dumpIP\n"));
    ASSERT_TRUE(receivedContains("end_dump\n"));
    EXPECT_EQ(delegate->receivedText(), "start_dump\nip;192.168.10.50\nsubnet;255.255.255.0\ngateway;192.168.10.1\n"
                                        "dns;192.168.10.1\ndev;1;Label;192.168.10.60;1\nend_dump\n");
}

TEST_F(ControllerSimulatorTest, TogglesItsWebServer)
{
    simulator->setAddress("192.168.10.99");
    ASSERT_TRUE(port->sendData("webconfig\n"));
    ASSERT_TRUE(receivedContains("Starting webserver for configuration at http://192.168.10.99\n"));
    EXPECT_TRUE(simulator->webserverRunning());
    ASSERT_TRUE(port->sendData("webconfig\n"));
    ASSERT_TRUE(receivedContains("Stopping webserver\n"));
    EXPECT_FALSE(simulator->webserverRunning());
}

TEST_F(ControllerSimulatorTest, AnnouncesItsAddressAfterConfigAndAReopen)
{
    ASSERT_TRUE(simulator->waitForPortOpen(true, 5000ms));
    ASSERT_TRUE(port->sendData("config\n"));
    ASSERT_TRUE(simulator->waitForLine("config", 5000ms));
    EXPECT_TRUE(simulator->inConfigurationMode());
    port->close();
    ASSERT_TRUE(waitFor([&] { return !port->isOpen(); }));
    ASSERT_TRUE(simulator->waitForPortOpen(false, 5000ms));
    port->open();
    ASSERT_TRUE(receivedContains("IP address: 192.168.10.50\n"));
    EXPECT_EQ(simulator->openCount(), 2);
}

TEST_F(ControllerSimulatorTest, StaysQuietWhileBootingAndWhenSilent)
{
    simulator->setBootDelay(Clock::Seconds(0.4));
    ASSERT_TRUE(port->sendData("getCID\n"));
    ASSERT_TRUE(simulator->waitForLine("getCID", 5000ms));
    dispatch::RunLoop::main().runFor(100ms);
    EXPECT_EQ(delegate->receivedText(), "");
    std::this_thread::sleep_for(400ms);
    ASSERT_TRUE(port->sendData("getCID\n"));
    ASSERT_TRUE(receivedContains("CID:"));

    simulator->setSilent(true);
    ASSERT_TRUE(port->sendData("getVersion\n"));
    ASSERT_TRUE(simulator->waitForLine("getVersion", 5000ms));
    dispatch::RunLoop::main().runFor(100ms);
    EXPECT_EQ(delegate->receivedText().find("VERSION:"), std::string::npos);
}

TEST_F(ControllerSimulatorTest, SplitsRepliesIntoChunksAndAddsATrailer)
{
    simulator->setChunking(5, 20ms);
    simulator->setTrailer("\n");
    ASSERT_TRUE(port->sendData("getVersion\n"));
    ASSERT_TRUE(receivedContains("VERSION:1.0.0\n\n"));
    EXPECT_GE(delegate->count("data"), 3u);
}

TEST_F(ControllerSimulatorTest, RecordsEveryLineAndSendsRawBytes)
{
    ASSERT_TRUE(port->sendData("prepareUpload\n"));
    ASSERT_TRUE(port->sendData("bulkip\nip=10.0.0.7\nstore\n"));
    ASSERT_TRUE(simulator->waitForLine("store", 5000ms));
    EXPECT_EQ(simulator->receivedLines(),
              (std::vector<std::string>{"prepareUpload", "bulkip", "ip=10.0.0.7", "store"}));
    simulator->sendRaw("\xff\xfe garbage \x80\n");
    ASSERT_TRUE(receivedContains("garbage"));
}
