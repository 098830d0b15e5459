// The upload driver's paths end to end: quendral-cli inside the device lab
// with boards the driver has to tell apart by their USB identities: the
// simulated AVR Controllers flashed by the real avrdude, a KorbatekDue that
// never comes back after the 1200-baud touch, an ATmega32U4 board that comes
// back as its boot loader, and identities the board table does not know or
// offers no update check for.
#include "lab_run.h"

#include "../support/update_road_texts.h"

#include <gtest/gtest.h>

using namespace quendral::test;

namespace {

std::string avrFirmware(const std::string& name)
{
    return std::string(QUENDRAL_AVR_FIRMWARE_DIR) + "/" + name + ".hex";
}

// The ATmega32U4's boot loader took the file: the status texts in this order,
// and the boot loader behind it, a fake (see sim/lab), was written to: what it
// proves is that avrdude wrote the file there and read it back unchanged.
void expectFlashedInto32U4BootLoader(const LabRun& run, const std::vector<std::string>& statusTexts)
{
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(inOrder(run.output, statusTexts)) << run.output;
    EXPECT_TRUE(run.says("quendral-lab: avrdude wrote ")) << run.output;
    EXPECT_FALSE(run.says("quendral-lab: avrdude wrote 0 bytes")) << run.output;
}

} // namespace

TEST(UploadPaths, KorbatekDueThatNeverComesBackCountsDownThirtySecondsAndTheServerHearsOfTheFailure)
{
    const LabRun run = runInLab({"--due-stays-away"}, cliUpdate({"--yes"}));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    // Sleeps of one second on a loaded machine may skip a number, never add one.
    EXPECT_TRUE(
        inOrder(run.output, {kGenerating, bootLoaderCountdown(30) + "\n", kNoBootLoader + "\n", kUploadError + "\n"}))
        << run.output;
    EXPECT_GE(run.outputCount("Waiting for device to go into programming mode.. ("), 25) << run.output;
    EXPECT_LE(run.outputCount("Waiting for device to go into programming mode.. ("), 30) << run.output;
    EXPECT_TRUE(run.says(bootLoaderCountdown(1) + "\n") || run.says(bootLoaderCountdown(2) + "\n")) << run.output;
    EXPECT_FALSE(run.says(bootLoaderCountdown(0))) << run.output;
    // bossac never ran.
    EXPECT_FALSE(run.says(kWriting)) << run.output;
    EXPECT_EQ(run.log.find("Bossac"), std::string::npos) << run.log;
    EXPECT_TRUE(
        inOrder(run.log, {"Uploading firmware /tmp/quendral-hexfile.hex", "Resetting device into programming mode..",
                          "Reporting upload status false", "] Error: Upload failed\n"}))
        << run.log;
    ASSERT_FALSE(run.requests.empty());
    EXPECT_EQ(run.requests.back()["cmd"], "ticket_status");
    EXPECT_EQ(run.requests.back()["success"], false);
}

TEST(UploadPaths, FileForABoardOfUnknownIdentityIsNotFlashed)
{
    const LabRun run = runInLab({"--controller", "1234:5678"}, cliFlash(avrFirmware("identity_b_2560")));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(run.says("Error: Unable to identify device\n")) << run.output;
    EXPECT_TRUE(run.logged("Uploading firmware " + avrFirmware("identity_b_2560"))) << run.log;
    EXPECT_EQ(run.log.find("Avrdude"), std::string::npos) << run.log;
    EXPECT_EQ(run.log.find("Bossac"), std::string::npos) << run.log;
    EXPECT_EQ(run.log.find("Resetting device"), std::string::npos) << run.log;
    EXPECT_TRUE(run.says("the board saw 0 1200-baud touches")) << run.output;
}

TEST(UploadPaths, UpdateCheckOnABoardOfUnknownIdentityIsNotSupported)
{
    const LabRun run = runInLab({"--controller", "1234:5678"}, cliUpdate({"--yes"}));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(run.says("Check for updates is not supported for this device type.\n")) << run.output;
    EXPECT_TRUE(inOrder(run.log, {"] Checking for update\n", "] Detected unsupported device\n"})) << run.log;
    EXPECT_TRUE(run.requests.empty());
}

TEST(UploadPaths, UpdateCheckOnAnAvrControllerIsNotSupportedAndLeavesItAlone)
{
    const LabRun run = runInLab({"--controller", "mega2560"}, cliUpdate({"--yes"}));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(run.says("Check for updates is not supported for this device type.\n")) << run.output;
    EXPECT_TRUE(run.logged("Detected unsupported device")) << run.log;
    EXPECT_EQ(run.log.find("Detected KorbatekDue"), std::string::npos);
    EXPECT_TRUE(run.requests.empty());
    // The port was never opened (that would have reset the board) and its program still answers.
    EXPECT_TRUE(run.says("the AVR board was reset 0 times")) << run.output;
    EXPECT_TRUE(run.says("program answers CID:A2560AAAAAAAAAAAAAAAAAAAAAAAAAAA VERSION:2560-A.1")) << run.output;
}

