// quendral-cli ip KEY=VALUE with the cable pulled while the settings are
// written: the settings count as written only when every line was, and the
// line that failed is named (support/cable_pull.h pulls it at an exact line).
#include "cli_usb_world.h"
#include "support/cable_pull.h"

using namespace std::chrono_literals;
using namespace quendral::test;

namespace {

// What `ip ip=192.168.10.77` writes after the dump of kDump.
const std::vector<std::string> kSequence = {"bulkip",
                                            "ip=192.168.10.77",
                                            "subnet=255.255.255.0",
                                            "gateway=192.168.10.1",
                                            "dns=192.168.10.2",
                                            "ipDevice1=192.168.10.60",
                                            "enableDevice1=1",
                                            "ipDevice2=192.168.10.61",
                                            "enableDevice2=0",
                                            "store",
                                            "reset"};

class CliIpWriteCut : public CliInUsbWorld {
protected:
    // The dump comes through the first open; the settings go through the second.
    static constexpr int kSavingOpen = 2;

    ControllerSimulator& plugControllerWithDump()
    {
        auto& controller = plugKorbatekDue();
        controller.setIPDumpLines(kDump);
        return controller;
    }

    // `ip ip=192.168.10.77` with the cable pulled: it fails, names `failedLine`
    // on the error stream, and the Controller holds what came before it.
    void expectNotWritten(const CablePull& pull, const ControllerSimulator& controller, const std::string& failedLine,
                          std::size_t linesBefore)
    {
        const CliResult result = cli({"ip", "ip=192.168.10.77"});
        EXPECT_TRUE(pull.pulled());
        EXPECT_EQ(result.exitCode, 1) << describe(result);
        EXPECT_EQ(result.out, "") << describe(result);
        const std::string said = "quendral-cli: The IP settings were not written: line " +
                                 std::to_string(linesBefore + 1) + " of 11 (" + failedLine +
                                 ") could not be sent to the Controller.\n";
        EXPECT_NE(result.err.find(said), std::string::npos) << describe(result);
        std::vector<std::string> expected{"dumpIP"};
        expected.insert(expected.end(), kSequence.begin(),
                        kSequence.begin() + static_cast<std::ptrdiff_t>(linesBefore));
        EXPECT_EQ(controller.receivedLines(), expected);
    }
};

} // namespace

TEST_F(CliIpWriteCut, PulledBeforeTheFirstLineNothingIsReportedAsWritten)
{
    auto& controller = plugControllerWithDump();
    const CablePull pull(*testbed, devices.back(), kSavingOpen, TIOCMSET, 1);
    expectNotWritten(pull, controller, "bulkip", 0);
    EXPECT_NE(logFile().find("] IP settings not written: line 1 of 11 (bulkip) failed\n"), std::string::npos)
        << logFile();
}

TEST_F(CliIpWriteCut, PulledAfterFiveLinesTheSixthIsNamedAndNothingIsStored)
{
    auto& controller = plugControllerWithDump();
    const CablePull pull(*testbed, devices.back(), kSavingOpen, TIOCOUTQ, 5,
                         [&] { controller.waitForLine(kSequence[4], 5s); });
    // Exactly the five lines before it arrived; "store" never came.
    expectNotWritten(pull, controller, "ipDevice1=192.168.10.60", 5);
}
