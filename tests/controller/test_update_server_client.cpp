// The three requests and what reaches the server, against the local HTTPS update server.
#include "platform/app_info.h"
#include "update_server_test_bed.h"

#include <algorithm>

using quendral::TicketId;
using quendral::UpdateServerClient;
using quendral::test::keysOf;
using quendral::test::UpdateServerTest;

namespace {

using Keys = std::set<std::string>;

class UpdateServerClientTest : public UpdateServerTest {
protected:
    void SetUp() override
    {
        UpdateServerTest::SetUp();
        startServer();
    }
};

} // namespace

TEST_F(UpdateServerClientTest, UpdateQueryWithoutVersionCarriesExactlySixKeys)
{
    const auto answer = client().queryUpdate(kCid, "due", "1.4.2", std::nullopt);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status(), "success");
    EXPECT_TRUE(answer->ticketId());

    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 1u);
    EXPECT_EQ(keysOf(bodies[0]), (Keys{"cmd", "CID", "platform", "currentVersion", "appVersion", "OS"}));
    EXPECT_EQ(bodies[0]["cmd"], "check_update");
    EXPECT_EQ(bodies[0]["CID"], kCid);
    EXPECT_EQ(bodies[0]["platform"], "due");
    EXPECT_EQ(bodies[0]["currentVersion"], "1.4.2");
    EXPECT_EQ(bodies[0]["appVersion"], "mac_" + quendral::appinfo::shortVersion());
    EXPECT_EQ(bodies[0]["OS"], "macOS12.4");
}

TEST_F(UpdateServerClientTest, UpdateQueryWithMasterCarriesVersionAsWell)
{
    const auto answer = client().queryUpdate(kCid, "due", "1.4.2", "master");
    ASSERT_TRUE(answer);
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 1u);
    EXPECT_EQ(keysOf(bodies[0]), (Keys{"cmd", "CID", "platform", "currentVersion", "appVersion", "OS", "version"}));
    EXPECT_EQ(bodies[0]["version"], "master");
}

TEST_F(UpdateServerClientTest, UpdateQueryPassesBranchVersionUnchanged)
{
    ASSERT_TRUE(client().queryUpdate(kCid, "due", "1.4.2", "branch_"));
    ASSERT_TRUE(client().queryUpdate(kCid, "due", "1.4.2", "branch_feature/x y"));
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_EQ(bodies[0]["version"], "branch_");
    EXPECT_EQ(bodies[1]["version"], "branch_feature/x y");
}

TEST_F(UpdateServerClientTest, OsValueHasNoBlankBetweenMacOSAndVersion)
{
    ASSERT_TRUE(client().queryUpdate(kCid, "due", "1.0", std::nullopt));
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 1u);
    const std::string os = bodies[0]["OS"];
    EXPECT_EQ(os, "macOS12.4");
    EXPECT_EQ(os.find(' '), std::string::npos);
}

TEST_F(UpdateServerClientTest, OsValueComesFromThisSystemsOsReleaseByDefault)
{
    const auto product = quendral::appinfo::osProductVersion();
    if (!product) {
        GTEST_SKIP() << "this machine has no readable /etc/os-release";
    }
    auto c = config();
    c.osReleasePath = "/etc/os-release";
    ASSERT_TRUE(UpdateServerClient(c).queryUpdate(kCid, "due", "1.0", std::nullopt));
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 1u);
    EXPECT_EQ(bodies[0]["OS"], "macOS" + *product);
}

TEST_F(UpdateServerClientTest, UpdateQueryWithMissingParameterGivesNoneAndLogsNilParameter)
{
    EXPECT_FALSE(client().queryUpdate(std::nullopt, "due", "1.0", std::nullopt));
    EXPECT_FALSE(client().queryUpdate(kCid, std::nullopt, "1.0", std::nullopt));
    EXPECT_FALSE(client().queryUpdate(kCid, "due", std::nullopt, "master"));
    EXPECT_EQ(logged(), std::vector<std::string>(3, "Error on querying update, nil parameter passed."));
    EXPECT_TRUE(server->recordedRequests().empty());
}

