// A Controller that sends escape sequences, carriage returns and NULs in its
// identifier, its message, its IP dump or its chatter: the command line shows
// them made visible, and so does the log.
#include "cli_usb_world.h"

using namespace std::chrono_literals;
using namespace quendral::test;

namespace {

// Seven-bit text, as the reply parser takes it: a title change, a screen
// clear, an overwrite.
const std::string kHostile = "\x1b]0;pwned\x07\x1b[2Jover\rwrite";
const std::string kVisible = R"(\x1b]0;pwned\x07\x1b[2Jover\rwrite)";

bool hasNoEscape(const std::string& text)
{
    return text.find('\x1b') == std::string::npos && text.find('\x07') == std::string::npos;
}

} // namespace

TEST_F(CliInUsbWorld, IdentifyShowsAHostileIdentifierAndVersionMadeVisible)
{
    auto& controller = plugKorbatekDue();
    controller.setCID("QUENDRAL" + kHostile);
    controller.setVersion("1.0" + kHostile);

    const CliResult result = cliExiting(0, {"identify"});
    EXPECT_EQ(result.out, "CID: QUENDRAL" + kVisible + "\nVersion: 1.0" + kVisible + "\n") << describe(result);
}

TEST_F(CliInUsbWorld, IdentifyShowsAHostileMessageMadeVisible)
{
    auto& controller = plugKorbatekDue();
    controller.setMessage("Not registered " + kHostile);

    const CliResult result = cliExiting(1, {"identify"});
    EXPECT_EQ(result.out, "Not registered " + kVisible + "\n") << describe(result);
}

TEST_F(CliInUsbWorld, IpShowsHostileDumpLinesMadeVisible)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines({"ip;192.168.10.50", "dev;1;Boiler " + kHostile + ";192.168.10.60;1"});

    const CliResult result = cliExiting(0, {"ip", "--raw"});
    EXPECT_EQ(result.out, "ip;192.168.10.50\ndev;1;Boiler " + kVisible + ";192.168.10.60;1\n") << describe(result);
}

TEST_F(CliInUsbWorld, MonitorShowsHostileChatterMadeVisibleAndKeepsLineEnds)
{
    auto& controller = plugKorbatekDue();
    CliChild child({"monitor"}, environment());
    ASSERT_TRUE(child.started());
    ASSERT_TRUE(controller.waitForPortOpen(true, 30s));

    controller.sendRaw("booted " + kHostile + std::string(1, '\0') + "\r\nnext line\n");
    EXPECT_TRUE(child.waitForOutput("next line\n", 30s)) << child.output();
    const CliResult result = child.finish(30s);
    EXPECT_EQ(result.exitCode, 0) << describe(result);
    EXPECT_NE(result.out.find("booted " + kVisible + "\\0\r\nnext line\n"), std::string::npos) << describe(result);
    EXPECT_TRUE(hasNoEscape(result.out)) << describe(result);
}
