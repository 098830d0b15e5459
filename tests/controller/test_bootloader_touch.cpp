// The 1200-baud touch on simulated USB boards: the board leaves the bus and
// comes back as its boot loader; the port manager and the menu follow.
#include "port_menu_view.h"

#include "controller/port_list.h"
#include "simulated_usb_board.h"
#include "support/port_manager_world.h"
#include "support/recording_serial_delegate.h"

#include <thread>

using namespace quendral;
using namespace quendral::test;

namespace {

SerialPortManager& manager()
{
    return SerialPortManager::sharedSerialPortManager();
}

// Sleeps pass at once and are written down.
class RecordingClock final : public Clock {
public:
    [[nodiscard]] TimePoint now() const override { return std::chrono::steady_clock::now(); }
    void sleepFor(Seconds duration) override
    {
        std::lock_guard lock(_mutex);
        _sleeps.push_back(duration.count());
    }
    [[nodiscard]] std::vector<double> sleeps() const
    {
        std::lock_guard lock(_mutex);
        return _sleeps;
    }

private:
    mutable std::mutex _mutex;
    std::vector<double> _sleeps;
};

// Stands in for a SAM-BA monitor: notes the tty it was given and lives as long as the boot loader.
class NotingPeer final : public sim::BootloaderPeer {
public:
    NotingPeer(std::atomic<int>& alive, std::string devnode, std::vector<std::string>& served) : _alive(alive)
    {
        ++_alive;
        served.push_back(std::move(devnode));
    }
    ~NotingPeer() override { --_alive; }
    NotingPeer(const NotingPeer&) = delete;
    NotingPeer& operator=(const NotingPeer&) = delete;

private:
    std::atomic<int>& _alive;
};

class BootloaderTouch : public PortManagerTest {
protected:
    // Runs the blocking reset on a worker, as the upload driver does, while
    // the main queue keeps delivering the port manager's events.
    void resetOnWorker(PortList& list, const std::string& path, int delay)
    {
        std::atomic<bool> done{false};
        std::jthread worker([&](std::stop_token stop) {
            list.resetDevice(path, delay, stop);
            done = true;
        });
        EXPECT_TRUE(waitFor([&] { return done.load(); }, kHotplugWait)) << "resetDevice did not return";
    }

    PortMenuView view;
    MonitorStateDelegate appDelegate;
    RecordingClock clock;
};

} // namespace

TEST_F(BootloaderTouch, TouchingASamBoardBringsUpItsSambaBootLoaderAndTheMenuFollows)
{
    PortList list(view, &appDelegate, &manager(), clock);
    list.observePortChanges();
    sim::SimulatedUsbBoard board(*world().testbed, sim::SimulatedUsbBoard::korbatekDue(nextTtyName("ttyACM")));
    board.plugIn();
    const std::string path = board.device()->devnode();
    const std::string name = board.device()->ttyName();
    ASSERT_TRUE(waitFor([&] { return listed(path) && lastTitle(view) == name; }, kHotplugWait));
    ASSERT_EQ(list.getPIDVID(path), 0x2341003Eu);

    NotificationRecorder recorder;
    resetOnWorker(list, path, 0);
    EXPECT_EQ(clock.sleeps(), std::vector<double>{0.0});
    ASSERT_TRUE(board.waitForMode(sim::SimulatedUsbBoard::Mode::Bootloader, 10000ms));
    EXPECT_EQ(board.touchCount(), 1);

    const std::string bootloaderPath = board.device()->devnode();
    const std::string bootloaderName = board.device()->ttyName();

    // Both changes reach the port manager: the firmware's device left, the boot loader's came.
    ASSERT_TRUE(recorder.waitForCount(SerialPortsWereDisconnectedNotification, 1));
    ASSERT_TRUE(waitFor(
        [&] {
            return recorder.count(SerialPortsWereConnectedNotification) >= 1 &&
                   !recorder.last(SerialPortsWereConnectedNotification).paths.empty();
        },
        kHotplugWait));
    EXPECT_EQ(recorder.last(SerialPortsWereDisconnectedNotification).paths, std::vector<std::string>{path});
    EXPECT_EQ(recorder.last(SerialPortsWereConnectedNotification).paths, std::vector<std::string>{bootloaderPath});
    EXPECT_FALSE(listed(path));
    EXPECT_EQ(list.getPIDVID(path), 0u);
    EXPECT_EQ(list.getPIDVID(bootloaderPath), 0x03EB6124u);
    // The menu drops the firmware's port and lists the boot loader's at the end (it arrived last).
    ASSERT_TRUE(waitFor(
        [&] {
            const auto titles = view.portMenuTitles();
            return lastTitle(view) == bootloaderName && std::find(titles.begin(), titles.end(), name) == titles.end();
        },
        kHotplugWait));
    EXPECT_EQ(list.getPIDVID(*list.pathOfSerialPortWithName(bootloaderName)), 0x03EB6124u);
}

