// The ways an update ends other than with new firmware, end to end:
// quendral-cli inside the device lab with the simulated KorbatekDue, the
// real bossac and the local HTTPS update server told to refuse, to serve a
// file whose digest does not match, to fail while the file is built, or with
// a board whose flash is broken.
#include "lab_run.h"

#include <gtest/gtest.h>

using namespace quendral::test;

namespace {

const std::string kCid = "QUENDRALLAB000000000000000000001";
const std::string kOldFirmware = "identifies it as " + kCid + " version 1.0.0";

LabRun updateWith(const std::vector<std::string>& serverArguments, std::vector<std::string> lab = {})
{
    for (const auto& argument : serverArguments) {
        lab.insert(lab.end(), {"--server-arg", argument});
    }
    return runInLab(lab, cliUpdate({"--yes"}));
}

// A refusal: the update ends with `exitCode` after the one check_update, no
// ticket, nothing flashed.
LabRun refusedWith(const std::vector<std::string>& serverArguments, int exitCode)
{
    LabRun run = updateWith(serverArguments);
    EXPECT_EQ(run.exitCode, exitCode) << run.output;
    EXPECT_EQ(run.count("check_update"), 1) << run.output;
    EXPECT_EQ(run.count("ticket"), 0);
    EXPECT_EQ(run.count("ticket_status"), 0);
    EXPECT_FALSE(run.says("Writing firmware...")) << run.output;
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
    EXPECT_TRUE(
        run.logged("Requesting update for CID " + kCid + " with current version 1.0.0 andself-> new version (null)"))
        << run.log;
    return run;
}

// The server failed while building: the user is sent to the support website
// after `tickets` polls, and nothing was fetched.
void expectServerError(const LabRun& run, int tickets)
{
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(run.says("A server error occured. Please go to the support website\n"
                         "  support website: " QUENDRAL_TEST_SUPPORT_URL "\n"))
        << run.output;
    EXPECT_TRUE(run.logged("ERROR, firmware generation failed server-side")) << run.log;
    EXPECT_EQ(run.count("ticket"), tickets) << run.output;
    EXPECT_EQ(run.count("ticket_status"), 0);
}

} // namespace

TEST(UpdatePaths, UnregisteredControllerIsToldToContactSupportWithItsIdentifier)
{
    const LabRun run = refusedWith({"--refuse", "not_authorized"}, 4);
    EXPECT_TRUE(run.says("The connected controller is not fully registered yet. Please contact QUENDRAL Support and "
                         "include the serial number of the unit, attaching the controller identification code:\n\n " +
                         kCid + "\n"))
        << run.output;
    EXPECT_TRUE(run.logged("ERROR, controller not registered")) << run.log;
}

TEST(UpdatePaths, ControllerThatHasTheNewestFirmwareIsToldSoWithoutAnErrorInTheLog)
{
    const LabRun run = refusedWith({"--refuse", "no_update"}, 3);
    EXPECT_TRUE(run.says("The connected controller already has the newest software version installed.\n"))
        << run.output;
    EXPECT_EQ(run.log.find("ERROR"), std::string::npos) << run.log;
    EXPECT_EQ(run.log.find("Custom message"), std::string::npos) << run.log;
}

TEST(UpdatePaths, ServerWithoutItsOwnConnectionAsksTheUserToCheckTheInternetConnection)
{
    const LabRun run = refusedWith({"--refuse", "connection"}, 5);
    EXPECT_TRUE(run.says("Could not connect to the update server. Please check your internet connection.\n"))
        << run.output;
    EXPECT_TRUE(run.logged("ERROR, no internet connection")) << run.log;
}

TEST(UpdatePaths, MakersMessageIsShownAsItCameAndLogged)
{
    const std::string message = "Updates are paused until Monday. Your QUENDRAL team";
    const LabRun run = refusedWith({"--refuse", "message", "--message", message}, 4);
    EXPECT_TRUE(run.says("\n" + message + "\n")) << run.output;
    EXPECT_TRUE(run.logged("Custom message: " + message)) << run.log;
}

TEST(UpdatePaths, RefusalWithAnUnknownDescriptionEndsWithoutAlertOrLogLine)
{
    const LabRun run = refusedWith({"--refuse", "maintenance"}, 4);
    for (const char* alert :
         {"not fully registered", "newest software version", "Could not connect", "Please contact QUENDRAL support."}) {
        EXPECT_FALSE(run.says(alert)) << alert << "\n" << run.output;
    }
    EXPECT_EQ(run.log.find("ERROR"), std::string::npos) << run.log;
    EXPECT_EQ(run.log.find("Custom message"), std::string::npos) << run.log;
}

TEST(UpdatePaths, FirmwareWhoseDigestNeverMatchesIsFetchedSixTimesThenGivenUp)
{
    const LabRun run = updateWith({"--hash", "corrupt", "--polls", "0"});
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_EQ(run.count("ticket"), 6) << run.output;
    EXPECT_EQ(run.count("ticket_status"), 0);
    EXPECT_TRUE(run.says("Checksum did not match on received data. Please contact support.\n")) << run.output;
    std::size_t mismatches = 0;
    for (auto at = run.log.find("] Checksum mismatch, got "); at != std::string::npos;
         at = run.log.find("] Checksum mismatch, got ", at + 1)) {
        ++mismatches;
    }
    EXPECT_EQ(mismatches, 6U) << run.log;
    EXPECT_TRUE(inOrder(run.log, {"Firmware being generated on server..", "Checksum mismatch, got ",
                                  "Failed checksum, aborting update"}))
        << run.log;
    EXPECT_EQ(run.log.find("Received firmware!"), std::string::npos);
    EXPECT_FALSE(run.says("Waiting for device to go into programming mode..")) << run.output;
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
}

