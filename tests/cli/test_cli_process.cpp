// The quendral-cli binary as a user runs it.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>

namespace {

struct Result {
    int exitCode = -1;
    std::string output;
};

// Runs the binary with arguments that are fixed words in these tests.
Result run(const std::string& arguments)
{
    const char* cli = std::getenv("QUENDRAL_CLI");
    EXPECT_NE(cli, nullptr);
    const std::string command = std::string(cli) + " " + arguments + " 2>&1";
    Result result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 4096> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
        result.output += buffer.data();
    }
    const int status = ::pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
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
