// quendral-cli as a user runs it, against simulated Controllers in a USB
// world (cli_usb_world.h). What the Controllers receive is checked on the
// simulators, what the user sees on the child's standard output and error.
#include "cli_usb_world.h"
#include "controller/main_view_controller.h"
#include "controller/port_list.h"
#include "doctor.h"
#include "serial/serial_port_manager.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

using namespace std::chrono_literals;
using namespace quendral::test;

// --- ports -------------------------------------------------------------------

TEST_F(CliInUsbWorld, PortsListsEveryControllerPortInMenuOrderWithItsBoard)
{
    // Plugged in an order unlike the names' order: the menu follows the ports'
    // order in the device tree (their USB ports 1-1, 1-2, 1-3), not the names.
    plugController(usbDevice("ttyACM1", 0x2341, 0x8037));
    plugController(usbDevice("ttyUSB0", 0x0403, 0x6001));
    plugController(usbDevice("ttyACM0", 0x1209, 0xBEEF));
    devices.push_back(testbed->addBuiltinSerialPort("ttyS0")); // not a Controller port: never listed

    const CliResult result = cliExiting(0, {"ports"});
    EXPECT_EQ(result.out, "ttyACM1\t/dev/ttyACM1\t2341:8037\tATmega32U4 board running its firmware\n"
                          "ttyUSB0\t/dev/ttyUSB0\t0403:6001\tKORBATEK board (ATmega1284P) behind an FTDI FT232R USB "
                          "serial adapter\n"
                          "ttyACM0\t/dev/ttyACM0\t1209:beef\tunknown\n");
    EXPECT_EQ(result.err, "");
    for (const auto& controller : controllers) {
        EXPECT_EQ(controller->openCount(), 0) << "listing ports opens none";
    }
}

// --json: one object a line on standard output, the messages on standard error.
TEST_F(CliInUsbWorld, PortsIdentifyAndIpAsJsonGiveOneObjectEachWithTheirKeys)
{
    plugController(usbDevice("ttyACM1", 0x1209, 0xBEEF));
    auto& controller = plugKorbatekDue();
    controller.setCID("QUENDRAL000000000000000000000042");
    controller.setVersion("3.1.4");
    controller.setIPDumpLines(kDump);

    const CliResult ports = cliExiting(0, {"ports", "--json"});
    std::vector<nlohmann::json> listed;
    std::istringstream lines(ports.out);
    for (std::string line; std::getline(lines, line);) {
        listed.push_back(nlohmann::json::parse(line));
    }
    ASSERT_EQ(listed.size(), 2U) << ports.out;
    EXPECT_EQ(listed[0], (nlohmann::json{{"port", "ttyACM1"},
                                         {"path", "/dev/ttyACM1"},
                                         {"vendor", "1209"},
                                         {"product", "beef"},
                                         {"board", nullptr}}));
    EXPECT_EQ(listed[1]["vendor"], "2341");
    EXPECT_EQ(listed[1]["product"], "003e");
    EXPECT_TRUE(listed[1]["board"].is_string());
    const std::string due = listed[1]["path"];

    const CliResult identified = cliExiting(0, {"identify", "--json", "-p", due});
    EXPECT_EQ(nlohmann::json::parse(identified.out), (nlohmann::json{{"port", due.substr(5)},
                                                                     {"path", due},
                                                                     {"cid", "QUENDRAL000000000000000000000042"},
                                                                     {"version", "3.1.4"},
                                                                     {"outcome", "identified"},
                                                                     {"error", nullptr}}));
    EXPECT_NE(identified.err.find("Waiting for device to boot.. (20)\n"), std::string::npos) << describe(identified);

    const CliResult ip = cliExiting(0, {"ip", "--json", "-p", due});
    const auto settings = nlohmann::json::parse(ip.out);
    EXPECT_EQ(settings["outcome"], "read");
    EXPECT_EQ(settings["dhcp"], false);
    EXPECT_EQ(settings["ip"], "192.168.10.50");
    EXPECT_EQ(settings["subnet"], "255.255.255.0");
    EXPECT_EQ(settings["gateway"], "192.168.10.1");
    EXPECT_EQ(settings["dns"], "192.168.10.2");
    EXPECT_EQ(settings["devices"],
              (nlohmann::json::array({{{"number", 1}, {"address", "192.168.10.60"}, {"enabled", true}},
                                      {{"number", 2}, {"address", "192.168.10.61"}, {"enabled", false}}})));
}

