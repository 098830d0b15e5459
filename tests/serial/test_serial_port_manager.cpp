// SerialPortManager in a umockdev world: enumeration, arrival, removal, the
// single instance, sleep and wake, the exit handler, and the USB identity.
#include "serial/serial_port_attributes.h"
#include "serial/udev_device_registry.h"
#include "support/port_manager_world.h"
#include "support/recording_serial_delegate.h"

#include <cstdio>
#include <type_traits>

using namespace quendral;
using namespace quendral::test;

namespace {

SerialPortManager& manager()
{
    return SerialPortManager::sharedSerialPortManager();
}

} // namespace

using SerialPortManagerTest = PortManagerTest;

TEST_F(SerialPortManagerTest, EnumeratesEverySerialDeviceInRegistryOrderWithoutSorting)
{
    const auto& enumerated = world().enumeratedPaths;
    EXPECT_EQ(enumerated, world().registryPaths);
    // ttyS0 counts as a serial port (it is only kept out of the menu).
    ASSERT_EQ(enumerated.size(), 3u);
    std::vector<std::string> sorted = enumerated;
    std::sort(sorted.begin(), sorted.end());
    // The registry lists the USB devices by their place on the bus (ttyUSB0 on
    // port 1 before ttyACM0 on port 2): not the order of their names.
    const auto usb = std::find(enumerated.begin(), enumerated.end(), "/dev/ttyUSB0");
    const auto acm = std::find(enumerated.begin(), enumerated.end(), "/dev/ttyACM0");
    ASSERT_NE(usb, enumerated.end());
    ASSERT_NE(acm, enumerated.end());
    EXPECT_LT(usb, acm);
    EXPECT_NE(enumerated, sorted);
}

TEST_F(SerialPortManagerTest, SecondAllocOrCopyYieldsTheSameInstanceWithTheSameList)
{
    static_assert(!std::is_default_constructible_v<SerialPortManager>);
    static_assert(!std::is_copy_constructible_v<SerialPortManager>);
    static_assert(!std::is_move_constructible_v<SerialPortManager>);
    SerialPortManager& first = SerialPortManager::sharedSerialPortManager();
    SerialPortManager& allocated = SerialPortManager::alloc().init();
    SerialPortManager& copied = first.copy();
    EXPECT_EQ(&first, &allocated);
    EXPECT_EQ(&first, &copied);
    EXPECT_EQ(&first, &sharedSerialPortManager());
    EXPECT_EQ(pathsOf(allocated.availablePorts()), pathsOf(first.availablePorts()));
    EXPECT_FALSE(first.availablePorts().empty());
}

TEST_F(SerialPortManagerTest, PluggingInAppendsOnePortAndPostsAListOfOne)
{
    NotificationRecorder recorder;
    std::vector<AvailablePortsChange> changes;
    const auto observer =
        manager().addAvailablePortsObserver([&](const AvailablePortsChange& c) { changes.push_back(c); });

    auto device = plugIn("ttyUSB", 0x0403, 0x6001);
    ASSERT_TRUE(recorder.waitForCount(SerialPortsWereConnectedNotification, 1));
    manager().removeAvailablePortsObserver(observer);

    const auto entry = recorder.last(SerialPortsWereConnectedNotification);
    EXPECT_EQ(entry.paths, std::vector<std::string>{device->devnode()});
    EXPECT_EQ(entry.sender, &manager());
    EXPECT_TRUE(entry.onMainThread);
    std::vector<std::string> expected = before;
    expected.push_back(device->devnode());
    EXPECT_EQ(pathsOf(manager().availablePorts()), expected) << "appended at the end";
    EXPECT_EQ(entry.availableAtPost, expected) << "the list changes before the notification";
    // One change through the observable list, an insertion at the end.
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].kind, AvailablePortsChange::Kind::Insertion);
    EXPECT_EQ(changes[0].indexes, std::vector<std::size_t>{before.size()});
    EXPECT_EQ(manager().objectInAvailablePortsAtIndex(before.size())->name(), device->ttyName());
    EXPECT_EQ(manager().countOfAvailablePorts(), before.size() + 1);
}

