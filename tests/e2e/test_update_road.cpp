// quendral-cli updating a simulated KorbatekDue inside the device lab: the
// real bossac, the local HTTPS update server, a umockdev USB world.
#include "lab_run.h"

#include "../support/update_road_texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

using namespace quendral::test;

TEST(UpdateRoad, ControllerOnOldFirmwareIsUpdatedAndTheServerHearsOfTheSuccess)
{
    const LabRun run = runInLab({}, cliUpdate({"--yes"}));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(inOrder(run.output, {bootCountdown(20), kGenerating, bootLoaderCountdown(30), kPreparing, kWriting,
                                     kVerifying, kSuccess, "now runs version 2.0.0"}))
        << run.output;

    const auto& bodies = run.requests;
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
    const LabRun run = runInLab({"--server-arg", "--refuse", "--server-arg", "no_update"}, cliUpdate({"--yes"}));
    EXPECT_EQ(run.exitCode, 3) << run.output;
    EXPECT_NE(run.output.find("The connected controller already has the newest software version installed."),
              std::string::npos)
        << run.output;
    EXPECT_EQ(run.output.find("Writing firmware..."), std::string::npos);
    EXPECT_NE(run.output.find("identifies it as QUENDRALLAB000000000000000000001 version 1.0.0"), std::string::npos);
}

TEST(UpdateRoad, BoardInItsBootLoaderIsNotAskedAndTheUserDeclines)
{
    const LabRun run = runInLab({"--blank"}, cliUpdate({"--no"}));
    EXPECT_EQ(run.exitCode, 6) << run.output;
    EXPECT_EQ(run.output.find("Waiting for device to boot.."), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("An intermediate software version will be uploaded to your controller"),
              std::string::npos);
}

TEST(UpdateRoad, BoardInItsBootLoaderGetsTheIntermediateFirmwareThenTheUpdate)
{
    const LabRun run = runInLab({"--blank"}, cliUpdate({"--yes"}));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(inOrder(run.output, {"An intermediate software version will be uploaded", "Writing firmware...",
                                     "Firmware successfully updated!", "Waiting for device to boot..",
                                     "Firmware upgrade file is being generated on the server. Please wait..",
                                     "Firmware successfully updated!", "now runs version 2.0.0"}))
        << run.output;
}
