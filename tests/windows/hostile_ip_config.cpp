// The IP configuration window with the cable pulled while it writes the
// settings: an alert says they were not written and names the line that
// failed (support/cable_pull.h pulls it at an exact line).
#include "ip_config_fixture.h"
#include "support/cable_pull.h"
#include "ui_IPConfig.h"

using namespace quendral::test;

namespace {

class IPConfigWriteCut : public IPConfigTest {
protected:
    void SetUp() override
    {
        IPConfigTest::SetUp();
        window.loadData(kDump);
        window.setPort("/dev/ttyACM0");
    }
};

} // namespace

TEST_F(IPConfigWriteCut, PulledAfterFiveLinesTheAlertNamesTheSixthAndNothingIsStored)
{
    const CablePull pull(*testbed, device, 1, TIOCOUTQ, 5,
                         [&] { simulator->waitForLine("dns=192.168.10.2", std::chrono::seconds(5)); });
    MessageBoxAnswerer answerer("Ok");
    window.ui().saveButton->click();

    EXPECT_TRUE(pull.pulled());
    EXPECT_EQ(answerer.texts(), QStringList{"The IP settings were not written: line 6 of 11 "
                                            "(ipDevice1=192.168.10.60) could not be sent to the Controller."});
    EXPECT_EQ(simulator->receivedLines(),
              (std::vector<std::string>{"bulkip", "ip=192.168.10.50", "subnet=255.255.255.0", "gateway=192.168.10.1",
                                        "dns=192.168.10.2"}));
    EXPECT_EQ(host.ipConfigCloses, 1);
    EXPECT_TRUE(logged("IP settings not written: line 6 of 11 (ipDevice1=192.168.10.60) failed"));
}

TEST_F(IPConfigWriteCut, PulledBeforeTheFirstLineTheAlertNamesIt)
{
    const CablePull pull(*testbed, device, 1, TIOCMSET, 1);
    MessageBoxAnswerer answerer("Ok");
    window.ui().saveButton->click();

    EXPECT_TRUE(pull.pulled());
    EXPECT_EQ(answerer.texts(), QStringList{"The IP settings were not written: line 1 of 11 (bulkip) could not be "
                                            "sent to the Controller."});
    EXPECT_TRUE(simulator->receivedLines().empty());
    EXPECT_EQ(host.ipConfigCloses, 1);
}

TEST_F(IPConfigWriteCut, EveryLineWrittenShowsNoAlert)
{
    MessageBoxAnswerer answerer("Ok");
    window.ui().saveButton->click();
    EXPECT_EQ(savedLines().size(), 11u);
    EXPECT_TRUE(answerer.texts().isEmpty());
    EXPECT_EQ(host.ipConfigCloses, 1);
}