TEST_F(SerialPortManagerTest, RepublicationOfAListedPortAddsNothingButStillPostsAnEmptyList)
{
    auto device = plugIn("ttyACM", 0x2341, 0x8037);
    ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
    const std::size_t count = manager().countOfAvailablePorts();

    NotificationRecorder recorder;
    world().testbed->uevent(*device, "add");
    ASSERT_TRUE(recorder.waitForCount(SerialPortsWereConnectedNotification, 1));
    EXPECT_TRUE(recorder.last(SerialPortsWereConnectedNotification).paths.empty());
    EXPECT_EQ(manager().countOfAvailablePorts(), count);
}

TEST_F(SerialPortManagerTest, UnpluggingClosesTheOpenPortTellsItsDelegateThenRemovesAndPosts)
{
    auto device = plugIn("ttyUSB", 0x26BA, 0x0003);
    ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
    auto port = SerialPort::serialPortWithPath(device->devnode());
    ASSERT_TRUE(port);
    auto delegate = std::make_shared<RecordingSerialDelegate>();
    port->setDelegate(delegate);
    port->open();
    ASSERT_TRUE(port->isOpen());
    ASSERT_TRUE(waitFor([&] { return delegate->count("opened") == 1; }, kHotplugWait));

    NotificationRecorder recorder;
    world().testbed->unplug(*device);
    ASSERT_TRUE(recorder.waitForCount(SerialPortsWereDisconnectedNotification, 1));
    const auto entry = recorder.last(SerialPortsWereDisconnectedNotification);
    EXPECT_EQ(entry.paths, std::vector<std::string>{device->devnode()});
    EXPECT_EQ(entry.sender, &manager());
    EXPECT_TRUE(entry.onMainThread);
    EXPECT_EQ(entry.availableAtPost, before) << "the port left the list before the notification";
    EXPECT_GE(delegate->count("removed"), 1u);
    ASSERT_TRUE(waitFor([&] { return !port->isOpen(); }, kHotplugWait));
    ASSERT_TRUE(waitFor([&] { return delegate->count("closed") == 1; }, kHotplugWait));
    // The removed port stays a valid, closed object for whoever holds it.
    EXPECT_EQ(port->path(), device->devnode());
    EXPECT_FALSE(listed(device->devnode()));
}

TEST_F(SerialPortManagerTest, ABuiltInPortHasNoVendorOrProduct)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyS0");
    ASSERT_TRUE(port);
    EXPECT_FALSE(ioDeviceAttributes(*port));
    EXPECT_FALSE(vendorID(*port));
    EXPECT_FALSE(productID(*port));
}

TEST_F(SerialPortManagerTest, TheUsbIdentityComesFromTheNearestUsbDeviceAbove)
{
    // ttyUSB ports sit below a usb-serial node and the interface; ttyACM below the interface.
    auto adapter = plugIn("ttyUSB", 0x0403, 0x6001);
    auto board = plugIn("ttyACM", 0x2A03, 0x0037);
    ASSERT_TRUE(waitFor([&] { return listed(adapter->devnode()) && listed(board->devnode()); }, kHotplugWait));
    auto adapterPort = SerialPort::serialPortWithPath(adapter->devnode());
    auto boardPort = SerialPort::serialPortWithPath(board->devnode());
    ASSERT_TRUE(adapterPort && boardPort);
    EXPECT_EQ(vendorID(*adapterPort), 0x0403);
    EXPECT_EQ(productID(*adapterPort), 0x6001);
    EXPECT_EQ(vendorID(*boardPort), 0x2A03);
    EXPECT_EQ(productID(*boardPort), 0x0037);
    const auto attributes = ioDeviceAttributes(*boardPort);
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->at("idVendor"), "2a03");
    EXPECT_EQ(attributes->at("product"), "QUENDRAL Controller");
    EXPECT_EQ(attributes->at("DEVTYPE"), "usb_device");
}

