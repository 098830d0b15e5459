// The port menu against the real port manager in a umockdev world.
#include "port_menu_view.h"

#include "controller/port_list.h"
#include "serial/serial_port_attributes.h"
#include "support/port_manager_world.h"

using namespace quendral;
using namespace quendral::test;

namespace {

SerialPortManager& manager()
{
    return SerialPortManager::sharedSerialPortManager();
}

// The names of the listed ports that the menu shows, in list order.
std::vector<std::string> menuWorthyNames()
{
    std::vector<std::string> names;
    for (const auto& port : manager().availablePorts()) {
        if (isUsbSerialPortName(port->name())) {
            names.push_back(port->name());
        }
    }
    return names;
}

class PortListTest : public PortManagerTest {
protected:
    void SetUp() override
    {
        PortManagerTest::SetUp();
        list = std::make_unique<PortList>(view, &appDelegate);
    }
    void TearDown() override
    {
        list.reset();
        PortManagerTest::TearDown();
    }

    // Runs a rebuild and waits for it.
    void rebuild()
    {
        const int rebuilds = view.rebuilds();
        list->updateSerialPorts();
        EXPECT_EQ(view.rebuilds(), rebuilds) << "the rebuild runs later, on the main queue";
        ASSERT_TRUE(waitFor([&] { return view.rebuilds() > rebuilds; }, kHotplugWait));
    }

    PortMenuView view;
    MonitorStateDelegate appDelegate;
    std::unique_ptr<PortList> list;
};

} // namespace

TEST(PortNameFilter, OnlyUsbSerialAdaptersAndNativeUsbBoardsCount)
{
    EXPECT_TRUE(isUsbSerialPortName("ttyUSB0"));
    EXPECT_TRUE(isUsbSerialPortName("ttyACM12"));
    EXPECT_FALSE(isUsbSerialPortName("ttyS0"));
    EXPECT_FALSE(isUsbSerialPortName("rfcomm0"));
    EXPECT_FALSE(isUsbSerialPortName("ttyAMA0"));
    EXPECT_FALSE(isUsbSerialPortName(""));
}

TEST_F(PortListTest, MenuListsUsbPortsInThePortManagersOrder)
{
    // Arrival order, not name order: a ttyUSB after a ttyACM, a modem-like port between.
    auto acm = plugIn("ttyACM", 0x2341, 0x8037);
    ASSERT_TRUE(waitFor([&] { return listed(acm->devnode()); }, kHotplugWait));
    auto usb = plugIn("ttyUSB", 0x0403, 0x6001);
    ASSERT_TRUE(waitFor([&] { return listed(usb->devnode()); }, kHotplugWait));

    rebuild();
    const auto titles = view.portMenuTitles();
    EXPECT_EQ(titles, menuWorthyNames());
    ASSERT_GE(titles.size(), 2u);
    EXPECT_EQ(titles[titles.size() - 2], acm->ttyName());
    EXPECT_EQ(titles.back(), usb->ttyName());
}

TEST_F(PortListTest, APortWithoutUsbIsNeverListedInTheMenu)
{
    ASSERT_TRUE(listed("/dev/ttyS0")) << "the port manager knows it";
    rebuild();
    const auto titles = view.portMenuTitles();
    EXPECT_EQ(std::find(titles.begin(), titles.end(), "ttyS0"), titles.end());
    EXPECT_FALSE(titles.empty());
    EXPECT_EQ(list->pathOfSerialPortWithName("ttyS0"), "/dev/ttyS0") << "only the menu leaves it out";
}

TEST_F(PortListTest, AConnectRebuildSelectsTheFirstPortEvenWhenTheSecondWasSelected)
{
    list->observePortChanges();
    rebuild();
    const auto titles = view.portMenuTitles();
    ASSERT_GE(titles.size(), 2u);
    const std::string a = titles[0];
    const std::string b = titles[1];
    EXPECT_EQ(view.selectedPortTitle(), a);
    view.userSelects(b);
    ASSERT_EQ(view.selectedPortTitle(), b);
    EXPECT_EQ(list->pathOfSelectedPort(), list->pathOfSerialPortWithName(b));

    const int rebuilds = view.rebuilds();
    auto device = plugIn("ttyUSB", 0x0403, 0x6001); // the connect notification
    ASSERT_TRUE(
        waitFor([&] { return view.rebuilds() > rebuilds && lastTitle(view) == device->ttyName(); }, kHotplugWait));
    EXPECT_EQ(view.selectedPortTitle(), a);
}

