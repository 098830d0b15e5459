// What the command line says, and which exit code it gives, when the update
// server's answer could not be used.
#include "cli_session.h"

#include <gtest/gtest.h>

using namespace quendral;
using namespace quendral::cli;

TEST(HostileServerProblemText, EveryProblemIsNamed)
{
    EXPECT_EQ(serverProblemText({ServerProblem::Unreachable, "Failed to connect to 127.0.0.1 port 9"}),
              "the update server could not be reached: Failed to connect to 127.0.0.1 port 9");
    EXPECT_EQ(serverProblemText({ServerProblem::AnswerTooLarge, "67108864"}),
              "the update server's answer exceeded 64 MiB");
    EXPECT_EQ(serverProblemText({ServerProblem::AnswerTooLarge, "200000"}),
              "the update server's answer exceeded 200000 bytes");
    EXPECT_EQ(serverProblemText({ServerProblem::NotJsonObject, {}}),
              "the update server's answer was not a valid JSON object");
    EXPECT_EQ(serverProblemText({ServerProblem::NoStatusText, {}}),
              R"(the update server's answer had no text "status" and "description")");
    EXPECT_EQ(serverProblemText({ServerProblem::NoUsableTicket, {}}),
              "the update server's answer carried no usable ticket");
    EXPECT_EQ(serverProblemText({ServerProblem::MessageNotText, {}}),
              "the update server refused with a message that was not text");
    EXPECT_EQ(serverProblemText({ServerProblem::UnknownRefusal, "maintenance"}),
              R"(the update server refused: "maintenance")");
    EXPECT_EQ(serverProblemText({ServerProblem::QueryNotMade, "a value was missing"}),
              "the update query could not be made: a value was missing");
}

TEST(HostileServerProblemText, ExitCodesSayWhatHappened)
{
    EXPECT_EQ(exitCodeFor(UpdateOutcome::NoConnection, ServerProblemReport{ServerProblem::AnswerTooLarge, "1"}),
              kFailure);
    EXPECT_EQ(exitCodeFor(UpdateOutcome::NoConnection, ServerProblemReport{ServerProblem::Unreachable, "x"}),
              kNoConnection);
    EXPECT_EQ(exitCodeFor(UpdateOutcome::NoConnection), kNoConnection);
    EXPECT_EQ(exitCodeFor(UpdateOutcome::UnusableAnswer), kFailure);
    EXPECT_EQ(exitCodeFor(UpdateOutcome::QueryFailed), kFailure);
    EXPECT_EQ(exitCodeFor(UpdateOutcome::Refused), kRefused);
    EXPECT_EQ(exitCodeFor(UpdateOutcome::ServerMessage), kRefused);
}