TEST_F(SerialPortManagerTest, EachIdentifierIsReadInOneWalkUpTheTree)
{
    // An update asks for a port's identity at every step and for every port
    // while it waits for a boot loader. Each identifier costs the port's own
    // look-up by its path (its tty and that tty's parent, not every tty of the
    // machine) and the devices on the way up once (tty, [usb-serial,]
    // interface, usb_device), not a fresh look-up for every attribute tried.
    auto adapter = plugIn("ttyUSB", 0x0403, 0x6001);
    auto board = plugIn("ttyACM", 0x2A03, 0x0037);
    ASSERT_TRUE(waitFor([&] { return listed(adapter->devnode()) && listed(board->devnode()); }, kHotplugWait));
    const auto devicesReadBy = [](const auto& read) {
        const std::uint64_t start = UdevDeviceRegistry::devicesRead();
        read();
        return UdevDeviceRegistry::devicesRead() - start;
    };
    for (const auto& [device, levels] : {std::pair{adapter, 2u + 4u}, std::pair{board, 2u + 3u}}) {
        auto port = SerialPort::serialPortWithPath(device->devnode());
        ASSERT_TRUE(port);
        EXPECT_EQ(devicesReadBy([&] { EXPECT_TRUE(vendorID(*port)); }), levels) << device->devnode();
        EXPECT_EQ(devicesReadBy([&] { EXPECT_TRUE(productID(*port)); }), levels) << device->devnode();
        EXPECT_EQ(devicesReadBy([&] { EXPECT_TRUE(usbLocation(*port)); }), levels) << device->devnode();
    }
}

TEST_F(SerialPortManagerTest, TheIdentityIsReadAfreshOnEveryCall)
{
    auto device = plugIn("ttyACM", 0x2341, 0x003E);
    ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
    auto port = SerialPort::serialPortWithPath(device->devnode());
    ASSERT_TRUE(port);
    EXPECT_EQ(productID(*port), 0x003E);
    // The device's own record changes under the held port object.
    world().testbed->setUsbAttribute(*device, "idVendor", "03eb");
    world().testbed->setUsbAttribute(*device, "idProduct", "6124");
    EXPECT_EQ(vendorID(*port), 0x03EB);
    EXPECT_EQ(productID(*port), 0x6124);
    // And once the device has gone, the held port has no identity at all.
    world().testbed->unplug(*device);
    ASSERT_TRUE(waitFor([&] { return !listed(device->devnode()); }, kHotplugWait));
    EXPECT_FALSE(vendorID(*port));
    EXPECT_FALSE(ioDeviceAttributes(*port));
}

TEST_F(SerialPortManagerTest, SleepClosesOpenPortsAndWakeReopensThem)
{
    auto device = plugIn("ttyUSB", 0x0403, 0x6001);
    ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
    auto port = SerialPort::serialPortWithPath(device->devnode());
    ASSERT_TRUE(port);
    port->open();
    ASSERT_TRUE(port->isOpen());

    manager().systemWillSleep();
    EXPECT_EQ(pathsOf(manager().portsToReopenAfterSleep()), std::vector<std::string>{device->devnode()});
    ASSERT_TRUE(waitFor([&] { return !port->isOpen(); }, kHotplugWait));

    manager().systemDidWake();
    EXPECT_TRUE(port->isOpen());
    EXPECT_TRUE(manager().portsToReopenAfterSleep().empty());
}

namespace {

// Says what it hears, for the exit handler's test (its child process's only way to speak).
class AnnouncingDelegate : public SerialPortDelegate {
public:
    bool respondsTo(SerialPortDelegateCallback callback) const override
    {
        return callback == SerialPortDelegateCallback::WasRemovedFromSystem;
    }
    void serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& port) override
    {
        std::fprintf(stderr, "removed %s while %s\n", port->path().c_str(), port->isOpen() ? "open" : "closed");
        std::fflush(stderr);
    }
};

} // namespace

TEST_F(SerialPortManagerTest, TheExitHandlerCleansUpEveryOpenPort)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
            if (!port) {
                std::exit(3);
            }
            auto delegate = std::make_shared<AnnouncingDelegate>();
            port->setDelegate(delegate);
            port->open();
            if (!port->isOpen()) {
                std::exit(4);
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "removed /dev/ttyACM0 while open");
}