TEST_F(CliInUsbWorld, IdentifyAsJsonOfASilentControllerSaysWhyAndExitsOne)
{
    auto& controller = plugKorbatekDue();
    controller.setSilent(true);
    const CliResult result = cliExiting(1, {"identify", "--json"});
    const auto object = nlohmann::json::parse(result.out);
    EXPECT_EQ(object["outcome"], "not-identified");
    EXPECT_EQ(object["error"], "The Controller did not identify itself.");
    EXPECT_TRUE(object["cid"].is_null());
}

TEST_F(CliInUsbWorld, PortsWithoutControllersPrintsNothing)
{
    devices.push_back(testbed->addBuiltinSerialPort("ttyS0"));
    const CliResult result = cliExiting(0, {"ports"});
    EXPECT_EQ(result.out, "");
}

// --- identify ----------------------------------------------------------------

TEST_F(CliInUsbWorld, IdentifyPrintsTheIdentifierAndVersionOfAnAnsweringController)
{
    auto& controller = plugKorbatekDue();
    controller.setCID("QUENDRAL000000000000000000000042");
    controller.setVersion("3.1.4");

    const CliResult result = cliExiting(0, {"identify"});
    EXPECT_EQ(result.out, "CID: QUENDRAL000000000000000000000042\nVersion: 3.1.4\n");
    // The waiting is shown as the window shows it, on the error stream.
    EXPECT_NE(result.err.find("Waiting for device to boot.. (20)\n"), std::string::npos) << describe(result);
    EXPECT_NE(result.err.find("Please wait...\n"), std::string::npos);
    const auto received = controller.receivedLines();
    ASSERT_GE(received.size(), 2U);
    EXPECT_EQ(received[0], "getCID");
    EXPECT_EQ(received[1], "getVersion");
    EXPECT_NE(logFile().find("] Opening port..\n"), std::string::npos) << logFile();
}

TEST_F(CliInUsbWorld, IdentifyPrintsTheMessageOfAControllerThatAnswersWithOne)
{
    auto& controller = plugKorbatekDue();
    controller.setMessage("This controller is not registered yet. Please contact support.");

    const CliResult result = cliExiting(1, {"identify"});
    EXPECT_EQ(result.out, "This controller is not registered yet. Please contact support.\n");
    EXPECT_EQ(result.err.find("did not identify"), std::string::npos) << describe(result);
}

TEST_F(CliInUsbWorld, IdentifyGivesUpOnASilentControllerAndExitsOne)
{
    auto& controller = plugKorbatekDue();
    controller.setSilent(true);

    const CliResult result = cliExiting(1, {"identify"});
    EXPECT_EQ(result.out, "The Controller did not identify itself.\n");
    EXPECT_NE(result.err.find("Waiting for device to boot.. (20)\n"), std::string::npos) << describe(result);
    EXPECT_NE(result.err.find("Waiting for device to boot.. (1)\n"), std::string::npos) << describe(result);
    EXPECT_NE(result.err.find("Please wait...\n"), std::string::npos);
    // It kept asking once a second, about twenty times.
    EXPECT_GE(controller.countOf("getCID"), 10U);
}

TEST_F(CliInUsbWorld, IdentifyWithoutAnyControllerSaysSoAndExitsOne)
{
    devices.push_back(testbed->addBuiltinSerialPort("ttyS0"));
    const CliResult result = cliExiting(1, {"identify"});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quendral-cli: no Controller is connected\n");
}

// --- choosing the port ----------------------------------------------------------

class CliWithTwoControllers : public CliInUsbWorld {
protected:
    void SetUp() override
    {
        CliInUsbWorld::SetUp();
        first = &plugKorbatekDue("ttyACM0");
        first->setCID("FIRST000000000000000000000000001");
        second = &plugKorbatekDue("ttyACM1");
        second->setCID("SECOND00000000000000000000000002");
        second->setVersion("2.0.0");
    }
    ControllerSimulator* first = nullptr;
    ControllerSimulator* second = nullptr;
};