TEST(UploadPaths, Mega2560IsFlashedFromAFileByAvrdudeAndRunsTheNewProgram)
{
    const LabRun run = runInLab({"--controller", "mega2560"}, cliFlash(avrFirmware("identity_b_2560")));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.says("Firmware successfully updated!\n")) << run.output;
    // Flashed at once on the selected port: no touch, no wait for another identity.
    EXPECT_FALSE(run.says("Waiting for device to go into programming mode..")) << run.output;
    EXPECT_TRUE(inOrder(run.log, {"Uploading firmware " + avrFirmware("identity_b_2560"), "Avrdude initiated",
                                  "Identified Arduino Mega 2560 device type.", "Avrdude terminated successfully"}))
        << run.log;
    EXPECT_EQ(run.log.find("Resetting device into programming mode.."), std::string::npos) << run.log;
    EXPECT_TRUE(run.says("program answers CID:B2560BBBBBBBBBBBBBBBBBBBBBBBBBBB VERSION:2560-B.2")) << run.output;
}

TEST(UploadPaths, Mega1284PBehindItsFtdiAdapterIsFlashedFromAFileByAvrdudeAndRunsTheNewProgram)
{
    const std::string file = avrFirmware("identity_b_1284p");
    const LabRun run = runInLab({"--controller", "mega1284p"}, cliFlash(file));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.says("Firmware successfully updated!\n")) << run.output;
    EXPECT_FALSE(run.says("Waiting for device to go into programming mode..")) << run.output;
    EXPECT_TRUE(inOrder(run.log, {"Uploading firmware " + file, "Avrdude initiated", "Identified KORBATEK device type.",
                                  "Avrdude terminated successfully"}))
        << run.log;
    EXPECT_TRUE(run.says("program answers CID:B1284PBBBBBBBBBBBBBBBBBBBBBBBBBB VERSION:1284P-B.2")) << run.output;
}

TEST(UploadPaths, Atmega32U4IsTouchedAndFlashedByAvrdudeOnceItComesBackAsItsBootLoader)
{
    const std::string file = avrFirmware("identity_b_2560");
    const LabRun run = runInLab({"--controller", "atmega32u4"}, cliFlash(file));
    expectFlashedInto32U4BootLoader(run,
                                    {"Waiting for device to go into programming mode.. (30)", "Writing firmware...",
                                     "Verifying firmware...", "Firmware successfully updated!\n"});
    // avrdude ran for the boot loader's identity (2341:0037), not the running board's (2341:8037).
    EXPECT_TRUE(
        inOrder(run.log, {"Uploading firmware " + file, "Resetting device into programming mode..", "Avrdude initiated",
                          "Identified Arduino Micro device type.", "Avrdude terminated successfully"}))
        << run.log;
    EXPECT_TRUE(run.says("the board saw 1 1200-baud touches")) << run.output;
}

TEST(UploadPaths, Atmega32U4AlreadyInItsBootLoaderIsFlashedOnTheFirstLookWithoutATouch)
{
    const std::string file = avrFirmware("identity_b_2560");
    const LabRun run = runInLab({"--controller", "atmega32u4-boot-loader"}, cliFlash(file));
    expectFlashedInto32U4BootLoader(run, {"Waiting for device to go into programming mode.. (30)",
                                          "Writing firmware...", "Firmware successfully updated!\n"});
    // Found at once: no second pass of the wait.
    EXPECT_FALSE(run.says("Waiting for device to go into programming mode.. (29)")) << run.output;
    EXPECT_EQ(run.log.find("Resetting device into programming mode.."), std::string::npos) << run.log;
    EXPECT_TRUE(inOrder(run.log, {"Uploading firmware " + file, "Identified Arduino Micro device type.",
                                  "Avrdude terminated successfully"}))
        << run.log;
}

TEST(UploadPaths, Atmega32U4OfTheSecondVendorIsNotTouchedAndIsGivenUpWhenItDoesNotEnterItsBootLoaderByItself)
{
    const std::string file = avrFirmware("identity_b_2560");
    const LabRun run = runInLab({"--controller", "2A03:8037"}, cliFlash(file));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    // Only the first vendor's running board is reset; this one is left alone
    // and waited for all the same.
    EXPECT_EQ(run.log.find("Resetting device into programming mode.."), std::string::npos) << run.log;
    EXPECT_TRUE(run.says("the board saw 0 1200-baud touches")) << run.output;
    EXPECT_TRUE(inOrder(run.output, {"Waiting for device to go into programming mode.. (30)",
                                     "Unable to reset device into programming mode!\n"}))
        << run.output;
    EXPECT_GE(run.outputCount("Waiting for device to go into programming mode.. ("), 25) << run.output;
    EXPECT_EQ(run.log.find("Avrdude"), std::string::npos) << run.log;
    EXPECT_FALSE(run.says("Firmware successfully updated!")) << run.output;
}
