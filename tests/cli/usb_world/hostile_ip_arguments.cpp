// `quendral-cli ip` with device numbers no integer holds, against a Controller
// that answers: a usage error (exit 2) before the Controller hears anything.
#include "cli_usb_world.h"

using namespace quendral::test;

TEST_F(CliInUsbWorld, IpWithAnOverflowingDeviceNumberIsAUsageErrorAndTheControllerHearsNothing)
{
    auto& controller = plugKorbatekDue();
    controller.setIPDumpLines(kDump);
    for (const std::string arg : {"dev99999999999999999999=1.2.3.4", "enable99999999999999999999=1"}) {
        const CliResult result = cliExiting(2, {"ip", arg});
        EXPECT_NE(result.err.find("no device has that number"), std::string::npos) << describe(result);
    }
    EXPECT_TRUE(controller.receivedLines().empty()) << joinedLines(controller.receivedLines());
}
