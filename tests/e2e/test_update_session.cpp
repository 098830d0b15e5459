// Two update checks in one window session, against the same simulated
// KorbatekDue: the second must tell the server the version the Controller
// runs now, not a reply line left over from the first session on the port.
#include "road_world.h"
#include "road_world_environment.h"

#include "../support/scoped_log.h"

#include <gtest/gtest.h>

#include <set>

namespace quendral::test {
namespace {

constexpr auto kJobBound = 120s;

[[maybe_unused]] const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new RoadWorldEnvironment);

std::vector<std::string> reportedVersions(const std::vector<nlohmann::json>& bodies)
{
    std::vector<std::string> versions;
    for (const auto& body : bodies) {
        if (body.is_object() && body.value("cmd", "") == "check_update") {
            versions.push_back(body.value("currentVersion", "(none)"));
        }
    }
    return versions;
}

// The window on the lab's KorbatekDue, after one update that ended on the new firmware.
class UpdateSession : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim::UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
        ASSERT_TRUE(run.prepare()) << run.problem;
        run.openWindow();
        run.pressUpdate();
        ASSERT_TRUE(run.waitForEnd(kJobBound));
        ASSERT_EQ(run.outcome.load(), UpdateOutcome::Updated) << log.text();
    }

    ScopedLog log;
    LabResources resources;
    RoadRun run{{}, systemClock()};
};

} // namespace

TEST_F(UpdateSession, ASecondCheckInTheSameSessionSendsTheVersionTheControllerRunsNow)
{
    ASSERT_TRUE(RoadRun::waitForPortsClosed());
    // The owner presses again once the board runs its new firmware (after
    // bossac's reset it is in its boot loader for a moment).
    ASSERT_TRUE(dispatch::RunLoop::main().runUntil(
        [&] {
            const auto path = run.controller->pathOfSelectedPort();
            return path && run.controller->getPIDVID(*path) == combinedUsbIdentifier(0x2341, 0x003E);
        },
        30s));

    run.finished = false;
    run.pressUpdate();
    ASSERT_TRUE(run.waitForEnd(kJobBound));
    EXPECT_EQ(run.outcome.load(), UpdateOutcome::Updated) << log.text();

    EXPECT_EQ(reportedVersions(run.serverBodies()), (std::vector<std::string>{"1.0.0", "2.0.0"}));
    EXPECT_TRUE(log.contains("Requesting update for CID QUENDRALLAB000000000000000000001 with current version 2.0.0 "
                             "andself-> new version (null)"));
}

// One update asks the server several times within seconds: the query, the
// ticket polls and the report ride on one connection and one TLS handshake.
TEST_F(UpdateSession, TheRequestsOfOneUpdateShareOneConnection)
{
    const auto requests = run.server.recordedRequests();
    ASSERT_GE(requests.size(), 4U);
    EXPECT_EQ(requests.front()["json"]["cmd"], "check_update");
    EXPECT_EQ(requests.back()["json"]["cmd"], "ticket_status");
    std::set<int> connections;
    for (const auto& request : requests) {
        connections.insert(request.value("connection", 0));
    }
    EXPECT_EQ(connections, (std::set<int>{1})) << requests.size() << " requests";
}

// The window is told everything about a whole update (status texts, the
// "Proceed?"-free road, progress, the controls) on its main thread: the job's
// thread never touches it.
TEST_F(UpdateSession, AWholeUpdateTellsTheWindowOnlyOnItsMainThread)
{
    dispatch::RunLoop::main().drain();
    EXPECT_FALSE(run.view.statusTexts().empty());
    EXPECT_EQ(run.view.callsOffTheMainThread(), std::vector<std::string>{});
}

} // namespace quendral::test