TEST_F(PortListTest, TheMenuFollowsConnectAndDisconnectNotifications)
{
    list->observePortChanges();
    rebuild();
    auto device = plugIn("ttyACM", 0x2341, 0x0037);
    ASSERT_TRUE(waitFor(
        [&] {
            const auto titles = view.portMenuTitles();
            return std::find(titles.begin(), titles.end(), device->ttyName()) != titles.end();
        },
        kHotplugWait));
    world().testbed->unplug(*device);
    ASSERT_TRUE(waitFor(
        [&] {
            const auto titles = view.portMenuTitles();
            return std::find(titles.begin(), titles.end(), device->ttyName()) == titles.end();
        },
        kHotplugWait));
    EXPECT_EQ(view.portMenuTitles(), menuWorthyNames());
}

TEST_F(PortListTest, WithoutAnyUsbPortTheMenuIsEmptyAndNoPathIsSelected)
{
    // Take the world's two USB devices away for the length of this test.
    auto& w = world();
    w.testbed->unplug(*w.adapter);
    w.testbed->unplug(*w.board);
    ASSERT_TRUE(waitFor([&] { return menuWorthyNames().empty(); }, kHotplugWait));
    rebuild();
    EXPECT_TRUE(view.portMenuTitles().empty());
    EXPECT_FALSE(view.selectedPortTitle());
    EXPECT_FALSE(list->pathOfSelectedPort());
    EXPECT_TRUE(appDelegate.monitorOpenedWith().empty());

    // Put two alike back (same identities; a node cannot be handed out twice,
    // so under new names) for the tests that follow.
    sim::UsbSerialDeviceInfo adapter;
    adapter.ttyName = w.testbed->unusedTtyName("ttyUSB0");
    adapter.vendorId = 0x0403;
    adapter.productId = 0x6001;
    sim::UsbSerialDeviceInfo board;
    board.ttyName = w.testbed->unusedTtyName("ttyACM0");
    w.adapter = w.testbed->addUsbSerialDevice(adapter);
    w.board = w.testbed->addUsbSerialDevice(board);
    ASSERT_TRUE(w.adapter && w.board);
    ASSERT_TRUE(waitFor([&] { return listed(w.adapter->devnode()) && listed(w.board->devnode()); }, kHotplugWait));
    before = pathsOf(manager().availablePorts());
}

TEST_F(PortListTest, PathOfSerialPortWithNameNeedsTheExactName)
{
    const auto& board = *world().board;
    EXPECT_EQ(list->pathOfSerialPortWithName(board.ttyName()), board.devnode());
    EXPECT_FALSE(list->pathOfSerialPortWithName("ttyACM"));
    EXPECT_FALSE(list->pathOfSerialPortWithName(board.ttyName() + "0"));
    EXPECT_FALSE(list->pathOfSerialPortWithName(board.devnode()));
}

TEST_F(PortListTest, GetPIDVIDGivesTheCombinedIdentifierOfEveryKnownBoard)
{
    for (const BoardIdentification& row : BoardTable::rows()) {
        SCOPED_TRACE(row.board);
        auto device = plugIn(row.family == BoardFamily::AvrSerial ? "ttyUSB" : "ttyACM", row.vendorId, row.productId);
        ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
        EXPECT_EQ(list->getPIDVID(device->devnode()), row.identifier);
        EXPECT_EQ(BoardTable::find(list->getPIDVID(device->devnode())), &row);
    }
    EXPECT_EQ(list->getPIDVID(world().board->devnode()), 0x2341003Eu);
    EXPECT_EQ(list->getPIDVID(world().adapter->devnode()), 0x04036001u);
}

