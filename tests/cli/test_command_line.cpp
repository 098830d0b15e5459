#include "command_line.h"
#include "several_controllers.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

using namespace quendral::cli;

namespace {

Invocation parsed(const std::vector<std::string>& args)
{
    auto result = parseCommandLine(args);
    EXPECT_TRUE(std::holds_alternative<Invocation>(result)) << std::get<UsageError>(result).message;
    return std::get<Invocation>(result);
}

std::string error(const std::vector<std::string>& args)
{
    auto result = parseCommandLine(args);
    EXPECT_TRUE(std::holds_alternative<UsageError>(result));
    return std::holds_alternative<UsageError>(result) ? std::get<UsageError>(result).message : "";
}

} // namespace

TEST(CommandLine, UpdateTakesEveryOption)
{
    const auto inv = parsed({"update", "-p", "ttyACM0", "--build", "master", "--yes", "--server",
                             "https://127.0.0.1:8443", "--ca-file", "/tmp/ca.pem"});
    EXPECT_EQ(inv.command, Command::Update);
    EXPECT_EQ(inv.port, "ttyACM0");
    EXPECT_EQ(inv.build, "master");
    EXPECT_EQ(inv.answer, Answer::Yes);
    EXPECT_EQ(inv.serverURL, "https://127.0.0.1:8443");
    EXPECT_EQ(inv.caFile, "/tmp/ca.pem");
}

TEST(CommandLine, YesAndNoExcludeEachOther)
{
    EXPECT_EQ(error({"update", "--yes", "--no"}), "--yes and --no exclude each other");
    EXPECT_EQ(parsed({"update", "--no"}).answer, Answer::No);
}

TEST(CommandLine, ServerMustBeHttpsHostAndPort)
{
    EXPECT_EQ(error({"update", "--server", "http://plain.example"}), "--server takes https://host[:port]");
    EXPECT_EQ(error({"update", "--server", "https://host.example/api.php"}), "--server takes https://host[:port]");
    EXPECT_EQ(parsed({"update", "--server", "https://update.example"}).serverURL, "https://update.example");
}

TEST(CommandLine, FlashNeedsAFile)
{
    EXPECT_EQ(error({"flash"}), "flash needs a firmware FILE");
    const auto inv = parsed({"flash", "/tmp/fw.hex", "-p", "/dev/ttyUSB0"});
    EXPECT_EQ(inv.firmwareFile, "/tmp/fw.hex");
    EXPECT_EQ(inv.port, "/dev/ttyUSB0");
}

TEST(CommandLine, IpAssignmentsAreCheckedByKey)
{
    const auto inv = parsed({"ip", "ip=192.168.10.5", "dhcp=off", "dev1=192.168.10.60", "enable1=1"});
    ASSERT_EQ(inv.assignments.size(), 4U);
    EXPECT_EQ(inv.assignments[0], (std::pair<std::string, std::string>{"ip", "192.168.10.5"}));
    EXPECT_EQ(error({"ip", "mask=255.0.0.0"}), "unknown setting 'mask'");
    EXPECT_EQ(error({"ip", "dhcp=yes"}), "dhcp takes on or off");
    EXPECT_EQ(error({"ip", "enable2=on"}), "enable2 takes 0 or 1");
    EXPECT_EQ(error({"ip", "dev0=1.2.3.4"}), "unknown setting 'dev0'");
}

TEST(CommandLine, UnknownCommandsAndArgumentsAreUsageErrors)
{
    EXPECT_EQ(error({}), "a command is required");
    EXPECT_EQ(error({"frobnicate"}), "unknown command 'frobnicate'");
    EXPECT_EQ(error({"identify", "--yes"}), "unexpected argument '--yes'");
    EXPECT_EQ(error({"identify", "-p"}), "-p needs a port name or path");
    EXPECT_EQ(error({"log", "-p", "ttyACM0"}), "unexpected argument '-p'");
}

TEST(CommandLine, QuietIsTakenByEveryCommand)
{
    EXPECT_FALSE(parsed({"update"}).quiet);
    for (const char* command : {"ports", "identify", "update", "ip", "webconfig", "online-config", "monitor"}) {
        EXPECT_TRUE(parsed({command, "--quiet"}).quiet) << command;
        EXPECT_TRUE(parsed({command, "-q"}).quiet) << command;
    }
    EXPECT_TRUE(parsed({"flash", "firmware.hex", "-q"}).quiet);
}

TEST(CommandLine, JsonIsTakenByTheCommandsWithResults)
{
    for (const char* command : {"ports", "identify", "ip", "update"}) {
        EXPECT_TRUE(parsed({command, "--json"}).json) << command;
    }
    EXPECT_TRUE(parsed({"flash", "firmware.hex", "--json"}).json);
    EXPECT_FALSE(parsed({"identify"}).json);
    EXPECT_EQ(error({"webconfig", "--json"}), "unexpected argument '--json'");
    EXPECT_EQ(error({"ip", "--json", "dns=192.168.10.2"}),
              "ip --json prints the settings it reads; it takes neither --raw nor KEY=VALUE");
}