TEST_F(BootloaderTouch, AnAtmega32U4BoardIsTouchedWithItsDelayAndComesBackAsItsBootLoader)
{
    PortList list(view, &appDelegate, &manager(), clock);
    sim::SimulatedUsbBoard board(*world().testbed, sim::SimulatedUsbBoard::atmega32u4(nextTtyName("ttyACM")));
    board.setRebootTime(50ms);
    board.plugIn();
    const std::string path = board.device()->devnode();
    ASSERT_TRUE(waitFor([&] { return listed(path); }, kHotplugWait));
    ASSERT_EQ(list.getPIDVID(path), 0x23418037u);

    resetOnWorker(list, path, 1);
    EXPECT_EQ(clock.sleeps(), std::vector<double>{1.0});
    ASSERT_TRUE(board.waitForMode(sim::SimulatedUsbBoard::Mode::Bootloader, 10000ms));
    const std::string bootloaderPath = board.device()->devnode();
    ASSERT_TRUE(waitFor([&] { return list.getPIDVID(bootloaderPath) == 0x23410037u; }, kHotplugWait));
    ASSERT_TRUE(list.serial());
    EXPECT_EQ(list.serial()->path(), path);
    EXPECT_EQ(list.serial()->baudRate(), 1200u);
    EXPECT_FALSE(list.serial()->DTR());
    EXPECT_FALSE(list.serial()->RTS());
}

TEST_F(BootloaderTouch, AnOrdinaryOpenAndCloseIsNoTouch)
{
    sim::SimulatedUsbBoard board(*world().testbed, sim::SimulatedUsbBoard::korbatekDue(nextTtyName("ttyACM")));
    board.plugIn();
    const std::string path = board.device()->devnode();
    ASSERT_TRUE(waitFor([&] { return listed(path); }, kHotplugWait));
    auto port = SerialPort::serialPortWithPath(path);
    ASSERT_TRUE(port);
    port->setBaudRate(115200);
    port->open();
    ASSERT_TRUE(port->isOpen());
    ASSERT_TRUE(board.controller()->waitForPortOpen(true, 5000ms));
    port->close();
    ASSERT_TRUE(waitFor([&] { return !port->isOpen(); }, kHotplugWait));
    ASSERT_TRUE(board.controller()->waitForPortOpen(false, 5000ms));
    dispatch::RunLoop::main().runFor(200ms);
    EXPECT_EQ(board.touchCount(), 0);
    EXPECT_EQ(board.mode(), sim::SimulatedUsbBoard::Mode::Application);
}

TEST_F(BootloaderTouch, FlashingDoneRebootsIntoTheApplicationIdentityAndItsController)
{
    std::atomic<int> peersAlive{0};
    std::vector<std::string> served;
    sim::SimulatedUsbBoard board(*world().testbed, sim::SimulatedUsbBoard::korbatekDue(nextTtyName("ttyACM")));
    board.setControllerSetup([](sim::ControllerSimulator& controller) {
        controller.setCID("FEDCBA9876543210FEDCBA9876543210");
        controller.setTrailer("\n");
    });
    board.setBootloaderPeerFactory([&](sim::UmockdevSerialDevice& tty, sim::SimulatedUsbBoard& /*board*/) {
        return std::make_unique<NotingPeer>(peersAlive, tty.devnode(), served);
    });
    board.plugIn();
    const std::string path = board.device()->devnode();
    PortList list(view, &appDelegate, &manager(), clock);
    ASSERT_TRUE(waitFor([&] { return listed(path); }, kHotplugWait));

    board.rebootIntoBootloader();
    ASSERT_TRUE(board.waitForMode(sim::SimulatedUsbBoard::Mode::Bootloader, 10000ms));
    EXPECT_EQ(peersAlive.load(), 1);
    const std::string bootloaderPath = board.device()->devnode();
    EXPECT_EQ(served, std::vector<std::string>{bootloaderPath});
    ASSERT_TRUE(waitFor([&] { return list.getPIDVID(bootloaderPath) == 0x03EB6124u; }, kHotplugWait));

    board.rebootIntoApplication();
    ASSERT_TRUE(board.waitForMode(sim::SimulatedUsbBoard::Mode::Application, 10000ms));
    EXPECT_EQ(peersAlive.load(), 0) << "the boot loader's peer stops with the boot loader";
    const std::string applicationPath = board.device()->devnode();
    ASSERT_TRUE(waitFor([&] { return list.getPIDVID(applicationPath) == 0x2341003Eu; }, kHotplugWait));
    EXPECT_FALSE(listed(bootloaderPath));
    EXPECT_FALSE(listed(path));

    // The firmware answers again, with the identity the setup gave it.
    auto port = SerialPort::serialPortWithPath(applicationPath);
    ASSERT_TRUE(port);
    auto delegate = std::make_shared<RecordingSerialDelegate>();
    port->setDelegate(delegate);
    port->setBaudRate(115200);
    port->open();
    ASSERT_TRUE(port->isOpen());
    ASSERT_TRUE(board.controller()->waitForPortOpen(true, 5000ms));
    std::this_thread::sleep_for(100ms); // the simulator settles after the open, as a board would
    port->sendData(std::string_view("getCID\n"));
    EXPECT_TRUE(board.controller()->waitForLine("getCID", 5000ms));
    EXPECT_TRUE(waitFor(
        [&] { return delegate->receivedText().find("CID:FEDCBA9876543210FEDCBA9876543210\n") != std::string::npos; },
        kHotplugWait));
    port->close();
    ASSERT_TRUE(waitFor([&] { return !port->isOpen(); }, kHotplugWait));
}

TEST_F(BootloaderTouch, AResetOfAPortThatNeverOpensKeepsTryingUntilStopped)
{
    PortList list(view, &appDelegate, &manager(), clock);
    std::atomic<bool> returned{false};
    {
        std::jthread worker([&](std::stop_token stop) {
            list.resetDevice("/dev/ttyACM98", 0, stop);
            returned = true;
        });
        std::this_thread::sleep_for(200ms);
        EXPECT_FALSE(returned.load()) << "gave up by itself";
    } // the jthread asks it to stop and joins
    EXPECT_TRUE(returned.load());
    EXPECT_TRUE(clock.sleeps().empty()) << "never opened, so never slept or closed";
}
