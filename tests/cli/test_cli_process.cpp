// The quendral-cli binary as a user runs it.
#include "support/command_output.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

// Runs the binary with arguments that are fixed words in these tests.
quendral::test::CommandOutput run(const std::string& arguments)
{
    const char* cli = std::getenv("QUENDRAL_CLI");
    EXPECT_NE(cli, nullptr);
    return quendral::test::runCommand(std::string(cli) + " " + arguments + " 2>&1");
}

} // namespace

TEST(CliProcess, HelpExitsZeroAndShowsUsage)
{
    const auto result = run("--help");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output.rfind("Usage: quendral-cli COMMAND [OPTIONS]", 0), 0U) << result.output;
}

TEST(CliProcess, WrongArgumentExitsTwoWithAUsageMessage)
{
    const auto result = run("frobnicate");
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.output, "quendral-cli: unknown command 'frobnicate'\n"
                             "Usage: quendral-cli COMMAND [OPTIONS]\n"
                             "Commands: ports, identify, update, flash, ip, webconfig, online-config, monitor, log\n"
                             "Try 'quendral-cli --help' for more information.\n");
}

TEST(CliProcess, UsageErrorsGoToStandardErrorOnly)
{
    const auto all = run("identify --yes");
    const auto out = run("identify --yes 2>/dev/null; :"); // standard output alone
    EXPECT_EQ(all.exitCode, 2);
    EXPECT_EQ(all.output.rfind("quendral-cli: unexpected argument '--yes'\nUsage: quendral-cli COMMAND", 0), 0U)
        << all.output;
    EXPECT_EQ(out.output, "");
}

TEST(CliProcess, VersionPrintsTheProgramVersion)
{
    const auto result = run("--version");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output.rfind("quendral-cli ", 0), 0U) << result.output;
}

TEST(CliProcess, LogPrintsTheLogFilePathInTheDataFolder)
{
    const auto result = run("log");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.output.find("QuendralFirmwareUpdater/log.txt\n"), std::string::npos) << result.output;
}