TEST(UpdatePaths, UpperCaseDigestNeverMatchesEither)
{
    const LabRun run = updateWith({"--hash", "upper", "--polls", "0"});
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_EQ(run.count("ticket"), 6) << run.output;
    EXPECT_TRUE(run.logged("Failed checksum, aborting update")) << run.log;
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
}

TEST(UpdatePaths, FailedGenerationOnTheServerShowsTheServerErrorWithTheSupportLink)
{
    const LabRun run = updateWith({"--generation", "fail", "--polls", "1"});
    // One poll answered "still building" ("internal"), the next one the failure.
    expectServerError(run, 2);
    // The terminal prints the status line, then the linked words and where they lead.
    EXPECT_TRUE(run.says("\nA server error occured. Please go to the support website\n"
                         "  support website: " QUENDRAL_TEST_SUPPORT_URL "\n"))
        << run.output;
    EXPECT_NE(std::string(QUENDRAL_TEST_SUPPORT_URL).find("?id=170"), std::string::npos);
    EXPECT_EQ(std::string(QUENDRAL_TEST_SUPPORT_URL).rfind("http://", 0), 0U);
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
}

TEST(UpdatePaths, LostConnectionWhilePollingShowsTheServerErrorToo)
{
    const LabRun run = updateWith({"--fault", "drop", "--fault-commands", "ticket"});
    expectServerError(run, 1);
}

TEST(UpdatePaths, FlashThatDoesNotKeepWhatIsWrittenIsReportedAsAFailureToServerAndUser)
{
    const LabRun run = updateWith({}, {"--due-broken-flash"});
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_TRUE(inOrder(run.output, {"Firmware upgrade file is being generated on the server. Please wait..",
                                     "Waiting for device to go into programming mode.. (30)", "Writing firmware...",
                                     "Verifying firmware...", "An error occured during firmware upload.\n"}))
        << run.output;
    EXPECT_FALSE(run.says("Firmware successfully updated!")) << run.output;
    EXPECT_TRUE(inOrder(run.log, {"Received firmware!", "Uploading firmware /tmp/quendral-hexfile.hex", "Verify failed",
                                  "Reporting upload status false", "] Error: Upload failed\n"}))
        << run.log;
    ASSERT_FALSE(run.requests.empty());
    EXPECT_EQ(run.requests.back()["cmd"], "ticket_status");
    EXPECT_EQ(run.requests.back()["success"], false);
    EXPECT_EQ(run.requests.back()["CID"], kCid);
    EXPECT_EQ(run.count("ticket_status"), 1);
}

TEST(UpdatePaths, FirmwareTextWithLineBreaksCannotBeDecodedAndCountsAsAMismatch)
{
    const LabRun run = updateWith({"--base64", "line_breaks", "--polls", "0"});
    EXPECT_EQ(run.exitCode, 1) << run.output;
    EXPECT_EQ(run.count("ticket"), 6) << run.output;
    // The digest of no data at all.
    EXPECT_TRUE(run.log.find(" expected: d41d8cd98f00b204e9800998ecf8427e\n") != std::string::npos) << run.log;
    EXPECT_TRUE(run.says("Checksum did not match on received data. Please contact support.\n")) << run.output;
    EXPECT_TRUE(run.says(kOldFirmware)) << run.output;
}

namespace quendral::test {

// A script's update: the build asked for reaches the server, the result is one
// JSON object on its own line, and the progress that went into the pipe is a
// line at each tenth of each bar, not one per chunk the tool reports.
TEST(UpdatePaths, AScriptsUpdateAsksForItsBuildAndReadsOneJsonResult)
{
    const LabRun run = runInLab({}, cliUpdate({"--yes", "--json", "--build", "master"}));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    ASSERT_GE(run.count("check_update"), 1) << run.output;
    EXPECT_EQ(run.requests.front().value("version", ""), "master");

    std::optional<nlohmann::json> result;
    std::istringstream lines(run.output);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.front() == '{') {
            ASSERT_FALSE(result) << "more than one result line:\n" << run.output;
            result = nlohmann::json::parse(line);
        }
    }
    ASSERT_TRUE(result) << run.output;
    EXPECT_EQ((*result)["outcome"], "updated");
    EXPECT_EQ((*result)["cid"], kCid);
    EXPECT_EQ((*result)["previousVersion"], "1.0.0");
    EXPECT_EQ((*result)["version"], "2.0.0");
    EXPECT_TRUE((*result)["error"].is_null());
    EXPECT_GT(run.outputCount("Progress: "), 0) << run.output;
    EXPECT_LE(run.outputCount("Progress: "), 30) << run.output;
}

} // namespace quendral::test
