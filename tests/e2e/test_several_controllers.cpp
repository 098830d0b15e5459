// Several Controllers in one device lab, updated by one `quendral-cli update
// --all`: two KorbatekDue (CIDs of their own, each given its own firmware by
// the local server) and an ATmega2560, whose type has no update check. Each
// board is worked on alone; one of them failing never reaches another.
#include "lab_run.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

using namespace quendral::test;

namespace {

const std::string kFirstCid = "QUENDRALLAB000000000000000000001";
const std::string kSecondCid = "QUENDRALLAB000000000000000000002";
const std::string kNotSupported = "Check for updates is not supported for this device type.";

// The lines of the merged output that are JSON objects, by the CID they name
// (the board table's boards that have none by their port).
std::map<std::string, nlohmann::json> resultsOf(const LabRun& run)
{
    std::map<std::string, nlohmann::json> results;
    std::istringstream lines(run.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("{")) {
            const auto object = nlohmann::json::parse(line);
            results[object["cid"].is_string() ? object["cid"].get<std::string>() : object["port"].get<std::string>()] =
                object;
        }
    }
    return results;
}

// The CIDs the server was asked to update, and how each reported back.
std::map<std::string, std::vector<nlohmann::json>> requestsByCid(const LabRun& run)
{
    std::map<std::string, std::vector<nlohmann::json>> byCid;
    for (const auto& body : run.requests) {
        byCid[body.value("CID", "")].push_back(body);
    }
    return byCid;
}

} // namespace

TEST(SeveralControllers, UpdateAllUpdatesEachBoardAndABoardThatFailsLeavesTheOthersAlone)
{
    // The second KorbatekDue has a flash byte that never keeps what is written:
    // bossac's verification fails on it, on purpose.
    const LabRun run = runInLab({"--controller", "due", "--controller", "due,broken-flash", "--controller", "mega2560"},
                                cliUpdate({"--all", "--yes", "--json"}));
    EXPECT_EQ(run.exitCode, 1) << run.output; // the worst outcome: a failure

    const auto results = resultsOf(run);
    ASSERT_EQ(results.size(), 3U) << run.output;
    const auto& first = results.at(kFirstCid);
    EXPECT_EQ(first["outcome"], "updated") << first;
    EXPECT_EQ(first["previousVersion"], "1.0.0");
    EXPECT_EQ(first["version"], "2.0.0");
    EXPECT_TRUE(first["error"].is_null());
    const auto& second = results.at(kSecondCid);
    EXPECT_EQ(second["outcome"], "upload-failed") << second;
    EXPECT_EQ(second["previousVersion"], "1.0.0");
    EXPECT_TRUE(second["version"].is_null());
    const auto& mega = results.at("ttyACM2");
    EXPECT_EQ(mega["outcome"], "unsupported-device") << mega;
    EXPECT_EQ(mega["error"], kNotSupported);

    // What the boards hold now: the first its own new firmware, the second
    // not the first's; the ATmega2560 was never even opened.
    EXPECT_TRUE(run.says("board 1 (due): the Controller's flash now identifies it as " + kFirstCid + " version 2.0.0"))
        << run.output;
    EXPECT_FALSE(run.says("board 2 (due): the Controller's flash now identifies it as " + kFirstCid)) << run.output;
    EXPECT_TRUE(run.says("board 3 (mega2560): the AVR board was reset 0 times")) << run.output;
    EXPECT_TRUE(run.says("board 3 (mega2560): the AVR board's program answers CID:A2560AAAAAAAAAAAAAAAAAAAAAAAAAAA"))
        << run.output;

    // Each board asked for its own firmware and reported its own result.
    const auto byCid = requestsByCid(run);
    for (const auto& cid : {kFirstCid, kSecondCid}) {
        ASSERT_TRUE(byCid.contains(cid)) << run.output;
        EXPECT_EQ(byCid.at(cid).front().value("cmd", ""), "check_update") << cid;
    }
    for (const auto& [cid, success] : {std::pair{kFirstCid, true}, std::pair{kSecondCid, false}}) {
        const auto& last = byCid.at(cid).back();
        EXPECT_EQ(last.value("cmd", ""), "ticket_status") << last;
        EXPECT_EQ(last.value("success", !success), success) << last;
    }
    // One flash at a time: the second to reach the firmware file waited for the first.
    EXPECT_TRUE(run.logged("Another firmware update on this computer is flashing; waiting for it to finish"))
        << run.log;
}

TEST(SeveralControllers, UpdateAllPrintsASummaryAndSucceedsWhenEveryBoardThatCanBeUpdatedIs)
{
    const LabRun run = runInLab({"--controller", "due", "--controller", "due", "--controller", "mega2560"},
                                cliUpdate({"--all", "--yes"}));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.says("PORT     CID                               VERSION         OUTCOME\n"
                         "ttyACM0  " +
                         kFirstCid +
                         "  1.0.0 -> 2.0.0  updated\n"
                         "ttyACM1  " +
                         kSecondCid +
                         "  1.0.0 -> 2.0.0  updated\n"
                         "ttyACM2  -                                 -               unsupported-device: " +
                         kNotSupported + "\n"))
        << run.output;
    EXPECT_TRUE(run.says("board 1 (due): the Controller's flash now identifies it as " + kFirstCid + " version 2.0.0"))
        << run.output;
    EXPECT_TRUE(run.says("board 2 (due): the Controller's flash now identifies it as " + kSecondCid + " version 2.0.0"))
        << run.output;
    // Each board's texts carry its port.
    EXPECT_TRUE(run.says("ttyACM0: Firmware successfully updated!\n")) << run.output;
    EXPECT_TRUE(run.says("ttyACM1: Firmware successfully updated!\n")) << run.output;
    EXPECT_TRUE(run.says("ttyACM2: " + kNotSupported + "\n")) << run.output;
}
