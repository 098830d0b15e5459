// Transport failures, TLS trust, time limits and answers of odd shape, against
// the local HTTPS update server.
#include "update_server_test_bed.h"

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using quendral::ServerAnswer;
using quendral::TicketId;
using quendral::UpdateServerClient;
using quendral::UpdateServerConfig;
using Clock = std::chrono::steady_clock;

namespace {

// A port on 127.0.0.1 that nobody listens on (bound once, then released).
int closedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 1; // port 1 is not served to ordinary users either
    }
    const int port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

void expectConnectionError(const std::optional<ServerAnswer>& answer)
{
    ASSERT_TRUE(answer) << "a transport failure must be answered, never none";
    EXPECT_EQ(answer->json(), nlohmann::json::parse(R"({"status":"error","description":"connection"})"));
    EXPECT_TRUE(answer->isConnectionError());
}

// The shared fixture, and a server whose TLS identity the client must not
// trust: the query fails as a connection failure before any request reaches it.
class UpdateServerTest : public quendral::test::UpdateServerTest {
protected:
    void expectIdentityRefused(const std::string& identity)
    {
        startServer({.identity = identity, .arguments = {}});
        expectConnectionError(client().queryUpdate(kCid, "due", "1.0", std::nullopt));
        EXPECT_TRUE(server->recordedRequests().empty());
    }
};

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Limits small enough for a test, large enough to stay real on a loaded machine.
UpdateServerConfig withShortLimits(UpdateServerConfig c)
{
    c.connectTimeout = std::chrono::seconds(2);
    c.lowSpeedLimitBytesPerSecond = 100;
    c.lowSpeedTime = std::chrono::seconds(2);
    return c;
}

constexpr double kGenerousBound = 30.0; // seconds; the limits above are 2 s

} // namespace

TEST(UpdateServerConfigDefaults, LimitsAreTheDocumentedOnes)
{
    const UpdateServerConfig c;
    EXPECT_EQ(c.connectTimeout, std::chrono::seconds(30));
    EXPECT_EQ(c.lowSpeedLimitBytesPerSecond, 16);
    EXPECT_EQ(c.lowSpeedTime, std::chrono::seconds(60));
    EXPECT_EQ(c.maxAnswerBytes, 64u * 1024u * 1024u);
    EXPECT_FALSE(c.caFile);
    EXPECT_EQ(c.baseUrl, UpdateServerConfig::defaultBaseUrl());
    EXPECT_EQ(c.baseUrl.rfind("https://", 0), 0u);
}

TEST_F(UpdateServerTest, NetworkFailureGivesConnectionErrorNeverNone)
{
    startServer();
    auto c = config();
    c.baseUrl = "https://127.0.0.1:" + std::to_string(closedPort());
    const UpdateServerClient offline(c);
    expectConnectionError(offline.queryUpdate(kCid, "due", "1.0", std::nullopt));
    expectConnectionError(offline.queryTicket(TicketId("T1"), kCid));
    expectConnectionError(offline.reportUpdateStatus(TicketId("T1"), kCid, true));
    expectConnectionError(offline.contactServer("{}"));
    // Only the status report has something to say; the transport itself logs nothing.
    EXPECT_EQ(logged(), std::vector<std::string>{"Reporting upload status true"});
}

TEST_F(UpdateServerTest, UntrustedCertificateIsAConnectionFailure)
{
    expectIdentityRefused("selfsigned");
}

TEST_F(UpdateServerTest, CertificateOfTestCaIsNotTrustedByTheSystemStore)
{
    startServer();
    auto c = config();
    c.caFile.reset();
    expectConnectionError(UpdateServerClient(c).queryUpdate(kCid, "due", "1.0", std::nullopt));
    EXPECT_TRUE(server->recordedRequests().empty());
    // The same server is reachable once its CA is handed in.
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->isConnectionError());
}

TEST_F(UpdateServerTest, CertificateForAnotherHostNameIsAConnectionFailure)
{
    expectIdentityRefused("wronghost");
}

TEST_F(UpdateServerTest, PlainHttpIsRefused)
{
    startServer();
    auto c = config();
    c.baseUrl = "http://127.0.0.1:" + std::to_string(server->port());
    expectConnectionError(UpdateServerClient(c).queryUpdate(kCid, "due", "1.0", std::nullopt));
    EXPECT_TRUE(server->recordedRequests().empty());
}