// Rolling distributions (Arch, Debian testing and sid) have no VERSION_ID; the
// query must still go out, with the same keys, instead of ending as a nil parameter.
TEST_F(UpdateServerClientTest, UpdateQueryOnRollingDistributionCarriesBuildIdOrRolling)
{
    auto c = config();
    std::ofstream(server->folder() / "arch") << "NAME=\"Arch Linux\"\nID=arch\nBUILD_ID=rolling-20240301\n";
    std::ofstream(server->folder() / "sid") << "PRETTY_NAME=\"Debian GNU/Linux trixie/sid\"\nID=debian\n";
    for (const char* name : {"arch", "sid"}) {
        c.osReleasePath = (server->folder() / name).string();
        const auto answer = UpdateServerClient(c).queryUpdate(kCid, "due", "1.0", std::nullopt);
        ASSERT_TRUE(answer) << name;
        EXPECT_EQ(answer->status(), "success") << name;
        EXPECT_TRUE(answer->ticketId()) << name;
    }
    EXPECT_TRUE(logged().empty()) << console.str();
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_EQ(bodies[0]["OS"], "macOSrolling-20240301");
    EXPECT_EQ(bodies[1]["OS"], "macOSrolling");
    for (const auto& body : bodies) {
        EXPECT_EQ(keysOf(body), (Keys{"cmd", "CID", "platform", "currentVersion", "appVersion", "OS"}));
        EXPECT_EQ(body["appVersion"], "mac_" + quendral::appinfo::shortVersion());
    }
}

TEST_F(UpdateServerClientTest, UpdateQueryWithoutReadableOsReleaseGivesNoneAndLogsNilParameter)
{
    auto c = config();
    c.osReleasePath = (server->folder() / "missing-os-release").string();
    EXPECT_FALSE(UpdateServerClient(c).queryUpdate(kCid, "due", "1.0", std::nullopt));
    EXPECT_EQ(logged(), std::vector<std::string>{"Error on querying update, nil parameter passed."});
    EXPECT_TRUE(server->recordedRequests().empty());
}

TEST_F(UpdateServerClientTest, TextsThatAreNotUtf8CannotBeSerialisedAndAreLogged)
{
    const std::string badCid = "0123\xff\xfe";
    EXPECT_FALSE(client().queryUpdate(badCid, "due", "1.0", std::nullopt));
    EXPECT_FALSE(client().queryTicket(TicketId("T1"), badCid));
    EXPECT_FALSE(client().reportUpdateStatus(TicketId("T1"), badCid, true));
    EXPECT_EQ(logged(), (std::vector<std::string>{"Error on querying update", "Error on querying ticket",
                                                  "Error on reporting update status to server"}));
    EXPECT_TRUE(server->recordedRequests().empty());
}

TEST_F(UpdateServerClientTest, MissingCidInTicketQueryGivesNoneWithoutLogLine)
{
    EXPECT_FALSE(client().queryTicket(TicketId("T1"), std::nullopt));
    EXPECT_FALSE(client().queryTicket(std::nullopt, kCid));
    EXPECT_FALSE(client().queryTicket(TicketId(nullptr), kCid));
    EXPECT_EQ(console.str(), "");
    EXPECT_TRUE(server->recordedRequests().empty());
}

TEST_F(UpdateServerClientTest, MissingCidInStatusReportGivesNoneWithTwoLogLines)
{
    EXPECT_FALSE(client().reportUpdateStatus(TicketId("T1"), std::nullopt, true));
    EXPECT_EQ(logged(), (std::vector<std::string>{"Error reporting update status, passed nil parameter",
                                                  "Error on reporting update status to server"}));
    EXPECT_TRUE(server->recordedRequests().empty());
}

TEST_F(UpdateServerClientTest, MissingTicketInStatusReportGivesNoneWithTwoLogLines)
{
    EXPECT_FALSE(client().reportUpdateStatus(std::nullopt, kCid, false));
    EXPECT_EQ(logged(), (std::vector<std::string>{"Error reporting update status, passed nil parameter",
                                                  "Error on reporting update status to server"}));
    EXPECT_TRUE(server->recordedRequests().empty());
}

