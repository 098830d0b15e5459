#pragma once
// The USB world the command line's process tests run in: the test builds a
// umockdev USB device tree in its own process (USB devices with ttys, a
// ControllerSimulator on each tty's device end) and starts the real binary as
// a child, which inherits the preload and sees the same devices.
#include "cli_child.h"
#include "controller_simulator.h"
#include "support/temp_dir.h"
#include "umockdev_testbed.h"

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

inline const std::vector<std::string> kDump = {"ip;192.168.10.50",
                                               "subnet;255.255.255.0",
                                               "gateway;192.168.10.1",
                                               "dns;192.168.10.2",
                                               "dev;1;Boiler room;192.168.10.60;1",
                                               "dev;2;Garage;192.168.10.61;0"};

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

class CliInUsbWorld : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
        ASSERT_NE(std::getenv("QUENDRAL_CLI"), nullptr);
        testbed = std::make_unique<UmockdevTestbed>();
    }

    void TearDown() override
    {
        for (auto& controller : controllers) {
            controller->stop();
        }
    }

    // A USB device with a Controller answering on its tty. Its replies are
    // followed by a line feed, as a chatty firmware's are: the application
    // reads a line only once a further byte has come.
    ControllerSimulator& plugController(const UsbSerialDeviceInfo& info)
    {
        devices.push_back(testbed->addUsbSerialDevice(info));
        controllers.push_back(std::make_unique<ControllerSimulator>(devices.back()->deviceEnd()));
        controllers.back()->setTrailer("\n");
        controllers.back()->start();
        return *controllers.back();
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

    [[nodiscard]] std::string logFile() const
    {
        std::ifstream in(dataHome.path() / "QuendralFirmwareUpdater" / "log.txt");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    TempDir dataHome;
    std::unique_ptr<UmockdevTestbed> testbed;
    std::vector<std::shared_ptr<UmockdevSerialDevice>> devices;
    std::vector<std::unique_ptr<ControllerSimulator>> controllers;
};

inline std::string describe(const CliResult& result)
{
    return "exit " + std::to_string(result.exitCode) + "\n--- stdout\n" + result.out + "--- stderr\n" + result.err;
}

} // namespace quendral::test