TEST_F(CliWithTwoControllers, WithoutAPortTheFirstOfTheMenuIsUsed)
{
    const CliResult result = cliExiting(0, {"identify"});
    EXPECT_EQ(result.out, "CID: FIRST000000000000000000000000001\nVersion: 1.0.0\n");
    EXPECT_EQ(second->openCount(), 0);
}

TEST_F(CliWithTwoControllers, PortByName)
{
    const CliResult result = cliExiting(0, {"identify", "-p", "ttyACM1"});
    EXPECT_EQ(result.out, "CID: SECOND00000000000000000000000002\nVersion: 2.0.0\n");
    EXPECT_EQ(first->openCount(), 0);
}

TEST_F(CliWithTwoControllers, PortByDevicePath)
{
    const CliResult result = cliExiting(0, {"identify", "--port", "/dev/ttyACM1"});
    EXPECT_EQ(result.out, "CID: SECOND00000000000000000000000002\nVersion: 2.0.0\n");
    EXPECT_EQ(first->openCount(), 0);
}

TEST_F(CliWithTwoControllers, UnknownPortIsRefusedWithoutTouchingAnyController)
{
    const CliResult result = cliExiting(1, {"identify", "-p", "ttyACM7"});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quendral-cli: no Controller port 'ttyACM7' (see 'quendral-cli ports')\n");
    EXPECT_EQ(first->openCount(), 0);
    EXPECT_EQ(second->openCount(), 0);
}

// --- ip -------------------------------------------------------------------------

TEST_F(CliInUsbWorld, IpPrintsTheSettingsAsAssignmentsThatWriteThemBackUnchanged)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines(kDump);

    const CliResult printed = cliExiting(0, {"ip"});
    const std::vector<std::string> assignments{"dhcp=off",
                                               "ip=192.168.10.50",
                                               "subnet=255.255.255.0",
                                               "gateway=192.168.10.1",
                                               "dns=192.168.10.2",
                                               "dev1=192.168.10.60",
                                               "enable1=1",
                                               "dev2=192.168.10.61",
                                               "enable2=0"};
    EXPECT_EQ(printed.out, joinedLines(assignments));

    // quendral-cli ip $(quendral-cli ip): the same settings go back, and are printed.
    std::vector<std::string> arguments{"ip"};
    arguments.insert(arguments.end(), assignments.begin(), assignments.end());
    const CliResult written = cliExiting(0, arguments);
    EXPECT_EQ(written.out, joinedLines(assignments) + "Settings written; the Controller stores them and restarts.\n");
    ASSERT_TRUE(controller.waitForLine("reset", 5s));
    EXPECT_EQ(
        controller.receivedLines(),
        (std::vector<std::string>{"dumpIP", "dumpIP", "bulkip", "ip=192.168.10.50", "subnet=255.255.255.0",
                                  "gateway=192.168.10.1", "dns=192.168.10.2", "ipDevice1=192.168.10.60",
                                  "enableDevice1=1", "ipDevice2=192.168.10.61", "enableDevice2=0", "store", "reset"}));
}

TEST_F(CliInUsbWorld, IpRawPrintsTheDumpLines)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines(kDump);

    const CliResult result = cliExiting(0, {"ip", "--raw"});
    EXPECT_EQ(result.out, joinedLines(kDump));
    EXPECT_NE(result.err.find("Waiting for controller to send IP configuration.. (20)\n"), std::string::npos)
        << describe(result);
    EXPECT_EQ(controller.receivedLines(), std::vector<std::string>{"dumpIP"});
}

TEST_F(CliInUsbWorld, IpWithASilentControllerSaysSoAndExitsOne)
{
    auto& controller = plugKorbatekDue();
    controller.setSilent(true);

    const CliResult result = cliExiting(1, {"ip"});
    EXPECT_EQ(result.out, "Could not get device IP configuration\n");
    EXPECT_EQ(controller.receivedLines(), std::vector<std::string>{"dumpIP"});
}