TEST_F(UpdateServerTest, ServerThatNeverAnswersEndsWithinLowSpeedTime)
{
    startServer({.arguments = {"--fault", "stall"}});
    const auto start = Clock::now();
    const auto answer = UpdateServerClient(withShortLimits(config())).queryUpdate(kCid, "due", "1.0", std::nullopt);
    const double elapsed = secondsSince(start);
    expectConnectionError(answer);
    EXPECT_EQ(server->recordedRequests().size(), 1u) << "the request must have reached the server";
    EXPECT_GE(elapsed, 1.5);
    EXPECT_LT(elapsed, kGenerousBound);
}

TEST_F(UpdateServerTest, ServerThatNeverCompletesTheHandshakeEndsWithinConnectTimeout)
{
    startServer({.arguments = {"--fault", "stall_handshake"}});
    const auto start = Clock::now();
    const auto answer = UpdateServerClient(withShortLimits(config())).queryTicket(TicketId("T1"), kCid);
    const double elapsed = secondsSince(start);
    expectConnectionError(answer);
    EXPECT_TRUE(server->recordedRequests().empty());
    EXPECT_GE(elapsed, 1.5);
    EXPECT_LT(elapsed, kGenerousBound);
}

TEST_F(UpdateServerTest, SlowButSteadyServerStillSucceeds)
{
    // 6000 bytes at 1000 bytes/s: about three times the 2 s low-speed window, ten times the rate limit.
    startServer({.arguments = {"--fault", "slow", "--slow-rate", "1000", "--pad", "6000"}});
    const auto start = Clock::now();
    const auto answer = UpdateServerClient(withShortLimits(config())).queryUpdate(kCid, "due", "1.0", std::nullopt);
    const double elapsed = secondsSince(start);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->isConnectionError());
    EXPECT_EQ(answer->status(), "success");
    EXPECT_TRUE(answer->ticketId());
    EXPECT_GE(elapsed, 3.0) << "the answer must have outlasted the low-speed window to prove anything";
}

TEST_F(UpdateServerTest, DroppedConnectionIsAConnectionFailure)
{
    startServer({.arguments = {"--fault", "drop"}});
    expectConnectionError(client().queryTicket(TicketId("T1"), kCid));
    EXPECT_EQ(server->recordedRequests().size(), 1u);
}

TEST_F(UpdateServerTest, AnswerThatIsNotJsonGivesNone)
{
    startServer({.arguments = {"--fault", "non_json"}});
    EXPECT_FALSE(client().queryUpdate(kCid, "due", "1.0", std::nullopt));
    EXPECT_EQ(console.str(), "");
}

TEST_F(UpdateServerTest, HtmlErrorPageGivesNone)
{
    startServer({.arguments = {"--fault", "html_500"}});
    EXPECT_FALSE(client().queryTicket(TicketId("T1"), kCid));
}

TEST_F(UpdateServerTest, ErrorStatusWithJsonBodyIsAnAnswerLikeAnyOther)
{
    startServer({.arguments = {"--fault", "json_500"}});
    const auto answer = client().queryTicket(TicketId("T1"), kCid);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status(), "error");
    EXPECT_EQ(answer->description(), "internal_server_error");
}

TEST_F(UpdateServerTest, AnswerWithWrongTypesReadsAsMissingKeys)
{
    startServer();
    ASSERT_TRUE(server->control(
        {{"fault", "raw"},
         {"raw_body", R"({"status":5,"description":["x"],"hexfile":[],"hash":{},"ticket_id":null,"msg":false})"}}));
    const auto answer = client().queryTicket(TicketId("T1"), kCid);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->status());
    EXPECT_FALSE(answer->description());
    EXPECT_FALSE(answer->hexfile());
    EXPECT_FALSE(answer->hash());
    EXPECT_FALSE(answer->ticketId());
    EXPECT_FALSE(answer->message());
    EXPECT_FALSE(answer->isConnectionError());
}

TEST_F(UpdateServerTest, JsonThatIsNotAnObjectGivesNone)
{
    startServer();
    for (const char* body : {R"(["status","error"])", "42", R"("error")", "null", "true", ""}) {
        ASSERT_TRUE(server->control({{"fault", "raw"}, {"raw_body", body}}));
        EXPECT_FALSE(client().queryTicket(TicketId("T1"), kCid)) << body;
    }
}

TEST_F(UpdateServerTest, OversizedAnswerIsAbandonedAsAConnectionFailure)
{
    startServer({.arguments = {"--pad", "5000"}});
    auto c = config();
    c.maxAnswerBytes = 4096;
    expectConnectionError(UpdateServerClient(c).queryUpdate(kCid, "due", "1.0", std::nullopt));
    c.maxAnswerBytes = 8192;
    const auto answer = UpdateServerClient(c).queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status(), "success");
}
