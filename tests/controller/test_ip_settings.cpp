#include "controller/ip_settings.h"

#include <gtest/gtest.h>

using namespace quendral::ipsettings;

TEST(IpDump, ReadsTheFourAddressesAndDeviceRows)
{
    const auto dump = parseIpDump({"ip;192.168.10.50", "subnet;255.255.255.0", "gateway;192.168.10.1",
                                   "dns;192.168.10.2", "dev;7;Boiler;192.168.10.60;1", "dev;3;Pump;192.168.10.61;0"});
    EXPECT_EQ(dump.ip, "192.168.10.50");
    EXPECT_EQ(dump.subnet, "255.255.255.0");
    EXPECT_EQ(dump.gateway, "192.168.10.1");
    EXPECT_EQ(dump.dns, "192.168.10.2");
    ASSERT_EQ(dump.devices.size(), 2U);
    EXPECT_EQ(dump.devices[0].label, "Boiler");
    EXPECT_EQ(dump.devices[0].address, "192.168.10.60");
    EXPECT_TRUE(dump.devices[0].enabled);
    EXPECT_FALSE(dump.devices[1].enabled);
    EXPECT_FALSE(dump.dhcpEnabled());
}

TEST(IpDump, IpZeroMeansDhcpOn)
{
    EXPECT_TRUE(parseIpDump({"ip;0.0.0.0"}).dhcpEnabled());
    EXPECT_FALSE(parseIpDump({}).dhcpEnabled());
}

TEST(IpDump, DevLineWithFourOrSixPartsAddsNoRow)
{
    const auto dump = parseIpDump({"dev;1;A;192.168.10.60", "dev;1;A;192.168.10.60;1;extra"});
    EXPECT_TRUE(dump.devices.empty());
}

TEST(IpDump, LaterLineWithTheSameKeyWins)
{
    EXPECT_EQ(parseIpDump({"dns;1.1.1.1", "dns;8.8.8.8"}).dns, "8.8.8.8");
}

TEST(IpDump, UnknownLinesAndKeyWithoutValueAreIgnored)
{
    const auto dump = parseIpDump({"mac;00:11", "ip", "", "subnet;255.0.0.0"});
    EXPECT_FALSE(dump.ip.has_value());
    EXPECT_EQ(dump.subnet, "255.0.0.0");
}

TEST(IpDump, SwitchStateIsTheLeadingInteger)
{
    const auto dump =
        parseIpDump({"dev;1;A;1.1.1.1;1", "dev;1;B;1.1.1.2;0", "dev;1;C;1.1.1.3;on", "dev;1;D;1.1.1.4; 1x"});
    ASSERT_EQ(dump.devices.size(), 4U);
    EXPECT_TRUE(dump.devices[0].enabled);
    EXPECT_FALSE(dump.devices[1].enabled);
    EXPECT_FALSE(dump.devices[2].enabled);
    EXPECT_TRUE(dump.devices[3].enabled);
}

TEST(SplitParts, KeepsEmptyParts)
{
    EXPECT_EQ(splitParts("a;;b;"), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(splitParts(""), (std::vector<std::string>{""}));
}

TEST(VerifyIP, AcceptsAddressesAndNormalisesToTheMatch)
{
    EXPECT_EQ(verifyIP("192.168.10.99"), "192.168.10.99");
    EXPECT_EQ(verifyIP("ip 10.0.0.5x"), "10.0.0.5");
    EXPECT_EQ(verifyIP("1234.1.1.1"), "234.1.1.1");
}

TEST(VerifyIP, KeepsLeadingZerosAsTyped)
{
    EXPECT_EQ(verifyIP("192.168.001.010"), "192.168.001.010");
}

TEST(VerifyIP, RejectsOutOfRangeAndNonAddresses)
{
    EXPECT_EQ(verifyIP("192.168.1.300"), std::nullopt);
    EXPECT_EQ(verifyIP("256.0.0.1"), std::nullopt);
    EXPECT_EQ(verifyIP(""), std::nullopt);
    EXPECT_EQ(verifyIP("192.168.1"), std::nullopt);
    EXPECT_EQ(verifyIP("abc"), std::nullopt);
}

TEST(WriteSequence, ZeroDeviceRowsSendsOnlyTheAddressesStoreAndReset)
{
    const Settings settings{"0.0.0.0", "255.255.255.0", "192.168.10.1", "192.168.10.2", {}};
    EXPECT_EQ(writeSequence(settings),
              (std::vector<std::string>{"bulkip\n", "ip=0.0.0.0\n", "subnet=255.255.255.0\n", "gateway=192.168.10.1\n",
                                        "dns=192.168.10.2\n", "store\n", "reset\n"}));
}

TEST(WriteSequence, DevicesAreNumberedFromOneInRowOrder)
{
    const auto dump = parseIpDump({"dev;9;A;10.0.0.9;1", "dev;4;B;10.0.0.4;0"});
    Settings settings{"10.0.0.2", "255.0.0.0", "10.0.0.1", "10.0.0.1", {}};
    for (const auto& row : dump.devices) {
        settings.devices.push_back({row.address, row.enabled});
    }
    const auto lines = writeSequence(settings);
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_EQ(lines[5], "ipDevice1=10.0.0.9\n");
    EXPECT_EQ(lines[6], "enableDevice1=1\n");
    EXPECT_EQ(lines[7], "ipDevice2=10.0.0.4\n");
    EXPECT_EQ(lines[8], "enableDevice2=0\n");
    EXPECT_EQ(lines[9], "store\n");
    EXPECT_EQ(lines[10], "reset\n");
}