TEST_F(CliInUsbWorld, IpWritesTheWholeSequenceWithTheChangedSettings)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines(kDump);

    const CliResult result = cliExiting(
        0, {"ip", "ip=192.168.10.77", "gateway=192.168.10.254", "dev2=192.168.10.62", "enable2=1", "enable1=0"});
    EXPECT_EQ(result.out,
              joinedLines({"dhcp=off", "ip=192.168.10.77", "subnet=255.255.255.0", "gateway=192.168.10.254",
                           "dns=192.168.10.2", "dev1=192.168.10.60", "enable1=0", "dev2=192.168.10.62", "enable2=1"}) +
                  "Settings written; the Controller stores them and restarts.\n");
    ASSERT_TRUE(controller.waitForLine("reset", 5s));
    // The dump is read first; the settings not named keep the Controller's values.
    EXPECT_EQ(
        controller.receivedLines(),
        (std::vector<std::string>{"dumpIP", "bulkip", "ip=192.168.10.77", "subnet=255.255.255.0",
                                  "gateway=192.168.10.254", "dns=192.168.10.2", "ipDevice1=192.168.10.60",
                                  "enableDevice1=0", "ipDevice2=192.168.10.62", "enableDevice2=1", "store", "reset"}));
    const std::string log = logFile();
    EXPECT_NE(log.find("] User clicked save IP settings\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] Opening serial port /dev/ttyACM0\n"), std::string::npos) << log;
}

// The DHCP switch: what the Controller holds, what is asked, the settings it gets.
struct DhcpCase {
    const char* name;
    std::string address; // the Controller's "ip" setting
    std::vector<std::string> arguments;
    std::string ipSent;
    std::string dnsSent;
};

// Named in the test list by its case, not by its bytes.
void PrintTo(const DhcpCase& dhcpCase, std::ostream* out)
{
    *out << dhcpCase.name;
}

class CliDhcpSwitch : public CliInUsbWorld, public ::testing::WithParamInterface<DhcpCase> {
protected:
    // `quendral-cli ip ARGUMENTS` against a KorbatekDue whose dump is `dump`:
    // it exits 0 and the Controller is told to reset. `heard`: every line it got.
    void writeIpSettings(const std::vector<std::string>& dump, const std::vector<std::string>& arguments,
                         std::vector<std::string>& heard)
    {
        auto& controller = plugKorbatekDue();
        controller.setIPDumpLines(dump);
        const CliResult result = cli(arguments);
        EXPECT_EQ(result.exitCode, 0) << describe(result);
        ASSERT_TRUE(controller.waitForLine("reset", std::chrono::seconds(5)));
        heard = controller.receivedLines();
    }
};

TEST_P(CliDhcpSwitch, WritesTheWholeSequence)
{
    const DhcpCase& c = GetParam();
    std::vector<std::string> heard;
    ASSERT_NO_FATAL_FAILURE(writeIpSettings(
        {"ip;" + c.address, "subnet;255.255.255.0", "gateway;192.168.10.1", "dns;192.168.10.2"}, c.arguments, heard));
    EXPECT_EQ(heard, (std::vector<std::string>{"dumpIP", "bulkip", "ip=" + c.ipSent, "subnet=255.255.255.0",
                                               "gateway=192.168.10.1", "dns=" + c.dnsSent, "store", "reset"}));
}

INSTANTIATE_TEST_SUITE_P(
    CliInUsbWorld, CliDhcpSwitch,
    ::testing::Values(
        DhcpCase{
            "IpDhcpOnSendsTheDhcpAddress", "192.168.10.50", {"ip", "dhcp=on", "dns=10.0.0.5"}, "0.0.0.0", "10.0.0.5"},
        DhcpCase{"IpDhcpOffProposesTheFixedAddress", "0.0.0.0", {"ip", "dhcp=off"}, "192.168.10.99", "192.168.10.2"},
        DhcpCase{"IpDhcpOffOnAControllerWithAFixedAddressKeepsItsAddress",
                 "192.168.10.50",
                 {"ip", "dhcp=off", "dns=192.168.10.3"},
                 "192.168.10.50",
                 "192.168.10.3"}),
    [](const ::testing::TestParamInfo<DhcpCase>& test) { return std::string(test.param.name); });

TEST_F(CliInUsbWorld, IpRefusesAnInvalidAddressAndTheControllerHearsNothing)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines(kDump);

    const CliResult result = cliExiting(1, {"ip", "ip=192.168.10.77", "gateway=192.168.1.300"});
    EXPECT_EQ(result.out, "Invalid: gateway=192.168.1.300 (nothing was sent)\n");
    EXPECT_TRUE(controller.receivedLines().empty()) << joinedLines(controller.receivedLines());
    EXPECT_EQ(controller.openCount(), 0);
}

