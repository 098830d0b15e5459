#pragma once
// The main window's port menu and what it stands for: the menu follows the
// port manager's list (USB serial adapters and native-USB boards only), the
// selected title is turned back into a device path on demand, the board behind
// a path is told by its combined USB identifier, and a board is sent into its
// boot loader with the 1200-baud touch.
//
// The menu holds titles only; every look-up asks the port manager afresh, so
// a procedure that runs while the list changes uses whatever is listed and
// selected at that moment.
//
// Threading: the rebuild runs on the main queue. pathOfSelectedPort,
// pathOfSerialPortWithName and getPIDVID are called from background work too.
// resetDevice blocks its caller and must never run on the main queue.
#include "controller/main_view.h"
#include "controller/port_path.h"
#include "flashing/board_table.h"
#include "platform/clock.h"
#include "platform/notification_center.h"
#include "serial/serial_port.h"
#include "serial/serial_port_manager.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

namespace quendral {

// The Linux names of the ports the menu lists: "ttyUSB" (USB serial adapters,
// what other systems call "usbserial") and "ttyACM" (native-USB boards, "usbmodem").
[[nodiscard]] bool isUsbSerialPortName(std::string_view name);

// The Controller ports the port manager lists now (the menu's ports), in its order.
[[nodiscard]] SerialPortList listedControllerPorts(SerialPortManager& manager);

// The port at `path`, followed when its board resets onto another node (its
// boot loader, its new firmware). A board on USB is followed by its socket:
// `path` while it is listed there, else the Controller port now on that
// socket. Off USB: `path` while it is listed, then the first Controller port
// that was not listed when this was made. Without either, `path` itself
// (which then opens nothing).
[[nodiscard]] PortPath followBoard(const std::string& path, SerialPortManager& manager);

class PortList {
public:
    // appDelegate may be null (no secondary windows). Without a manager the
    // shared one is used, fetched (and so created) on first need only.
    PortList(MainView& view, ApplicationDelegate* appDelegate, SerialPortManager* manager = nullptr,
             Clock& clock = systemClock());
    ~PortList();
    PortList(const PortList&) = delete;
    PortList& operator=(const PortList&) = delete;

    // Subscribes to the port manager's connect and disconnect notifications,
    // each of which rebuilds the menu.
    void observePortChanges();

    // Posts the rebuild to the main queue and returns.
    void updateSerialPorts();
    [[nodiscard]] std::optional<std::string> pathOfSerialPortWithName(const std::string& name) const;
    [[nodiscard]] std::optional<std::string> pathOfSelectedPort() const;
    // The combined USB identifier of the listed port with this path; 0 when
    // none is listed (any more) or it is not on USB.
    [[nodiscard]] CombinedUsbIdentifier getPIDVID(const std::string& path) const;

    // The 1200-baud touch: open the port at 1200 baud with DTR and RTS off
    // (retrying the open without pause for as long as it fails), wait `delay`
    // seconds, close. The port object used is kept as serial(). The retry has
    // no limit on purpose; only a stop request (tests, shutdown) ends it early.
    void resetDevice(const std::string& path, int delay);
    void resetDevice(const std::string& path, int delay, std::stop_token stop);
    [[nodiscard]] SerialPort::Ptr serial() const;
    // Where the owner keeps its port object (MainViewController's `serial`):
    // resetDevice stores its port there too.
    void setSerialStore(std::function<void(const SerialPort::Ptr& port)> store);

    // The FTDI serial driver is part of the Linux kernel.
    [[nodiscard]] static bool isFTDIInstalled() { return true; }
    // At start-up: without the driver, log it and show the driver alert.
    void warnIfFTDIDriverMissing(bool installed = isFTDIInstalled());
    // The page the driver alert offers (a build-time setting).
    [[nodiscard]] static std::string ftdiDriverDownloadURL();
    // The driver alert's end: 1000 (its first button) opens the download page.
    void alertDidClose(int returnCode);
    static constexpr int kAlertFirstButtonReturn = 1000;
    static constexpr int kAlertSecondButtonReturn = 1001;

private:
    void rebuildPortMenu();
    [[nodiscard]] SerialPortManager& manager() const;

    MainView& _view;
    ApplicationDelegate* _appDelegate;
    SerialPortManager* _manager;
    Clock& _clock;
    ScopedObserver _connectedObserver;
    ScopedObserver _disconnectedObserver;
    // Rebuilds still queued when the list goes away find this false (both
    // happen on the main queue).
    std::shared_ptr<std::atomic<bool>> _alive = std::make_shared<std::atomic<bool>>(true);

    mutable std::mutex _serialMutex;
    SerialPort::Ptr _serial;
    std::function<void(const SerialPort::Ptr& port)> _storeSerial;
};

} // namespace quendral
