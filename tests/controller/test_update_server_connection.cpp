// The requests of one update share one connection to the update server, and
// a server that does not keep connections open still gets the same answers.
#include "update_server_test_bed.h"

#include <set>

using quendral::TicketId;
using quendral::UpdateServerClient;

namespace {

class UpdateServerConnectionTest : public quendral::test::UpdateServerTest {
protected:
    // The query, one poll and the report, as one update asks them.
    void askAsAnUpdateDoes(const UpdateServerClient& client)
    {
        const auto query = client.queryUpdate(kCid, "due", "1.0", std::nullopt);
        ASSERT_TRUE(query);
        ASSERT_TRUE(query->ticketId());
        const auto poll = client.queryTicket(query->ticketId(), kCid);
        ASSERT_TRUE(poll);
        EXPECT_EQ(poll->status(), "success");
        EXPECT_TRUE(poll->hexfile());
        const auto report = client.reportUpdateStatus(query->ticketId(), kCid, true);
        ASSERT_TRUE(report);
        EXPECT_EQ(report->description(), "recorded");
    }

    // The server's number of the connection each recorded request came on.
    [[nodiscard]] std::vector<int> connectionsOfRequests() const
    {
        std::vector<int> connections;
        for (const auto& request : server->recordedRequests()) {
            connections.push_back(request.value("connection", 0));
        }
        return connections;
    }
    [[nodiscard]] std::vector<bool> resumedSessions() const
    {
        std::vector<bool> resumed;
        for (const auto& request : server->recordedRequests()) {
            resumed.push_back(request.value("tls_resumed", false));
        }
        return resumed;
    }
};

} // namespace

TEST_F(UpdateServerConnectionTest, RequestsWhileAScopeLivesShareOneConnection)
{
    startServer({.arguments = {"--polls", "0"}});
    const UpdateServerClient client = this->client();
    {
        const auto scope = client.keepConnection();
        askAsAnUpdateDoes(client);
    }
    EXPECT_EQ(connectionsOfRequests(), (std::vector<int>{1, 1, 1}));
    // The scope's end closed it: the next request connects afresh.
    ASSERT_TRUE(client.queryTicket(TicketId("T1"), kCid));
    EXPECT_EQ(connectionsOfRequests(), (std::vector<int>{1, 1, 1, 2}));
}

TEST_F(UpdateServerConnectionTest, WithoutAScopeEveryRequestConnectsAfresh)
{
    startServer({.arguments = {"--polls", "0"}});
    askAsAnUpdateDoes(client());
    EXPECT_EQ(connectionsOfRequests(), (std::vector<int>{1, 2, 3}));
}

TEST_F(UpdateServerConnectionTest, ReuseSwitchedOffConnectsAfreshEvenInAScope)
{
    startServer({.arguments = {"--polls", "0"}});
    auto config = this->config();
    config.reuseConnection = false;
    const UpdateServerClient client(config);
    const auto scope = client.keepConnection();
    askAsAnUpdateDoes(client);
    EXPECT_EQ(connectionsOfRequests(), (std::vector<int>{1, 2, 3}));
}

TEST_F(UpdateServerConnectionTest, ServerThatClosesEachConnectionGetsTheSameRequestsAndResumesTheTlsSession)
{
    startServer({.arguments = {"--polls", "0", "--close-connections"}});
    const UpdateServerClient client = this->client();
    const auto scope = client.keepConnection();
    askAsAnUpdateDoes(client);
    EXPECT_EQ(connectionsOfRequests(), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(resumedSessions(), (std::vector<bool>{false, true, true}));
    std::vector<std::string> commands;
    for (const auto& body : server->recordedBodies()) {
        commands.push_back(body.value("cmd", ""));
    }
    EXPECT_EQ(commands, (std::vector<std::string>{"check_update", "ticket", "ticket_status"}));
}

// A kept connection that the server drops without answering gives the
// connection error, as a fresh one does, and the request is not sent again:
// the server may have acted on it (a report, a query that opened a ticket).
TEST_F(UpdateServerConnectionTest, DroppedKeptConnectionEndsInTheConnectionErrorWithoutSendingAgain)
{
    startServer({.arguments = {"--polls", "0"}});
    const UpdateServerClient client = this->client();
    const auto scope = client.keepConnection();
    const auto query = client.queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(query);
    ASSERT_TRUE(server->control({{"fault", "drop"}, {"fault_commands", {"ticket"}}}));
    const auto poll = client.queryTicket(query->ticketId(), kCid);
    ASSERT_TRUE(poll);
    EXPECT_TRUE(poll->isConnectionError());
    EXPECT_EQ(server->recordedRequests().size(), 2U) << "the dropped poll reached the server once";
    ASSERT_TRUE(server->control({{"fault", "none"}}));
    const auto again = client.queryTicket(query->ticketId(), kCid);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status(), "success");
    EXPECT_TRUE(again->hexfile());
}

// The kept connection carries no option of an earlier request into the
// next: a stalled answer still ends within the low-speed limit.
TEST_F(UpdateServerConnectionTest, StallOnAKeptConnectionEndsWithinTheLowSpeedLimit)
{
    startServer({.arguments = {"--polls", "0"}});
    auto config = this->config();
    config.lowSpeedLimitBytesPerSecond = 100;
    config.lowSpeedTime = std::chrono::seconds(2);
    const UpdateServerClient client(config);
    const auto scope = client.keepConnection();
    const auto query = client.queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(query);
    ASSERT_TRUE(server->control({{"fault", "stall"}, {"fault_commands", {"ticket"}}}));
    const auto start = std::chrono::steady_clock::now();
    const auto poll = client.queryTicket(query->ticketId(), kCid);
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(poll);
    EXPECT_TRUE(poll->isConnectionError());
    EXPECT_GE(elapsed, 1.5);
    EXPECT_LT(elapsed, 30.0);
}