// The window's field would keep the first address it finds in the text; a
// typed address is whole or refused, never cut to what looks like one.
TEST_F(CliInUsbWorld, IpRefusesATypedAddressThatIsNotWholeAndTheControllerHearsNothing)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines(kDump);

    CliResult result = cliExiting(1, {"ip", "dev1=192.168.10.1234"});
    EXPECT_EQ(result.out, "Invalid: dev1=192.168.10.1234 (not a whole address, only 192.168.10.123 of it is one; "
                          "nothing was sent)\n");
    result = cliExiting(1, {"ip", "dns=dns 10.0.0.5x"});
    EXPECT_EQ(result.out, "Invalid: dns=dns 10.0.0.5x (not a whole address, only 10.0.0.5 of it is one; nothing was "
                          "sent)\n");
    EXPECT_TRUE(controller.receivedLines().empty()) << joinedLines(controller.receivedLines());
    EXPECT_EQ(controller.openCount(), 0);
}

TEST_F(CliInUsbWorld, IpRefusesADeviceTheControllerDoesNotHave)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines(kDump);

    const CliResult result = cliExiting(1, {"ip", "dev3=192.168.10.63"});
    EXPECT_EQ(result.out, "The Controller has no device 3 (it reports 2)\n");
    EXPECT_EQ(controller.receivedLines(), std::vector<std::string>{"dumpIP"}) << "only the dump was asked for";
}

// --- webconfig and online-config ----------------------------------------------------

TEST_F(CliInUsbWorld, WebconfigSwitchesTheWebServerOnAndOff)
{
    auto& controller = plugKorbatekDue();
    controller.setAddress("192.168.10.77");

    const CliResult on = cli({"webconfig"});
    EXPECT_EQ(on.exitCode, 0) << describe(on);
    EXPECT_EQ(on.out, "http://192.168.10.77\n");
    EXPECT_NE(on.err.find("Waiting for device .. (20)\n"), std::string::npos) << describe(on);
    EXPECT_TRUE(controller.webserverRunning());

    const CliResult off = cli({"webconfig"});
    EXPECT_EQ(off.exitCode, 0) << describe(off);
    EXPECT_EQ(off.out, "Webconfig sucessfully disabeled\n");
    EXPECT_FALSE(controller.webserverRunning());
    EXPECT_EQ(controller.countOf("webconfig"), 2U);
    EXPECT_NE(logFile().find("] User clicked local configuration (webconfig)\n"), std::string::npos);
}

TEST_F(CliInUsbWorld, WebconfigWithASilentControllerFailsWithTheWindowsAlert)
{
    auto& controller = plugKorbatekDue();
    controller.setSilent(true);

    const CliResult result = cliExiting(1, {"webconfig"});
    EXPECT_EQ(result.out, "Error toggling Webconfig.\n");
}

TEST_F(CliInUsbWorld, OnlineConfigPrintsTheAddressWhenThereIsNoDesktop)
{
    auto& controller = plugKorbatekDue();
    controller.setCID("QUENDRAL000000000000000000000042");

    const CliResult result = cliExiting(0, {"online-config"});
    EXPECT_EQ(result.out,
              quendral::MainViewController::onlineConfigurationURL("QUENDRAL000000000000000000000042") + "\n");
    EXPECT_EQ(result.out.rfind("https://", 0), 0U);
    EXPECT_NE(result.out.find("/?CID=QUENDRAL000000000000000000000042\n"), std::string::npos);
    EXPECT_NE(logFile().find("] User clicked online configuration\n"), std::string::npos);
}

// --- monitor ------------------------------------------------------------------------

TEST_F(CliInUsbWorld, MonitorSendsPipedLinesAndPrintsWhatTheControllerAnswers)
{
    auto& controller = plugKorbatekDue();
    controller.setVersion("4.5.6");

    // As `printf 'getVersion\nhello' | quendral-cli monitor`: the input ends at
    // once, its last line without a line feed; the answer still comes through.
    const CliResult result = cliExiting(0, {"monitor"}, "getVersion\nhello");
    EXPECT_EQ(controller.receivedLines(), (std::vector<std::string>{"getVersion", "hello"}));
    EXPECT_NE(result.out.find("VERSION:4.5.6\n"), std::string::npos) << describe(result);
    EXPECT_NE(logFile().find("] Opening serial port /dev/ttyACM0 with baud rate 115200\n"), std::string::npos);
}

