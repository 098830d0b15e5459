#include "ip_config_fixture.h"
#include "ui_IPConfig.h"

#include <QCheckBox>
#include <QLineEdit>

using namespace quendral::test;

namespace {

bool isRed(const QLineEdit* field)
{
    return field->styleSheet().contains("background-color: red");
}

} // namespace

TEST_F(IPConfigTest, DumpFillsTheFieldsAndOneRowPerDevice)
{
    window.loadData(kDump);
    EXPECT_EQ(window.ui().ipField->text(), "192.168.10.50");
    EXPECT_EQ(window.ui().dnsField->text(), "192.168.10.2");
    ASSERT_EQ(window.ipFields().size(), 2U);
    EXPECT_EQ(window.ipFields()[1]->text(), "192.168.10.61");
    EXPECT_TRUE(window.deviceEnable()[0]->isChecked());
    EXPECT_FALSE(window.deviceEnable()[1]->isChecked());
    EXPECT_FALSE(window.ui().dhcpEnable->isChecked());
    EXPECT_TRUE(window.ui().ipField->isEnabled());
}

TEST_F(IPConfigTest, DhcpDumpDisablesTheFourAddressFields)
{
    window.loadData({"ip;0.0.0.0", "subnet;255.255.255.0", "gateway;0.0.0.0", "dns;0.0.0.0"});
    EXPECT_TRUE(window.ui().dhcpEnable->isChecked());
    for (QLineEdit* field :
         {window.ui().ipField, window.ui().subnetField, window.ui().gatewayField, window.ui().dnsField}) {
        EXPECT_FALSE(field->isEnabled());
    }
}

TEST_F(IPConfigTest, SwitchingDhcpOffProposesTheSameAddressEveryTime)
{
    window.loadData({"ip;0.0.0.0"});
    window.ui().dhcpEnable->click();
    EXPECT_EQ(window.ui().ipField->text(), "192.168.10.99");
    EXPECT_TRUE(window.ui().ipField->isEnabled());
    window.ui().dhcpEnable->click();
    EXPECT_EQ(window.ui().ipField->text(), "0.0.0.0");
    window.ui().ipField->setText("10.1.1.1");
    window.ui().dhcpEnable->click();
    EXPECT_EQ(window.ui().ipField->text(), "192.168.10.99");
}

TEST_F(IPConfigTest, SavingWritesTheExactSequenceAndClosesTheWindow)
{
    window.loadData(kDump);
    window.setPort("/dev/ttyACM0");
    window.ui().ipField->setText("192.168.10.77");
    window.deviceEnable()[1]->setChecked(true);
    window.ui().saveButton->click();

    EXPECT_EQ(savedLines(),
              (std::vector<std::string>{"bulkip", "ip=192.168.10.77", "subnet=255.255.255.0", "gateway=192.168.10.1",
                                        "dns=192.168.10.2", "ipDevice1=192.168.10.60", "enableDevice1=1",
                                        "ipDevice2=192.168.10.61", "enableDevice2=1", "store", "reset"}));
    EXPECT_EQ(host.monitorCloses, 1);
    EXPECT_EQ(host.ipConfigCloses, 1);
    EXPECT_TRUE(logged("User clicked save IP settings"));
    EXPECT_TRUE(logged("Opening serial port /dev/ttyACM0"));
}

TEST_F(IPConfigTest, ZeroDeviceRowsSendsOnlyAddressesStoreAndReset)
{
    window.loadData({"ip;0.0.0.0", "subnet;255.255.255.0", "gateway;192.168.10.1", "dns;192.168.10.2"});
    window.setPort("/dev/ttyACM0");
    window.saveSettings();
    EXPECT_EQ(savedLines(), (std::vector<std::string>{"bulkip", "ip=0.0.0.0", "subnet=255.255.255.0",
                                                      "gateway=192.168.10.1", "dns=192.168.10.2", "store", "reset"}));
}

TEST_F(IPConfigTest, InvalidFieldTurnsRedAndNothingIsSent)
{
    window.loadData(kDump);
    window.setPort("/dev/ttyACM0");
    window.ui().gatewayField->setText("192.168.1.300");
    window.ipFields()[0]->setText("also wrong");
    window.saveSettings();
    EXPECT_TRUE(isRed(window.ui().gatewayField));
    EXPECT_FALSE(isRed(window.ui().ipField));
    EXPECT_FALSE(isRed(window.ipFields()[0])) << "fields after the first bad one are not checked";
    EXPECT_EQ(window.ui().gatewayField->text(), "192.168.1.300");
    EXPECT_EQ(host.ipConfigCloses, 0);
    EXPECT_FALSE(simulator->waitForLine("bulkip", std::chrono::milliseconds(300)));
    EXPECT_EQ(simulator->openCount(), 0);
}

TEST_F(IPConfigTest, ValidFieldIsNormalisedAndLeadingZerosStay)
{
    window.ui().ipField->setText("ip 10.0.0.5x");
    EXPECT_TRUE(window.verifyIPField(window.ui().ipField));
    EXPECT_EQ(window.ui().ipField->text(), "10.0.0.5");
    window.ui().ipField->setText("192.168.001.010");
    EXPECT_TRUE(window.verifyIPField(window.ui().ipField));
    EXPECT_EQ(window.ui().ipField->text(), "192.168.001.010");
    EXPECT_FALSE(isRed(window.ui().ipField));
}

TEST_F(IPConfigTest, PortThatCannotBeOpenedClosesTheWindowSilently)
{
    window.loadData(kDump);
    window.setPort("/dev/ttyACM7");
    window.saveSettings();
    EXPECT_EQ(host.ipConfigCloses, 1);
    EXPECT_EQ(simulator->openCount(), 0);
}
