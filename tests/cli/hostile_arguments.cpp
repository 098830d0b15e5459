// Whatever a command line holds, quendral-cli ends with exit code 2 and a
// message for a wrong one: no exception, no crash, however long or odd the
// arguments are.
#include "cli_child.h"
#include "command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quendral::cli;
using quendral::test::CliResult;
using quendral::test::runCli;

namespace {

// The longest single argument Linux passes to a program is 128 KiB.
const std::string kLongDigits(120000, '1');
const std::string kLongHost(120000, 'a');

std::string usageError(const std::vector<std::string>& args)
{
    const auto result = parseCommandLine(args);
    EXPECT_TRUE(std::holds_alternative<UsageError>(result));
    return std::holds_alternative<UsageError>(result) ? std::get<UsageError>(result).message : "";
}

std::string describe(const CliResult& result)
{
    return "exit " + std::to_string(result.exitCode) + "\n--- stdout\n" + result.out + "--- stderr\n" + result.err;
}

// The binary with no Controller anywhere: a usage error is found before any
// port is looked for, so the exit code tells the two apart.
CliResult cli(const std::vector<std::string>& args)
{
    return runCli(args, {{"XDG_DATA_HOME", "/nonexistent/quendral-hostile"}});
}

} // namespace

TEST(HostileArguments, ADeviceNumberBeyondAnyIntegerIsAUsageError)
{
    EXPECT_EQ(usageError({"ip", "dev99999999999999999999=1.2.3.4"}),
              "dev99999999999999999999: no device has that number");
    EXPECT_EQ(usageError({"ip", "enable99999999999999999999=1"}),
              "enable99999999999999999999: no device has that number");
}

TEST(HostileArguments, AHugeDeviceNumberIsAUsageErrorNotACrash)
{
    const std::string message = usageError({"ip", "dev" + kLongDigits + "=1.2.3.4"});
    EXPECT_NE(message.find("no device has that number"), std::string::npos);
}

TEST(HostileArguments, AHugeServerAddressIsCheckedWithoutCrashing)
{
    const auto accepted = parseCommandLine({"update", "--server", "https://" + kLongHost});
    ASSERT_TRUE(std::holds_alternative<Invocation>(accepted));
    EXPECT_EQ(std::get<Invocation>(accepted).serverURL, "https://" + kLongHost);
    EXPECT_EQ(usageError({"update", "--server", "https://" + kLongHost + "/x"}), "--server takes https://host[:port]");
}

TEST(HostileArguments, ServerAddressesAreCheckedAsBefore)
{
    for (const std::string good :
         {"https://update.example", "https://127.0.0.1:8443", "https://a-b.example:1/", "https://h:65535"}) {
        EXPECT_TRUE(std::holds_alternative<Invocation>(parseCommandLine({"update", "--server", good}))) << good;
    }
    for (const std::string bad : {"https://", "https:///", "https://h:", "https://h:123456", "https://h/x",
                                  "https://h:8443//", "http://h", "https://h_x", "https://h:8a", "xhttps://h"}) {
        EXPECT_EQ(usageError({"update", "--server", bad}), "--server takes https://host[:port]") << bad;
    }
}

TEST(HostileArguments, SettingKeysAreCheckedAsBefore)
{
    for (const std::string key : {"ip", "subnet", "gateway", "dns", "dev1", "dev12", "enable3"}) {
        const auto result = parseCommandLine({"ip", key + (key.rfind("enable", 0) == 0 ? "=1" : "=1.2.3.4")});
        EXPECT_TRUE(std::holds_alternative<Invocation>(result)) << key;
    }
    for (const std::string key : {"dev", "dev0", "dev01", "enable", "enable0", "devx", "dev1x", "IP", "ipx", ""}) {
        EXPECT_EQ(usageError({"ip", key + "=1"}), "unknown setting '" + key + "'") << key;
    }
}

TEST(HostileArguments, TheBinaryRefusesAnOverflowingDeviceNumberWithExitTwo)
{
    for (const std::string arg : {"dev99999999999999999999=1.2.3.4", "enable99999999999999999999=1"}) {
        const CliResult result = cli({"ip", arg});
        EXPECT_EQ(result.exitCode, 2) << describe(result);
        EXPECT_EQ(
            result.err.rfind("quendral-cli: " + arg.substr(0, arg.find('=')) + ": no device has that number\n", 0), 0U)
            << describe(result);
        EXPECT_EQ(result.out, "");
    }
}

TEST(HostileArguments, TheBinarySurvivesArgumentsOfTheLongestLength)
{
    const CliResult server = cli({"update", "--server", "https://" + kLongHost + "/x"});
    EXPECT_EQ(server.exitCode, 2) << describe(server).substr(0, 400);
    const CliResult key = cli({"ip", "dev" + kLongDigits + "=1.2.3.4"});
    EXPECT_EQ(key.exitCode, 2) << describe(key).substr(0, 400);
}

TEST(HostileArguments, DeviceNumbersAreReadWithoutThrowing)
{
    EXPECT_EQ(deviceNumber("dev12"), 12U);
    EXPECT_EQ(deviceNumber("enable3"), 3U);
    EXPECT_EQ(deviceNumber("dev18446744073709551615"), 18446744073709551615U);
    EXPECT_EQ(deviceNumber("dev18446744073709551616"), std::nullopt);
    for (const std::string key : {"ip", "dhcp", "dev", "dev0", "dev01", "dev1x", "enable-1", "dev 1"}) {
        EXPECT_EQ(deviceNumber(key), std::nullopt) << key;
    }
}