TEST_F(CliInUsbWorld, MonitorStaysOnWhileInputIsOpenAndShowsUnaskedOutput)
{
    auto& controller = plugKorbatekDue();
    CliChild child({"monitor", "-p", "/dev/ttyACM0"}, environment());
    ASSERT_TRUE(child.started());
    ASSERT_TRUE(controller.waitForPortOpen(true, 30s));

    controller.sendRaw("Controller booted\r\n");
    EXPECT_TRUE(child.waitForOutput("Controller booted\r\n", 30s)) << child.output();
    child.writeInput("getCID\n");
    EXPECT_TRUE(child.waitForOutput("CID:0123456789ABCDEF0123456789ABCDEF\n", 30s)) << child.output();
    child.writeInput("debug\n");
    ASSERT_TRUE(controller.waitForLine("debug", 30s));

    const CliResult result = child.finish(30s);
    EXPECT_EQ(result.exitCode, 0) << describe(result);
    EXPECT_EQ(controller.receivedLines(), (std::vector<std::string>{"getCID", "debug"}));
    EXPECT_TRUE(controller.waitForPortOpen(false, 5s)) << "the port is closed at the end";
}

// The terminal echoes Ctrl-] as "^]"; the monitor ends that line, so the
// shell's prompt starts on a line of its own.
TEST_F(CliInUsbWorld, MonitorLeftWithCtrlBracketEndsTheTerminalLine)
{
    plugKorbatekDue();
    CliChild child({"monitor"}, environment(), CliChild::Input::Terminal);
    ASSERT_TRUE(child.started());
    ASSERT_TRUE(child.waitForErrorOutput("Enter sends a line, Ctrl-] leaves.\n", 30s));
    child.writeInput("half a line");
    child.writeInput("\x1d");

    const CliResult result = child.finish(30s);
    EXPECT_EQ(result.exitCode, 0) << describe(result);
    const std::string shown = child.output();
    ASSERT_FALSE(shown.empty());
    EXPECT_EQ(shown.back(), '\n') << shown;
}

TEST_F(CliInUsbWorld, MonitorOnATerminalSendsEachLineOnEnterAndCtrlBracketLeaves)
{
    auto& controller = plugKorbatekDue();
    CliChild child({"monitor"}, environment(), CliChild::Input::Terminal);
    ASSERT_TRUE(child.started());
    const auto before = child.terminalSettings();
    ASSERT_TRUE(before);
    ASSERT_TRUE(child.waitForErrorOutput("Enter sends a line, Ctrl-] leaves.\n", 30s));

    // Typed in pieces, as a user types; Enter arrives as a carriage return.
    child.writeInput("get");
    child.writeInput("CID\r");
    EXPECT_TRUE(child.waitForOutput("CID:0123456789ABCDEF0123456789ABCDEF", 30s)) << child.output();
    EXPECT_NE(child.output().find("getCID"), std::string::npos) << "what is typed is shown";
    child.writeInput("ok\r");
    ASSERT_TRUE(controller.waitForLine("ok", 30s));
    child.writeInput("half a line");
    child.writeInput("\x1d");

    const CliResult result = child.finish(30s);
    EXPECT_EQ(result.exitCode, 0) << describe(result);
    EXPECT_EQ(controller.receivedLines(), (std::vector<std::string>{"getCID", "ok"}));
    EXPECT_TRUE(controller.waitForPortOpen(false, 5s));
    // The terminal is left as it was found.
    const auto after = child.terminalSettings();
    ASSERT_TRUE(after);
    EXPECT_EQ(after->c_lflag, before->c_lflag);
    EXPECT_EQ(after->c_cc[VEOL], before->c_cc[VEOL]);
}

// --- doctor --------------------------------------------------------------------

namespace {

// A resource folder as the package lays it out, with the real tools; the
// intermediate firmware only when asked for.
std::filesystem::path resourceFolder(const std::filesystem::path& at, bool withBossac, bool withIntermediate)
{
    std::filesystem::create_directories(at);
    std::filesystem::create_symlink("/usr/bin/avrdude", at / "avrdude");
    std::filesystem::create_symlink("/etc/avrdude.conf", at / "avrdude.conf");
    if (withBossac) {
        std::filesystem::create_symlink("/usr/bin/bossac", at / "bossac");
    }
    if (withIntermediate) {
        std::ofstream(at / "intermediate_due.hex") << std::string(4096, '\x5a');
    }
    return at;
}

} // namespace