TEST(CommandLine, IpRawOnlyPrints)
{
    EXPECT_TRUE(parsed({"ip", "--raw"}).raw);
    EXPECT_FALSE(parsed({"ip"}).raw);
    EXPECT_EQ(error({"ip", "--raw", "ip=192.168.10.5"}), "--raw only prints the settings; it takes no KEY=VALUE");
    EXPECT_EQ(error({"identify", "--raw"}), "unexpected argument '--raw'");
}

TEST(CommandLine, HelpAndVersion)
{
    EXPECT_EQ(parsed({"--help"}).command, Command::Help);
    EXPECT_EQ(parsed({"update", "--help"}).command, Command::Help);
    EXPECT_EQ(parsed({"--version"}).command, Command::Version);
    // The update's build has an option of its own; --version after a command
    // is refused with the way to ask for a build, never taken as one.
    EXPECT_EQ(parsed({"update", "--build", "masternodelete"}).build, "masternodelete");
    EXPECT_EQ(error({"update", "--version", "masternodelete"}),
              "--version shows the program's version and comes alone; ask for a build with --build NAME");
    EXPECT_EQ(error({"update", "--build"}), "--build needs a build name");
}

TEST(CommandLine, HelpListsEveryCommandAndExitCode)
{
    const std::string help = helpText();
    for (const char* word :
         {"\n  ports ", "\n  identify [-p PORT | --all]", "\n  update [-p PORT | --all]", "\n  flash FILE",
          "\n  ip [-p PORT] KEY=VALUE", "\n  webconfig [-p PORT]", "\n  online-config [-p PORT]",
          "\n  monitor [-p PORT]", "\n  doctor ", "\n  log ", "\n  --all ", "\nExit codes:\n  0  success",
          "\n  1  failed", "\n  2  wrong arguments", "\n  3  no update needed", "\n  4  refused",
          "\n  5  the update server", "\n  6  a question was answered no", "\nExamples:\n"}) {
        EXPECT_NE(help.find(word), std::string::npos) << word;
    }
}

TEST(CommandLine, HelpFitsAnEightyColumnTerminal)
{
    std::istringstream lines(helpText());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80U) << line;
        EXPECT_EQ(line.find('\t'), std::string::npos) << line;
    }
}

TEST(CommandLine, HelpExamplesAreValidCommandLines)
{
    const std::string help = helpText();
    std::istringstream lines(help.substr(help.find("\nExamples:\n") + 11));
    int examples = 0;
    for (std::string line; std::getline(lines, line);) {
        // "printf ... | quendral-cli monitor": the part after the pipe.
        line = line.substr(line.find("quendral-cli ") + 13);
        line = line.substr(0, line.find(" >"));
        std::istringstream words(line);
        std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        const auto result = parseCommandLine(args);
        EXPECT_TRUE(std::holds_alternative<Invocation>(result)) << line;
        ++examples;
    }
    EXPECT_GE(examples, 5);
}

TEST(CommandLine, AllWorksOnEveryControllerOfIdentifyAndUpdateAndTakesNoPort)
{
    EXPECT_TRUE(parsed({"identify", "--all"}).all);
    const auto inv = parsed({"update", "--all", "--yes", "--json"});
    EXPECT_TRUE(inv.all);
    EXPECT_TRUE(inv.json);
    EXPECT_FALSE(parsed({"update", "--yes"}).all);
    EXPECT_EQ(error({"update", "--all", "-p", "ttyACM0"}), "--all works on every Controller; it takes no -p");
    EXPECT_EQ(error({"ip", "--all"}), "unexpected argument '--all'");
    EXPECT_EQ(error({"flash", "fw.hex", "--all"}), "unexpected argument '--all'");
}

TEST(SeveralControllers, TheExitCodeIsTheWorstOutcomeAFailureAboveAll)
{
    EXPECT_EQ(worstExitCode({}), kSuccess);
    EXPECT_EQ(worstExitCode({kSuccess, kSuccess}), kSuccess);
    EXPECT_EQ(worstExitCode({kSuccess, kNoUpdateNeeded}), kNoUpdateNeeded);
    EXPECT_EQ(worstExitCode({kNoUpdateNeeded, kDeclined, kSuccess}), kDeclined);
    EXPECT_EQ(worstExitCode({kRefused, kDeclined}), kRefused);
    EXPECT_EQ(worstExitCode({kRefused, kNoConnection, kNoUpdateNeeded}), kNoConnection);
    EXPECT_EQ(worstExitCode({kSuccess, kFailure, kNoConnection}), kFailure);
    EXPECT_EQ(worstExitCode({kFailure, kSuccess}), kFailure);
}

TEST(SeveralControllers, TheSummaryIsColumnsTwoSpacesApartTheLastLeftAsItIs)
{
    EXPECT_EQ(columns({{"PORT", "CID", "OUTCOME"}, {"ttyACM10", "-", "updated"}, {"ttyUSB0", "ABC", "upload-failed"}}),
              "PORT      CID  OUTCOME\n"
              "ttyACM10  -    updated\n"
              "ttyUSB0   ABC  upload-failed\n");
}
