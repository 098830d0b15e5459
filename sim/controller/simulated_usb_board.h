#pragma once
// A Controller board on USB, in a umockdev device tree: it runs its firmware
// under one USB identity (a ControllerSimulator answers on its tty) and, after
// the 1200-baud touch, restarts into its boot loader under another identity,
// as a native-USB board does:
//
//   the application opens the port at 1200 baud and closes it
//   -> "remove" uevent for the firmware's device, which leaves the tree
//   -> (reboot time)
//   -> the boot loader's device (e.g. 03EB:6124) joins the tree, "add" uevent
//
// Each identity gets the tty name asked for, or, when that name was used
// before in the test bed, the next free number (umockdev cannot hand a /dev
// node out twice): the boot loader of a board on ttyACM3 may come up as ttyACM4.
//
// and back again with rebootIntoApplication() ("flashing done, reboot into
// the application"), which whatever serves the boot loader calls when the
// flashing tool asks for a reset.
//
// The boot loader's tty is served by a BootloaderPeer that a factory makes for
// each boot (a SAM-BA monitor for the SAM board, say); without a factory the
// boot loader's tty is present but nobody answers on it.
//
// Identity changes run on a thread of the board's own, one at a time, in the
// order asked for; they never run on the thread that noticed the touch.
#include "controller_simulator.h"
#include "umockdev_testbed.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace quendral::sim {

class SimulatedUsbBoard;

// Serves a boot loader's tty from its device end; stopped by destruction when
// the board leaves its boot loader or is unplugged.
class BootloaderPeer {
public:
    virtual ~BootloaderPeer() = default;
};

class SimulatedUsbBoard {
public:
    enum class Mode { Unplugged, Application, Bootloader };

    struct Identities {
        UsbSerialDeviceInfo application;
        UsbSerialDeviceInfo bootloader;
    };

    // The KorbatekDue: a SAM board on its native USB port (2341:003E) whose
    // SAM-BA boot loader shows as 03EB:6124.
    static Identities korbatekDue(const std::string& ttyName = "ttyACM0");
    // An ATmega32U4 board: firmware 2341:8037, boot loader 2341:0037.
    static Identities atmega32u4(const std::string& ttyName = "ttyACM0");

    using ControllerSetup = std::function<void(ControllerSimulator& controller)>;
    using BootloaderPeerFactory =
        std::function<std::unique_ptr<BootloaderPeer>(UmockdevSerialDevice& tty, SimulatedUsbBoard& board)>;

    SimulatedUsbBoard(UmockdevTestbed& testbed, Identities identities);
    // Unplugs the board (its device leaves the tree with a "remove" uevent).
    ~SimulatedUsbBoard();
    SimulatedUsbBoard(const SimulatedUsbBoard&) = delete;
    SimulatedUsbBoard& operator=(const SimulatedUsbBoard&) = delete;

    // Applied to every Controller the board starts (CID, version, trailer...).
    void setControllerSetup(ControllerSetup setup);
    void setBootloaderPeerFactory(BootloaderPeerFactory factory);
    // How long the board is off the bus between two identities (default 0).
    void setRebootTime(std::chrono::milliseconds time);

    // --- plugging; these wait until the change is done ------------------------
    void plugIn();           // running its firmware
    void plugInBootloader(); // sitting in its boot loader
    void unplug();

    // --- reboots; asynchronous (see waitForMode) ------------------------------
    // What the 1200-baud touch does.
    void rebootIntoBootloader();
    // Flashing done: the boot loader's device goes, the firmware's comes back.
    void rebootIntoApplication();

    [[nodiscard]] Mode mode() const;
    // Waits (real time) until the board is in this mode and no change is pending.
    bool waitForMode(Mode mode, std::chrono::milliseconds timeout) const;
    // The current tty (nullptr while unplugged) and, while the firmware runs, its Controller.
    [[nodiscard]] std::shared_ptr<UmockdevSerialDevice> device() const;
    [[nodiscard]] std::shared_ptr<ControllerSimulator> controller() const;
    [[nodiscard]] const Identities& identities() const { return _identities; }
    // Touches the firmware has seen, over all its runs.
    [[nodiscard]] int touchCount() const;

private:
    void enqueue(Mode target);
    void waitUntilIdle();
    void run();
    void switchTo(Mode target);
    void tearDown();

    UmockdevTestbed& _testbed;
    const Identities _identities;
    // Firmware and boot loader come and go on the board's one USB socket.
    const int _usbPort;

    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    std::deque<Mode> _requests;
    bool _busy = false;
    bool _stopping = false;
    Mode _mode = Mode::Unplugged;
    ControllerSetup _setup;
    BootloaderPeerFactory _peerFactory;
    std::chrono::milliseconds _rebootTime{0};
    std::shared_ptr<UmockdevSerialDevice> _device;
    std::shared_ptr<ControllerSimulator> _controller;
    std::unique_ptr<BootloaderPeer> _peer;
    int _touches = 0;

    std::thread _thread; // last: starts once everything above exists
};

} // namespace quendral::sim
