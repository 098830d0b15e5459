// What protects the Controller, end to end: quendral-cli inside the device
// lab with the simulated KorbatekDue, the real bossac and the local HTTPS
// update server. In each case the board must keep a working program (or be
// flashed properly), and the program must say what really happened.
#include "lab_run.h"

#include "controller/firmware_file.h"
#include "platform/computer_wide_lock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <thread>

using namespace quendral;
using namespace quendral::test;
using namespace std::chrono_literals;

namespace {

const std::string kCid = "QUENDRALLAB000000000000000000001";
const std::string kOldFirmware = "identifies it as " + kCid + " version 1.0.0";
const std::string kNewFirmware = "identifies it as " + kCid + " version 2.0.0";
const std::string kChecksumText = "Checksum did not match on received data. Please contact support.";

LabRun updateWith(const std::vector<std::string>& serverArguments, std::vector<std::string> lab = {})
{
    for (const auto& argument : serverArguments) {
        lab.insert(lab.end(), {"--server-arg", argument});
    }
    return runInLab(lab, cliUpdate({"--yes"}));
}

// The tool never ran: nothing was erased.
void expectNoToolRan(const LabRun& run)
{
    EXPECT_FALSE(run.says("Preparing upload...")) << run.output;
    EXPECT_FALSE(run.says("Writing firmware...")) << run.output;
    EXPECT_FALSE(run.says("Erase flash")) << run.output;
}

// A downloaded file that passes the digest but not the image check is
// fetched six times, like a damaged one, and never reaches the board.
void expectRefusedSixTimes(const LabRun& run, const std::string& problem)
{
    EXPECT_NE(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.says(kChecksumText)) << run.output;
    expectNoToolRan(run);
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
    long refusals = 0;
    for (auto at = run.log.find("] Received firmware fails its check: " + problem + "\n"); at != std::string::npos;
         at = run.log.find("] Received firmware fails its check: " + problem + "\n", at + 1)) {
        ++refusals;
    }
    EXPECT_EQ(refusals, 6) << run.log;
    EXPECT_FALSE(run.logged("Received firmware!")) << run.log;
    EXPECT_TRUE(run.logged("Failed checksum, aborting update")) << run.log;
    EXPECT_EQ(run.count("ticket_status"), 0);
}

std::string lastLine(const std::string& output, const std::string& startingWith)
{
    std::string last;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("quendral-lab:", 0) != 0) {
            last = line;
        }
    }
    return last.rfind(startingWith, 0) == 0 ? last : "last line of the program: " + last;
}

// Something planted at the downloaded file's path, removed again at the end.
class PlantedAtFirmwarePath {
public:
    PlantedAtFirmwarePath() { _planted = std::filesystem::create_directory(firmware::kDownloadedFirmwarePath); }
    ~PlantedAtFirmwarePath()
    {
        std::error_code ignored;
        std::filesystem::remove(firmware::kDownloadedFirmwarePath, ignored);
    }
    PlantedAtFirmwarePath(const PlantedAtFirmwarePath&) = delete;
    PlantedAtFirmwarePath& operator=(const PlantedAtFirmwarePath&) = delete;
    [[nodiscard]] bool planted() const { return _planted; }

private:
    bool _planted = false;
};

// quendral-cli run as the user "nobody": not in the group of the Controller's port.
std::vector<std::string> asUnprivilegedUser(const TempDir& home, std::vector<std::string> program)
{
    std::vector<std::string> words{"setpriv",
                                   "--reuid=nobody",
                                   "--regid=nogroup",
                                   "--clear-groups",
                                   "--",
                                   "env",
                                   "XDG_DATA_HOME=" + home.path().string()};
    words.insert(words.end(), program.begin(), program.end());
    return words;
}

} // namespace

TEST(UpdateSafety, AnEmptyImageWithTheDigestOfNothingIsNeverFlashed)
{
    TempDir dir;
    const auto empty = dir.path() / "empty.hex";
    std::ofstream(empty).close();
    const LabRun run = updateWith({}, {"--server-firmware", empty.string()});
    expectRefusedSixTimes(run, "the file is empty");
}

TEST(UpdateSafety, AnUndecodableImageWithTheDigestOfNothingIsNeverFlashed)
{
    const LabRun run = updateWith({"--base64", "undecodable"});
    expectRefusedSixTimes(run, "the file is empty");
}

TEST(UpdateSafety, AnImageLargerThanTheChipsFlashIsNeverFlashed)
{
    TempDir dir;
    const auto huge = dir.path() / "huge.bin";
    std::ofstream(huge) << std::string(512U * 1024U + 1U, '\xFF');
    const LabRun run = updateWith({}, {"--server-firmware", huge.string()});
    expectRefusedSixTimes(run, "the image is 524289 bytes, larger than the chip's 512 KiB of flash");
}

