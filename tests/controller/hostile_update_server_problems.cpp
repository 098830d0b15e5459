// The update server client says why an answer could not be used: a server
// out of reach (in libcurl's words), an answer beyond the size limit, a body
// that is no JSON object, a query that could not be made.
#include "update_server_test_bed.h"

using namespace quendral;
using namespace quendral::test;

namespace {

class HostileServerProblems : public UpdateServerTest {
protected:
    // A problem left from an earlier request must never survive a later one.
    static std::optional<ServerProblemReport> stale()
    {
        return ServerProblemReport{ServerProblem::QueryNotMade, "stale"};
    }

    // Contacts the server with `configuration`: the window gets the
    // connection-error answer, and the reason names the server as out of
    // reach with words that hold `why`.
    static void expectOutOfReach(const UpdateServerConfig& configuration, const std::string& why)
    {
        auto problem = stale();
        const auto answer = UpdateServerClient(configuration).contactServer("{}", &problem);
        ASSERT_TRUE(answer);
        EXPECT_TRUE(answer->isConnectionError());
        ASSERT_TRUE(problem);
        EXPECT_EQ(problem->problem, ServerProblem::Unreachable);
        EXPECT_NE(problem->detail.find(why), std::string::npos) << problem->detail;
    }
};

} // namespace

TEST_F(HostileServerProblems, AnUsableAnswerLeavesNoProblem)
{
    startServer();
    auto problem = stale();
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt, &problem);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->ticketId());
    EXPECT_FALSE(problem);
}

TEST_F(HostileServerProblems, ABodyThatIsNoJsonObjectIsNamed)
{
    startServer({.arguments = {"--fault", "non_json"}});
    auto problem = stale();
    EXPECT_FALSE(client().queryUpdate(kCid, "due", "1.0", std::nullopt, &problem));
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem->problem, ServerProblem::NotJsonObject);

    server->control({{"fault", "raw"}, {"raw_body", "[1, 2, 3]"}});
    problem = stale();
    EXPECT_FALSE(client().contactServer("{}", &problem));
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem->problem, ServerProblem::NotJsonObject);
}

TEST_F(HostileServerProblems, AnAnswerBeyondTheLimitIsNamedWithTheLimit)
{
    startServer({.arguments = {"--pad", "300000"}});
    UpdateServerConfig limited = config();
    limited.maxAnswerBytes = 200000;
    auto problem = stale();
    const auto answer = UpdateServerClient(limited).queryUpdate(kCid, "due", "1.0", std::nullopt, &problem);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->isConnectionError()) << "the window still reads it as a failed connection";
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem->problem, ServerProblem::AnswerTooLarge);
    EXPECT_EQ(problem->detail, "200000");
}

TEST_F(HostileServerProblems, AServerOutOfReachIsNamedWithWhy)
{
    startServer();
    const UpdateServerConfig offline = config();
    server->stop();
    expectOutOfReach(offline, "127.0.0.1");
}

TEST_F(HostileServerProblems, AnUntrustedCertificateIsNamedWithWhy)
{
    startServer({.identity = "selfsigned", .arguments = {}});
    expectOutOfReach(config(), "certificate");
}

TEST_F(HostileServerProblems, AQueryThatCannotBeMadeIsNamed)
{
    startServer();
    auto problem = stale();
    EXPECT_FALSE(client().queryUpdate(std::string("CID\xff"), "due", "1.0", std::nullopt, &problem));
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem->problem, ServerProblem::QueryNotMade);
    EXPECT_EQ(problem->detail, "a value was not UTF-8");
    EXPECT_TRUE(server->recordedRequests().empty());
}