TEST_F(CliInUsbWorld, DoctorOnACleanComputerFindsNothingInTheWayAndNamesTheToolsVersions)
{
    plugKorbatekDue();
    const auto resources = resourceFolder(dataHome.path() / "clean", true, true);

    const CliResult result = cliExiting(0, {"doctor", "--resources", resources.string()});
    EXPECT_NE(result.out.find("[ok] avrdude 7."), std::string::npos) << describe(result);
    EXPECT_NE(result.out.find("[ok] bossac 1."), std::string::npos) << describe(result);
    EXPECT_NE(result.out.find("[ok] this user may open /dev/ttyACM0\n"), std::string::npos) << describe(result);
    EXPECT_NE(result.out.find("[ok] intermediate_due.hex is installed"), std::string::npos) << describe(result);
    EXPECT_EQ(result.out.find("[problem]"), std::string::npos) << describe(result);
}

TEST_F(CliInUsbWorld, DoctorFindsAMissingToolAnIntermediateImageAndAServerWithTheirFixes)
{
    plugKorbatekDue();
    const auto resources = resourceFolder(dataHome.path() / "broken", false, false);

    // Nothing listens on port 1: the server check fails at once.
    const CliResult result =
        cliExiting(1, {"doctor", "--json", "--resources", resources.string(), "--server", "https://127.0.0.1:1"});
    std::map<std::string, nlohmann::json> findings;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        const auto finding = nlohmann::json::parse(line);
        findings[finding["check"]] = finding;
    }
    ASSERT_TRUE(findings.contains("bossac")) << result.out;
    EXPECT_EQ(findings["bossac"]["ok"], false);
    EXPECT_EQ(findings["bossac"]["fix"], "sudo apt install bossa-cli");
    EXPECT_EQ(findings["intermediate firmware"]["ok"], false);
    EXPECT_EQ(findings["avrdude"]["ok"], true);
    EXPECT_TRUE(findings["avrdude"]["fix"].is_null());
    EXPECT_EQ(findings["port /dev/ttyACM0"]["ok"], true);
    EXPECT_EQ(findings["update server"]["ok"], false);
    EXPECT_NE(findings["update server"]["text"].get<std::string>().find("cannot be reached over verified TLS"),
              std::string::npos);
}

// --- several Controllers at once -----------------------------------------------

namespace {

// The --json objects of a run by their ports.
std::map<std::string, nlohmann::json> objectsByPort(const std::string& out)
{
    std::map<std::string, nlohmann::json> objects;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const auto object = nlohmann::json::parse(line);
        objects[object.at("port").get<std::string>()] = object;
    }
    return objects;
}

nlohmann::json identified(const std::string& port, const std::string& cid, const std::string& version)
{
    return {{"port", port},       {"path", "/dev/" + port},  {"cid", cid},
            {"version", version}, {"outcome", "identified"}, {"error", nullptr}};
}

} // namespace

TEST_F(CliInUsbWorld, IdentifyAllAsksEveryKnownBoardAtOnceAndExitsWithTheWorstOutcome)
{
    auto& unknown = plugController(usbDevice("ttyACM0", 0x1209, 0xBEEF)); // not a board of the table
    auto& due = plugKorbatekDue("ttyACM1");
    due.setCID("QUENDRAL000000000000000000000001");
    due.setVersion("3.1.4");
    auto& silent = plugKorbatekDue("ttyACM2");
    silent.setSilent(true);
    auto& adapter = plugController(usbDevice("ttyUSB0", 0x0403, 0x6001));
    adapter.setCID("QUENDRAL000000000000000000000003");
    adapter.setVersion("1284P-A.1");

    const CliResult result = cliExiting(1, {"identify", "--all", "--json"});
    const auto objects = objectsByPort(result.out);
    EXPECT_EQ(objects, (std::map<std::string, nlohmann::json>{
                           {"ttyACM1", identified("ttyACM1", "QUENDRAL000000000000000000000001", "3.1.4")},
                           {"ttyACM2",
                            {{"port", "ttyACM2"},
                             {"path", "/dev/ttyACM2"},
                             {"cid", nullptr},
                             {"version", nullptr},
                             {"outcome", "not-identified"},
                             {"error", "The Controller did not identify itself."}}},
                           {"ttyUSB0", identified("ttyUSB0", "QUENDRAL000000000000000000000003", "1284P-A.1")}}))
        << describe(result);
    EXPECT_TRUE(unknown.receivedLines().empty());
    // All at once: the silent board's count-down began before the answering
    // one's identification was over (one after the other, it would follow it).
    const auto countDown = result.err.find("ttyACM2: Waiting for device to boot.. (20)\n");
    const auto answered = result.err.find("ttyACM1: Please wait...\n");
    ASSERT_NE(countDown, std::string::npos) << describe(result);
    ASSERT_NE(answered, std::string::npos) << describe(result);
    EXPECT_LT(countDown, answered) << describe(result);
}

