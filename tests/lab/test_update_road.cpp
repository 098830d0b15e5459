// quendral-cli updating a simulated KorbatekDue inside the device lab: the
// real bossac, the local HTTPS update server, a umockdev USB world.
#include "../support/temp_dir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <vector>

using quendral::test::TempDir;

namespace {

struct LabRun {
    int exitCode = -1;
    std::string output;
};

std::string quoted(const std::string& word)
{
    return "'" + word + "'";
}

// quendral-lab [labArguments] -- quendral-cli update [cliArguments]
LabRun runUpdate(const std::vector<std::string>& labArguments, const std::vector<std::string>& cliArguments)
{
    std::string command = quoted(std::getenv("QUENDRAL_LAB"));
    for (const auto& argument : labArguments) {
        command += " " + quoted(argument);
    }
    command += " -- " + quoted(std::getenv("QUENDRAL_CLI")) +
               " update --server '{server}' --ca-file '{ca}' --resources '{resources}'";
    for (const auto& argument : cliArguments) {
        command += " " + quoted(argument);
    }
    command += " 2>&1";
    LabRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    std::array<char, 4096> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
        run.output += buffer.data();
    }
    const int status = ::pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

std::vector<nlohmann::json> recordedBodies(const std::filesystem::path& file)
{
    std::vector<nlohmann::json> bodies;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const auto record = nlohmann::json::parse(line, nullptr, false);
        if (record.is_object() && record.contains("json")) {
            bodies.push_back(record["json"]);
        }
    }
    return bodies;
}

// True when the lines appear in this order (others may stand between).
bool inOrder(const std::string& output, const std::vector<std::string>& lines)
{
    std::size_t at = 0;
    for (const auto& line : lines) {
        at = output.find(line, at);
        if (at == std::string::npos) {
            return false;
        }
        at += line.size();
    }
    return true;
}

} // namespace

TEST(UpdateRoad, ControllerOnOldFirmwareIsUpdatedAndTheServerHearsOfTheSuccess)
{
    TempDir dir;
    const auto record = dir.path() / "requests.jsonl";
    const LabRun run = runUpdate({"--server-arg", "--record", "--server-arg", record.string()}, {"--yes"});
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(inOrder(run.output, {"Waiting for device to boot.. (20)",
                                     "Firmware upgrade file is being generated on the server. Please wait..",
                                     "Waiting for device to go into programming mode.. (30)", "Preparing upload...",
                                     "Writing firmware...", "Verifying firmware...", "Firmware successfully updated!",
                                     "now runs version 2.0.0"}))
        << run.output;

    const auto bodies = recordedBodies(record);
    ASSERT_GE(bodies.size(), 3U);
    EXPECT_EQ(bodies.front()["cmd"], "check_update");
    EXPECT_EQ(bodies.front()["currentVersion"], "1.0.0");
    EXPECT_EQ(bodies.front()["platform"], "due");
    EXPECT_GE(std::count_if(bodies.begin(), bodies.end(), [](const auto& b) { return b["cmd"] == "ticket"; }), 2);
    EXPECT_EQ(bodies.back()["cmd"], "ticket_status");
    EXPECT_EQ(bodies.back()["success"], true);
}

TEST(UpdateRoad, ControllerWithTheNewestFirmwareIsToldSoAndNothingIsFlashed)
{
    const LabRun run = runUpdate({"--server-arg", "--refuse", "--server-arg", "no_update"}, {"--yes"});
    EXPECT_EQ(run.exitCode, 3) << run.output;
    EXPECT_NE(run.output.find("The connected controller already has the newest software version installed."),
              std::string::npos)
        << run.output;
    EXPECT_EQ(run.output.find("Writing firmware..."), std::string::npos);
    EXPECT_NE(run.output.find("identifies it as QUENDRALLAB000000000000000000001 version 1.0.0"), std::string::npos);
}

TEST(UpdateRoad, BoardInItsBootLoaderIsNotAskedAndTheUserDeclines)
{
    const LabRun run = runUpdate({"--blank"}, {"--no"});
    EXPECT_EQ(run.exitCode, 6) << run.output;
    EXPECT_EQ(run.output.find("Waiting for device to boot.."), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("An intermediate software version will be uploaded to your controller"),
              std::string::npos);
}

TEST(UpdateRoad, BoardInItsBootLoaderGetsTheIntermediateFirmwareThenTheUpdate)
{
    const LabRun run = runUpdate({"--blank"}, {"--yes"});
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(inOrder(run.output, {"An intermediate software version will be uploaded", "Writing firmware...",
                                     "Firmware successfully updated!", "Waiting for device to boot..",
                                     "Firmware upgrade file is being generated on the server. Please wait..",
                                     "Firmware successfully updated!", "now runs version 2.0.0"}))
        << run.output;
}