TEST(UpdateSafety, WithoutAnIntermediateImageAControllerThatCannotIdentifyItselfIsNotEvenAsked)
{
    const LabRun run = runInLab({"--blank", "--no-intermediate"}, cliUpdate({"--yes"}));
    EXPECT_NE(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.says("The Controller did not identify itself. It needs the intermediate firmware first, but that "
                         "firmware is not available here ("))
        << run.output;
    EXPECT_TRUE(run.says("intermediate_due.hex does not exist). Nothing was sent to the Controller."));
    EXPECT_FALSE(run.says("An intermediate software version will be uploaded")) << run.output;
    expectNoToolRan(run);
    EXPECT_EQ(run.count("check_update"), 0);
    EXPECT_EQ(lastLine(run.output, "The Controller was not flashed"),
              "The Controller was not flashed: the intermediate firmware it needs is not available.");
}

TEST(UpdateSafety, AControllerThatIdentifiesItselfIsUpdatedWithoutAnIntermediateImage)
{
    const LabRun run = runInLab({"--no-intermediate"}, cliUpdate({"--yes"}));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.says(kNewFirmware)) << run.output;
}

TEST(UpdateSafety, AFileThatCannotBeWrittenIsReportedToTheServerButTheCommandLineSaysNothingWasFlashed)
{
    const PlantedAtFirmwarePath planted;
    ASSERT_TRUE(planted.planted()) << firmware::kDownloadedFirmwarePath << " existed before the test";
    const LabRun run = updateWith({});
    EXPECT_EQ(run.exitCode, 1) << run.output;
    expectNoToolRan(run);
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
    EXPECT_FALSE(run.says("now runs version")) << run.output;
    EXPECT_EQ(lastLine(run.output, "The Controller was not flashed"),
              "The Controller was not flashed: the downloaded firmware could not be written to its file (see the "
              "log).");
    EXPECT_TRUE(run.logged("ERROR, could not write /tmp/quendral-hexfile.hex: Is a directory")) << run.log;
    // The server still hears of a success, as it always has for this case.
    ASSERT_EQ(run.count("ticket_status"), 1);
    EXPECT_EQ(run.requests.back()["success"], true);
}

TEST(UpdateSafety, AnUpdateWaitsWhileAnotherOnThisComputerHoldsTheFirmwareFile)
{
    auto held = ComputerWideLock::tryAcquire(firmware::kDownloadedFirmwareLock);
    ASSERT_TRUE(held) << "another update on this machine holds the flash lock";
    auto release = std::async(std::launch::async, [&held] {
        std::this_thread::sleep_for(15s);
        held.reset();
    });
    const LabRun run = updateWith({});
    release.wait();
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(inOrder(run.output, {"Firmware upgrade file is being generated on the server. Please wait..",
                                     "Waiting for another firmware update on this computer to finish..",
                                     "Writing firmware...", "Controller " + kCid + " now runs version 2.0.0"}))
        << run.output;
    EXPECT_TRUE(run.says(kNewFirmware)) << run.output;
}

TEST(UpdateSafety, TwoUpdatesAtOnceOnOneComputerBothEndOnTheNewVersion)
{
    auto first = std::async(std::launch::async, [] { return updateWith({}); });
    auto second = std::async(std::launch::async, [] { return updateWith({}); });
    const LabRun one = first.get();
    const LabRun two = second.get();
    for (const LabRun* run : {&one, &two}) {
        EXPECT_EQ(run->exitCode, 0) << run->output << "--- log\n" << run->log;
        EXPECT_TRUE(run->says("Controller " + kCid + " now runs version 2.0.0")) << run->output;
        EXPECT_TRUE(run->says(kNewFirmware)) << run->output;
        EXPECT_FALSE(run->says("No such file or directory")) << run->output;
    }
}

TEST(UpdateSafety, AUserWithoutPermissionOnThePortIsToldAtOnceWithTheFix)
{
    ASSERT_NE(::getpwnam("nobody"), nullptr);
    TempDir home;
    std::filesystem::permissions(home.path(), std::filesystem::perms::all);
    const LabRun run = runInLab({"--open-to-other-users"}, asUnprivilegedUser(home, {cliPath(), "identify"}));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(run.says("Permission denied: this user may not open /dev/ttyACM0.")) << run.output;
    // The lab's port is root's alone (as a port no udev rule has handed to a group).
    EXPECT_TRUE(run.says("The port is root's alone. Install the udev rule 70-quendral-controllers.rules"))
        << run.output;
    EXPECT_TRUE(run.says("(sudo usermod -aG dialout $USER, then log out and back in)")) << run.output;
    EXPECT_EQ(run.outputCount("Permission denied:"), 1) << run.output;
    // No count-down: the wait ends at the first refusal.
    EXPECT_FALSE(run.says("Waiting for device to boot.. (19)")) << run.output;
    EXPECT_FALSE(run.says("did not identify itself")) << run.output;
}

