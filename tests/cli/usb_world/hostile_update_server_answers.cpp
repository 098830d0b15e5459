// `quendral-cli update` against an update server whose answer cannot be used:
// the window's texts stay as they are, and the command line says on its
// error stream what went wrong, with an exit code that fits.
#include "cli_usb_world.h"
#include "local_update_server.h"

using namespace std::chrono_literals;
using namespace quendral::test;

namespace {

class UpdateAgainstAHostileServer : public CliInUsbWorld {
protected:
    void SetUp() override
    {
        CliInUsbWorld::SetUp();
        plugKorbatekDue();
    }

    void startServer(std::vector<std::string> arguments)
    {
        server = std::make_unique<LocalUpdateServer>(LocalUpdateServerOptions{.arguments = std::move(arguments)});
        ASSERT_TRUE(server->running()) << server->error();
    }

    // The check_update request answered with `body` as it is.
    void answerWith(const std::string& body)
    {
        startServer({"--fault", "raw", "--raw-body", body, "--fault-commands", "check_update"});
    }

    CliResult update(const std::string& serverUrl)
    {
        auto environment = this->environment();
        // Nothing may stand between the child and 127.0.0.1.
        for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "http_proxy"}) {
            environment[name] = std::nullopt;
        }
        return runCli({"update", "--server", serverUrl, "--ca-file", server ? server->caFile().string() : "/dev/null"},
                      environment);
    }
    CliResult update() { return update(server->baseUrl()); }

    // The last line of the error stream.
    static std::string lastErrorLine(const CliResult& result)
    {
        std::string text = result.err;
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        return text.substr(text.rfind('\n') + 1);
    }

    // Runs the update; it ends with `exitCode`, and the last line on the error
    // stream is "quendral-cli: " and `reason`.
    CliResult expectReason(int exitCode, const std::string& reason)
    {
        const CliResult result = update();
        EXPECT_EQ(result.exitCode, exitCode) << describe(result);
        EXPECT_EQ(lastErrorLine(result), "quendral-cli: " + reason) << describe(result);
        return result;
    }

    std::unique_ptr<LocalUpdateServer> server;
};

} // namespace

TEST_F(UpdateAgainstAHostileServer, AnAnswerThatIsNoJsonIsNamed)
{
    startServer({"--fault", "non_json", "--fault-commands", "check_update"});
    EXPECT_EQ(expectReason(1, "the update server's answer was not a valid JSON object").out, "");
}

TEST_F(UpdateAgainstAHostileServer, AnAnswerWithoutTextStatusIsNamed)
{
    answerWith(R"({"status": 5, "description": "ok", "ticket_id": "T1"})");
    expectReason(1, R"(the update server's answer had no text "status" and "description")");
}

TEST_F(UpdateAgainstAHostileServer, ANullTicketIsNamedAndIsNoRefusal)
{
    answerWith(R"({"status": "ok", "description": "ok", "ticket_id": null})");
    expectReason(1, "the update server's answer carried no usable ticket");
}

TEST_F(UpdateAgainstAHostileServer, ARefusalWithAMessageThatIsNoTextIsNamed)
{
    answerWith(R"({"status": "error", "description": "message", "msg": 5})");
    EXPECT_EQ(expectReason(4, "the update server refused with a message that was not text").out, "");
}

TEST_F(UpdateAgainstAHostileServer, ARefusalTheApplicationDoesNotKnowIsNamedWithItsDescription)
{
    answerWith(R"({"status": "error", "description": "maintenance\u001b[2J"})");
    expectReason(4, R"(the update server refused: "maintenance\x1b[2J")");
}

TEST_F(UpdateAgainstAHostileServer, AnOverSizedAnswerIsNamedAndIsNoMissingConnection)
{
    startServer({"--pad", std::to_string(65 * 1024 * 1024), "--refuse", "no_update"});
    const CliResult result = expectReason(1, "the update server's answer exceeded 64 MiB");
    // The window's alert stays as it is.
    EXPECT_EQ(result.out, "Could not connect to the update server. Please check your internet connection.\n");
}

TEST_F(UpdateAgainstAHostileServer, AServerThatCannotBeReachedIsNamedWithWhy)
{
    startServer({});
    const std::string url = server->baseUrl();
    server->stop();
    const CliResult result = update(url);
    EXPECT_EQ(result.exitCode, 5) << describe(result);
    EXPECT_EQ(result.out, "Could not connect to the update server. Please check your internet connection.\n");
    EXPECT_EQ(lastErrorLine(result).rfind("quendral-cli: the update server could not be reached: ", 0), 0U)
        << describe(result);
}

TEST_F(UpdateAgainstAHostileServer, AServerMessageReachesTheTerminalAndTheLogMadeVisible)
{
    startServer({"--refuse", "message", "--message", "Please update\x1b]0;pwned\x07 now\rsoon"});
    const CliResult result = update();
    EXPECT_EQ(result.exitCode, 4) << describe(result);
    EXPECT_EQ(result.out, "Please update\\x1b]0;pwned\\x07 now\\rsoon\n") << describe(result);
    EXPECT_NE(logFile().find("] Custom message: Please update\\x1b]0;pwned\\x07 now\\rsoon\n"), std::string::npos)
        << logFile();
}