TEST_F(UpdateServerClientTest, TicketQueryCarriesCidAndTicketUnchanged)
{
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer);
    const auto ticket = answer->ticketId();
    ASSERT_TRUE(ticket);
    ASSERT_TRUE(client().queryTicket(ticket, kCid));
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_EQ(keysOf(bodies[1]), (Keys{"cmd", "CID", "ticket_id"}));
    EXPECT_EQ(bodies[1]["cmd"], "ticket");
    EXPECT_EQ(bodies[1]["CID"], kCid);
    EXPECT_EQ(bodies[1]["ticket_id"], *ticket);
    EXPECT_TRUE(bodies[1]["ticket_id"].is_string());
    EXPECT_EQ(console.str(), "");
}

TEST_F(UpdateServerClientTest, NumericTicketIsPassedBackAsANumber)
{
    startServer({.arguments = {"--ticket-type", "int"}});
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer);
    const auto ticket = answer->ticketId();
    ASSERT_TRUE(ticket);
    ASSERT_TRUE(ticket->is_number_integer());
    const auto poll = client().queryTicket(ticket, kCid);
    ASSERT_TRUE(poll);
    // The server finds its ticket only when it comes back as the very same JSON value.
    EXPECT_EQ(poll->description(), "internal");
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_TRUE(bodies[1]["ticket_id"].is_number_integer());
    EXPECT_EQ(bodies[1]["ticket_id"], *ticket);
}

TEST_F(UpdateServerClientTest, StatusReportCarriesBooleanAndLogsIt)
{
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer && answer->ticketId());
    const auto reported = client().reportUpdateStatus(answer->ticketId(), kCid, true);
    ASSERT_TRUE(reported);
    EXPECT_EQ(reported->status(), "success");
    ASSERT_TRUE(client().reportUpdateStatus(answer->ticketId(), kCid, false));
    EXPECT_EQ(logged(), (std::vector<std::string>{"Reporting upload status true", "Reporting upload status false"}));

    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 3u);
    EXPECT_EQ(keysOf(bodies[1]), (Keys{"cmd", "CID", "ticket_id", "success"}));
    EXPECT_EQ(bodies[1]["cmd"], "ticket_status");
    EXPECT_EQ(bodies[1]["CID"], kCid);
    EXPECT_EQ(bodies[1]["ticket_id"], *answer->ticketId());
    EXPECT_EQ(bodies[1]["success"], true);
    EXPECT_EQ(bodies[2]["success"], false);
}

TEST_F(UpdateServerClientTest, HeadersCarryBodyLengthAndNoContentType)
{
    ASSERT_TRUE(client().queryUpdate(kCid, "due", "1.0", "master"));
    const auto requests = server->recordedRequests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& request = requests[0];
    EXPECT_EQ(request["method"], "POST");
    EXPECT_EQ(request["path"], "/api.php");
    const std::string body = request["body"];
    int contentLengths = 0;
    for (const auto& header : request["headers"]) {
        std::string name = header[0];
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
        EXPECT_NE(name, "content-type") << "sent " << header.dump();
        if (name == "content-length") {
            ++contentLengths;
            EXPECT_EQ(header[1], std::to_string(body.size()));
        }
    }
    EXPECT_EQ(contentLengths, 1);
}

TEST_F(UpdateServerClientTest, BodyIsCompactJson)
{
    ASSERT_TRUE(client().queryUpdate(kCid, "due", "1.0 beta", "branch_a b"));
    const auto requests = server->recordedRequests();
    ASSERT_EQ(requests.size(), 1u);
    const std::string body = requests[0]["body"];
    EXPECT_EQ(body, nlohmann::json::parse(body).dump());
    EXPECT_EQ(body.find('\n'), std::string::npos);
    EXPECT_EQ(body.find("\": "), std::string::npos);
}

TEST_F(UpdateServerClientTest, ContactServerPostsTheBodyAsItIs)
{
    const std::string body = R"({"cmd":"ticket_status","CID":"x","ticket_id":"nope","success":true})";
    const auto answer = client().contactServer(body);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->description(), "unknown_ticket");
    const auto requests = server->recordedRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["body"], body);
}
