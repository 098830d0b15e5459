// MainViewController's port list: the same menu and look-ups, reached through
// the controller that the window and the update road use.
#include "port_menu_view.h"

#include "controller/main_view_controller.h"
#include "simulated_usb_board.h"
#include "support/port_manager_world.h"

#include <thread>

using namespace quendral;
using namespace quendral::test;

using MainViewControllerPorts = PortManagerTest;

TEST_F(MainViewControllerPorts, TheSelectedPathAndIdentityComeFromTheRebuiltMenu)
{
    PortMenuView view;
    MonitorStateDelegate appDelegate;
    auto controller = MainViewController::create(view, &appDelegate);
    EXPECT_FALSE(controller->pathOfSelectedPort()) << "nothing is selected before the first rebuild";
    controller->updateSerialPorts();
    ASSERT_TRUE(waitFor([&] { return view.rebuilds() > 0; }, kHotplugWait));
    const auto titles = view.portMenuTitles();
    ASSERT_FALSE(titles.empty());
    const auto path = controller->pathOfSelectedPort();
    ASSERT_TRUE(path);
    EXPECT_EQ(path, controller->pathOfSerialPortWithName(titles[0]));
    EXPECT_EQ(controller->getPIDVID(world().board->devnode()), 0x2341003Eu);
    EXPECT_TRUE(MainViewController::isFTDIInstalled());
}

TEST_F(MainViewControllerPorts, TheControllerFollowsThePortManagersNotifications)
{
    PortMenuView view;
    auto controller = MainViewController::create(view, nullptr);
    controller->observePortChanges();
    controller->updateSerialPorts();
    ASSERT_TRUE(waitFor([&] { return view.rebuilds() > 0; }, kHotplugWait));
    auto device = plugIn("ttyUSB", 0x26BA, 0x0003);
    ASSERT_TRUE(waitFor([&] { return lastTitle(view) == device->ttyName(); }, kHotplugWait));
    EXPECT_EQ(controller->getPIDVID(*controller->pathOfSerialPortWithName(device->ttyName())), 0x26BA0003u);
}

TEST_F(MainViewControllerPorts, TheResetPortBecomesTheControllersSerialAndTheBoardEntersItsBootLoader)
{
    PortMenuView view;
    auto controller = MainViewController::create(view, nullptr);
    sim::SimulatedUsbBoard board(*world().testbed, sim::SimulatedUsbBoard::korbatekDue(nextTtyName("ttyACM")));
    board.plugIn();
    const std::string path = board.device()->devnode();
    ASSERT_TRUE(waitFor([&] { return listed(path); }, kHotplugWait));

    std::atomic<bool> done{false};
    std::thread worker([&] {
        controller->resetDevice(path, 0);
        done = true;
    });
    const bool returned = waitFor([&] { return done.load(); }, kHotplugWait);
    worker.join();
    ASSERT_TRUE(returned);
    ASSERT_TRUE(controller->serial());
    EXPECT_EQ(controller->serial()->path(), path);
    ASSERT_TRUE(board.waitForMode(sim::SimulatedUsbBoard::Mode::Bootloader, 10000ms));
    const std::string bootloaderPath = board.device()->devnode();
    ASSERT_TRUE(waitFor([&] { return controller->getPIDVID(bootloaderPath) == 0x03EB6124u; }, kHotplugWait));
}
