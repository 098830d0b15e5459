#pragma once
// The umockdev USB world in which quendral-cli runs as a child of the test:
// USB devices with ttys, a ControllerSimulator on each tty's device end, and
// the child's log folder. Shared by the command line's usb_world tests.
#include "cli_child.h"
#include "controller_simulator.h"
#include "support/sample_ip_dump.h"
#include "support/temp_dir.h"
#include "support/umockdev_fixture.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace quendral::test {

using sim::ControllerSimulator;
using sim::UmockdevSerialDevice;
using sim::UmockdevTestbed;
using sim::UsbSerialDeviceInfo;

inline std::string joinedLines(const std::vector<std::string>& lines)
{
    std::string text;
    for (const auto& line : lines) {
        text += line + "\n";
    }
    return text;
}

inline UsbSerialDeviceInfo usbDevice(const std::string& ttyName, std::uint16_t vendorId, std::uint16_t productId)
{
    UsbSerialDeviceInfo info;
    info.ttyName = ttyName;
    info.vendorId = vendorId;
    info.productId = productId;
    return info;
}

inline std::string describe(const CliResult& result)
{
    return "exit " + std::to_string(result.exitCode) + "\n--- stdout\n" + result.out + "--- stderr\n" + result.err;
}

class CliInUsbWorld : public UmockdevTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(UmockdevTest::SetUp());
        ASSERT_NE(std::getenv("QUENDRAL_CLI"), nullptr);
    }

    // A USB device with a Controller answering on its tty. Its replies are
    // followed by a line feed, as a chatty firmware's are: the application
    // reads a line only once a further byte has come.
    ControllerSimulator& plugController(const UsbSerialDeviceInfo& info)
    {
        ControllerSimulator& controller = plugSimulatedController(info);
        controller.setTrailer("\n");
        controller.start();
        return controller;
    }

    ControllerSimulator& plugKorbatekDue(const std::string& ttyName = "ttyACM0")
    {
        return plugController(usbDevice(ttyName, 0x2341, 0x003E));
    }

    // The child writes its log into the test's folder and finds no desktop,
    // so URLs are printed instead of handed to a browser.
    [[nodiscard]] CliChild::EnvironmentChanges environment() const
    {
        return {
            {"XDG_DATA_HOME", dataHome.path().string()}, {"DISPLAY", std::nullopt}, {"WAYLAND_DISPLAY", std::nullopt}};
    }

    CliResult cli(const std::vector<std::string>& arguments, const std::string& input = "")
    {
        return quendral::test::runCli(arguments, environment(), input);
    }

    // `quendral-cli ARGUMENTS`, checked to end with `exitCode`.
    CliResult cliExiting(int exitCode, const std::vector<std::string>& arguments, const std::string& input = "")
    {
        CliResult result = cli(arguments, input);
        EXPECT_EQ(result.exitCode, exitCode) << describe(result);
        return result;
    }

    [[nodiscard]] std::string logFile() const
    {
        std::ifstream in(dataHome.path() / "QuendralFirmwareUpdater" / "log.txt");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    TempDir dataHome;
};

} // namespace quendral::test