// The doctor run by that user finds the same: the port, and how to get it.
TEST(UpdateSafety, TheDoctorRunByAUserWithoutPermissionNamesThePortAndTheFix)
{
    TempDir home;
    std::filesystem::permissions(home.path(), std::filesystem::perms::all);
    const LabRun run = runInLab({"--open-to-other-users"},
                                asUnprivilegedUser(home, {cliPath(), "doctor", "--resources", "{resources}"}));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(run.says("[problem] this user may not open /dev/ttyACM0\n  Fix: Permission denied: this user may "
                         "not open /dev/ttyACM0."))
        << run.output;
    EXPECT_TRUE(run.says("Install the udev rule 70-quendral-controllers.rules")) << run.output;
    EXPECT_TRUE(run.says("[ok] avrdude ")) << run.output;
}

TEST(UpdateSafety, AnUpdateByAUserWithoutPermissionOffersNoIntermediateFirmwareAndTouchesNothing)
{
    TempDir home;
    std::filesystem::permissions(home.path(), std::filesystem::perms::all);
    const LabRun run = runInLab({"--open-to-other-users"}, asUnprivilegedUser(home, cliUpdate({"--yes"})));
    EXPECT_NE(run.exitCode, 0) << run.output;
    EXPECT_EQ(run.outputCount("Permission denied: this user may not open /dev/ttyACM0."), 1) << run.output;
    EXPECT_FALSE(run.says("An intermediate software version will be uploaded")) << run.output;
    EXPECT_FALSE(run.says("Waiting for device to boot.. (19)")) << run.output;
    expectNoToolRan(run);
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
    EXPECT_EQ(lastLine(run.output, "The Controller was not flashed"),
              "The Controller was not flashed: this user may not open its port.");
}

TEST(UpdateSafety, AFirmwareFileCutShortIsRefusedBeforeTheBoardHearsOfAnUpdate)
{
    TempDir dir;
    std::ifstream whole(std::string(QUENDRAL_AVR_FIRMWARE_DIR) + "/identity_b_2560.hex");
    std::stringstream text;
    text << whole.rdbuf();
    const std::string hex = text.str();
    ASSERT_GT(hex.size(), 200U);
    const auto cut = dir.path() / "cut.hex";
    // Whole records, as a download that stopped between two lines leaves it.
    std::ofstream(cut) << hex.substr(0, hex.find('\n', hex.size() / 2) + 1);

    const LabRun run = runInLab({"--controller", "mega2560"}, cliFlash(cut.string()));
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(run.says("This firmware cannot be flashed onto the ATmega2560: cut.hex: the file has no end-of-file "
                         "record (it may have been cut short). Nothing was changed on the Controller."))
        << run.output;
    EXPECT_EQ(run.log.find("Avrdude initiated"), std::string::npos) << run.log;
    // The program in flash is the one the board started with.
    EXPECT_TRUE(run.says("program answers CID:A2560AAAAAAAAAAAAAAAAAAAAAAAAAAA VERSION:2560-A.1")) << run.output;
}

TEST(UpdateSafety, ABoardWaitingInItsBootLoaderIsNeverFlashedInPlaceOfTheBoardThatWasTouched)
{
    // Two ATmega32U4 boards: the second sits in its boot loader (as one whose
    // update failed does); the first runs its firmware and is the one named.
    // Touched, the first comes back as its boot loader on its own USB socket,
    // and that one alone may be written.
    const std::string file = std::string(QUENDRAL_AVR_FIRMWARE_DIR) + "/identity_b_2560.hex";
    const LabRun run = runInLab({"--controller", "atmega32u4", "--controller", "atmega32u4-boot-loader"},
                                {cliPath(), "flash", "--resources", "{resources}", "-p", "ttyACM0", file});
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.says("board 1 (atmega32u4): the board saw 1 1200-baud touches")) << run.output;
    EXPECT_TRUE(run.says("board 1 (atmega32u4): avrdude wrote ")) << run.output;
    EXPECT_FALSE(run.says("board 1 (atmega32u4): avrdude wrote 0 bytes")) << run.output;
    EXPECT_TRUE(run.says("board 2 (atmega32u4-boot-loader): avrdude wrote 0 bytes")) << run.output;
}