TEST_F(CliInUsbWorld, IdentifyAllPrintsATableOfEveryBoard)
{
    auto& due = plugKorbatekDue("ttyACM0");
    due.setCID("QUENDRAL000000000000000000000001");
    due.setVersion("3.1.4");
    auto& adapter = plugController(usbDevice("ttyUSB0", 0x0403, 0x6001));
    adapter.setCID("QUENDRAL000000000000000000000003");
    adapter.setVersion("1284P-A.1");

    const CliResult result = cliExiting(0, {"identify", "--all"});
    EXPECT_EQ(result.out, "PORT     CID                               VERSION    OUTCOME\n"
                          "ttyACM0  QUENDRAL000000000000000000000001  3.1.4      identified\n"
                          "ttyUSB0  QUENDRAL000000000000000000000003  1284P-A.1  identified\n");
    EXPECT_NE(result.err.find("ttyUSB0: Waiting for device to boot.. (20)\n"), std::string::npos) << describe(result);
}

TEST_F(CliInUsbWorld, IdentifyAllWithoutAnyKnownBoardSaysSoAndExitsOne)
{
    plugController(usbDevice("ttyACM0", 0x1209, 0xBEEF));
    const CliResult result = cliExiting(1, {"identify", "--all"});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quendral-cli: no Controller is connected\n");
}

// --- doctor and ModemManager, in-process -----------------------------------------

TEST_F(CliInUsbWorld, DoctorNamesTheControllerPortsThatModemManagerMayProbe)
{
    // udev marked the first board (the package's rule does that), not the second.
    auto marked = usbDevice("ttyACM0", 0x2341, 0x003E);
    marked.ttyProperties = {{"ID_MM_DEVICE_IGNORE", "1"}};
    plugDevice(marked);
    TempDir computer;
    std::filesystem::create_directories(computer.path() / "proc" / "812");
    std::ofstream(computer.path() / "proc" / "812" / "comm") << "ModemManager\n";
    const quendral::cli::Doctor doctor(quendral::cli::Doctor::Places{
        computer.path() / "resources", computer.path() / "proc", {computer.path() / "rules"}});
    auto& manager = quendral::SerialPortManager::sharedSerialPortManager();
    ASSERT_TRUE(waitUntil([&] { return quendral::listedControllerPorts(manager).size() == 1; }));

    const quendral::cli::Finding allMarked = doctor.modemManager(quendral::listedControllerPorts(manager));
    EXPECT_TRUE(allMarked.ok);
    EXPECT_EQ(allMarked.text, "ModemManager runs; every Controller port is marked for it to ignore");

    plugDevice(usbDevice("ttyUSB0", 0x0403, 0x6001));
    ASSERT_TRUE(waitUntil([&] { return quendral::listedControllerPorts(manager).size() == 2; }));
    const quendral::cli::Finding oneNot = doctor.modemManager(quendral::listedControllerPorts(manager));
    EXPECT_FALSE(oneNot.ok);
    EXPECT_EQ(oneNot.text, "ModemManager runs and may probe /dev/ttyUSB0: not marked for it to ignore");
    EXPECT_EQ(oneNot.fix, "install the package's udev rule 70-quendral-controllers.rules (then unplug and plug in "
                          "the boards), or: sudo systemctl stop ModemManager");
}
