// Finding ports through the device registry (libudev on a umockdev tree).
#include "serial_test_bed.h"

#include "serial/device_registry.h"

using namespace quendral;
using namespace quendral::test;

using SerialPortLookup = SerialTestBed;

TEST_F(SerialPortLookup, PathThatNoRegistryEntryHasYieldsNone)
{
    EXPECT_EQ(SerialPort::serialPortWithPath("/dev/ttyACM7"), nullptr);
    EXPECT_EQ(SerialPort::serialPortWithPath(""), nullptr);
    EXPECT_EQ(SerialPort::deviceFromBSDPath(""), nullptr);
}

TEST_F(SerialPortLookup, DialinPathYieldsPortWhosePathIsTheCalloutPath)
{
    const DeviceHandle entry = SerialPort::deviceFromBSDPath("/dev/ttyACM0");
    ASSERT_NE(entry, nullptr);
    const auto dialin = SerialPort::bsdDialinPathFromDevice(entry);
    const auto callout = SerialPort::bsdCalloutPathFromDevice(entry);
    ASSERT_TRUE(dialin && callout);
    auto port = SerialPort::serialPortWithPath(*dialin);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->path(), *callout);
    // On Linux both are the one /dev node.
    EXPECT_EQ(*callout, "/dev/ttyACM0");
}

TEST_F(SerialPortLookup, RegistryPropertiesComeFromTheTtyEntry)
{
    const DeviceHandle entry = SerialPort::deviceFromBSDPath("/dev/ttyACM0");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->syspath, device->syspath());
    EXPECT_EQ(SerialPort::modemNameFromDevice(entry), "ttyACM0");
    EXPECT_EQ(SerialPort::baseNameFromDevice(entry), "ttyACM");
    EXPECT_EQ(SerialPort::suffixFromDevice(entry), "0");
    EXPECT_EQ(SerialPort::serviceTypeFromDevice(entry), "IOSerialStream");
    EXPECT_EQ(SerialPort::stringPropertyOf(entry, "NoSuchKey"), std::nullopt);
}

TEST_F(SerialPortLookup, NewPortCarriesNameAndDefaults)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->name(), "ttyACM0");
    EXPECT_EQ(port->description(), "ttyACM0");
    EXPECT_FALSE(port->isOpen());
    EXPECT_EQ(port->fileDescriptor(), 0);
    EXPECT_EQ(port->baudRate(), 19200u);
    EXPECT_FALSE(port->allowsNonStandardBaudRates());
    EXPECT_EQ(port->numberOfStopBits(), 1u);
    EXPECT_EQ(port->parity(), SerialPortParity::None);
    EXPECT_FALSE(port->shouldEchoReceivedData());
    EXPECT_FALSE(port->usesRTSCTSFlowControl());
    EXPECT_FALSE(port->usesDTRDSRFlowControl());
    EXPECT_FALSE(port->usesDCDOutputFlowControl());
    EXPECT_FALSE(port->RTS());
    EXPECT_FALSE(port->DTR());
    EXPECT_FALSE(port->CTS());
    EXPECT_EQ(port->delegate(), nullptr);
    ASSERT_NE(port->requestHandlingQueue(), nullptr);
    EXPECT_TRUE(port->requestHandlingQueue()->label().ends_with(".SerialPort.requestHandlingQueue"));
}

TEST_F(SerialPortLookup, CreatingTwiceForTheSameDeviceYieldsTheSameObjectWhileAlive)
{
    auto first = SerialPort::serialPortWithPath("/dev/ttyACM0");
    auto second = SerialPort::serialPortWithPath("/dev/ttyACM0");
    auto third = SerialPort::serialPortWithDevice(SerialPort::deviceFromBSDPath("/dev/ttyACM0"));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(first.get(), third.get());
    EXPECT_EQ(SerialPort::existingPortWithPath("/dev/ttyACM0").get(), first.get());
    ASSERT_EQ(SerialPort::allSerialPorts().size(), 1u);

    // The registry does not keep a port alive.
    const SerialPort* old = first.get();
    first.reset();
    second.reset();
    third.reset();
    EXPECT_EQ(SerialPort::existingPortWithPath("/dev/ttyACM0"), nullptr);
    EXPECT_TRUE(SerialPort::allSerialPorts().empty());
    auto fresh = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->path(), "/dev/ttyACM0");
    (void)old;
}

TEST_F(SerialPortLookup, PortsAreEqualByPath)
{
    auto second = testbed->addUsbSerialDevice({.ttyName = "ttyACM1"});
    auto a = SerialPort::serialPortWithPath("/dev/ttyACM0");
    auto b = SerialPort::serialPortWithPath("/dev/ttyACM1");
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(*a == *a);
    EXPECT_FALSE(*a == *b);
    EXPECT_EQ(a->hash(), std::hash<std::string>{}("/dev/ttyACM0"));
}

TEST_F(SerialPortLookup, RegistryListsUsbAndBuiltinPortsButNoVirtualTerminals)
{
    testbed->addBuiltinSerialPort("ttyS0");
    testbed->addUsbSerialDevice({.ttyName = "ttyUSB0", .vendorId = 0x0403, .productId = 0x6001});
    std::vector<std::string> nodes;
    for (const auto& entry : DeviceRegistry::shared().serialDevices()) {
        nodes.push_back(entry->devnode);
    }
    std::sort(nodes.begin(), nodes.end());
    EXPECT_EQ(nodes, (std::vector<std::string>{"/dev/ttyACM0", "/dev/ttyS0", "/dev/ttyUSB0"}));
}

TEST_F(SerialPortLookup, UsbIdentityIsFoundAboveThePort)
{
    DeviceHandle entry = SerialPort::deviceFromBSDPath("/dev/ttyACM0");
    ASSERT_NE(entry, nullptr);
    std::optional<std::string> vendor;
    std::optional<std::string> product;
    for (DeviceHandle up = DeviceRegistry::shared().parentOf(entry); up; up = DeviceRegistry::shared().parentOf(up)) {
        vendor = DeviceRegistry::shared().attribute(up, "idVendor");
        product = DeviceRegistry::shared().attribute(up, "idProduct");
        if (vendor && product) {
            EXPECT_EQ(up->devtype, "usb_device");
            break;
        }
    }
    EXPECT_EQ(vendor, "2341");
    EXPECT_EQ(product, "003e");
}

TEST_F(SerialPortLookup, PortWithoutADeviceIsAProgrammingErrorThatStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(SerialPort::serialPortWithDevice(nullptr), "initWithDevice: requires non-zero device argument\\.");
}