TEST_F(PortListTest, GetPIDVIDIsZeroForAnUnknownPathAndForAPortWithoutUsb)
{
    EXPECT_EQ(list->getPIDVID("/dev/ttyACM99"), 0u);
    EXPECT_EQ(list->getPIDVID(""), 0u);
    EXPECT_EQ(list->getPIDVID(world().board->ttyName()), 0u) << "paths must match exactly";
    EXPECT_EQ(list->getPIDVID("/dev/ttyS0"), 0u);
}

TEST_F(PortListTest, GetPIDVIDOfAPortThatHasGoneIsZero)
{
    auto device = plugIn("ttyACM", 0x2341, 0x8037);
    ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
    EXPECT_EQ(list->getPIDVID(device->devnode()), 0x23418037u);
    world().testbed->unplug(*device);
    ASSERT_TRUE(waitFor([&] { return !listed(device->devnode()); }, kHotplugWait));
    EXPECT_EQ(list->getPIDVID(device->devnode()), 0u);
}

TEST_F(PortListTest, AVisibleMonitorWithAClosedPortIsReopenedOnTheFirstListedPort)
{
    appDelegate.setMonitorVisibleWithClosedPort(true);
    rebuild();
    const auto titles = view.portMenuTitles();
    ASSERT_FALSE(titles.empty());
    EXPECT_EQ(appDelegate.monitorOpenedWith(), std::vector<std::string>{*list->pathOfSerialPortWithName(titles[0])});
}

TEST_F(PortListTest, AMonitorWhoseDeviceReturnsFollowsTheRebuild)
{
    list->observePortChanges();
    rebuild();
    auto device = plugIn("ttyACM", 0x2341, 0x003E);
    ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
    // The monitor's device goes away: its window stays, its port is closed.
    world().testbed->unplug(*device);
    ASSERT_TRUE(waitFor([&] { return !listed(device->devnode()); }, kHotplugWait));
    appDelegate.setMonitorVisibleWithClosedPort(true);
    const std::size_t opened = appDelegate.monitorOpenedWith().size();

    auto back = plugIn("ttyACM", 0x2341, 0x003E); // the board returns
    ASSERT_TRUE(waitFor([&] { return appDelegate.monitorOpenedWith().size() > opened; }, kHotplugWait));
    EXPECT_EQ(appDelegate.monitorOpenedWith().back(), *list->pathOfSerialPortWithName(view.portMenuTitles()[0]));
}

TEST_F(PortListTest, AMonitorWhosePortIsOpenIsLeftAlone)
{
    appDelegate.setMonitorVisibleWithClosedPort(false); // visible with its port open, or hidden
    rebuild();
    auto device = plugIn("ttyUSB", 0x0403, 0x6001);
    ASSERT_TRUE(waitFor([&] { return listed(device->devnode()); }, kHotplugWait));
    rebuild();
    EXPECT_TRUE(appDelegate.monitorOpenedWith().empty());
}

TEST_F(PortListTest, TheDriverIsPresentOnLinuxSoNoAlertIsShown)
{
    EXPECT_TRUE(PortList::isFTDIInstalled());
    list->warnIfFTDIDriverMissing();
    EXPECT_TRUE(view.events().empty());
}

TEST_F(PortListTest, AMissingDriverShowsTheAlertAndItsFirstButtonOpensTheDownloadPage)
{
    view.setDriverAlertAnswer(true);
    list->warnIfFTDIDriverMissing(false);
    const auto events = view.events();
    ASSERT_EQ(events.size(), 2u);
    const std::string url = PortList::ftdiDriverDownloadURL();
    EXPECT_TRUE(url.starts_with("https://")) << url;
    EXPECT_EQ(events[0], "driver alert FTDI driver not installed | Please install the USB Serial driver from " + url +
                             " | Go to download | Close");
    EXPECT_EQ(events[1], "open " + url);
}

TEST_F(PortListTest, ClosingTheDriverAlertOtherwiseDoesNothing)
{
    view.setDriverAlertAnswer(false);
    list->warnIfFTDIDriverMissing(false);
    EXPECT_EQ(view.events().size(), 1u);
    list->alertDidClose(1001);
    list->alertDidClose(0);
    EXPECT_EQ(view.events().size(), 1u);
    list->alertDidClose(PortList::kAlertFirstButtonReturn);
    EXPECT_EQ(view.events().size(), 2u);
}
