#include "controller/port_list.h"

#include "controller/bootloader_touch.h"
#include "log/logger.h"
#include "platform/dispatch.h"
#include "serial/serial_port_attributes.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace quendral {
namespace {

constexpr std::array<std::string_view, 2> kMenuPortPrefixes = {"ttyUSB", "ttyACM"};

} // namespace

bool isUsbSerialPortName(std::string_view name)
{
    for (const std::string_view prefix : kMenuPortPrefixes) {
        if (name.starts_with(prefix)) {
            return true;
        }
    }
    return false;
}

SerialPortList listedControllerPorts(SerialPortManager& manager)
{
    SerialPortList listed;
    for (const SerialPort::Ptr& port : manager.availablePorts()) {
        if (isUsbSerialPortName(port->name())) {
            listed.push_back(port);
        }
    }
    return listed;
}

namespace {

// The board as the node it had when named, then whichever Controller port
// appeared since: for a board whose USB socket is unknown.
PortPath followNewestPort(const std::string& path, SerialPortManager& manager)
{
    std::vector<std::string> before;
    for (const SerialPort::Ptr& port : listedControllerPorts(manager)) {
        before.push_back(port->path());
    }
    return PortPath::following([path, before = std::move(before), &manager]() -> std::optional<std::string> {
        const SerialPortList listed = listedControllerPorts(manager);
        const auto listedNow = [&](const std::string& wanted) {
            return std::any_of(listed.begin(), listed.end(),
                               [&](const SerialPort::Ptr& port) { return port->path() == wanted; });
        };
        if (listedNow(path)) {
            return path;
        }
        for (const SerialPort::Ptr& port : listed) {
            if (std::find(before.begin(), before.end(), port->path()) == before.end()) {
                return port->path();
            }
        }
        return path;
    });
}

} // namespace

PortPath followBoard(const std::string& path, SerialPortManager& manager)
{
    const SerialPort::Ptr named = SerialPort::serialPortWithPath(path);
    std::optional<std::string> location = named ? usbLocation(*named) : std::nullopt;
    if (!location) {
        return followNewestPort(path, manager);
    }
    // With several boards attached, the port that appeared last may be
    // another board's: follow the socket instead.
    return PortPath::following(
        [path, location, &manager]() -> std::optional<std::string> {
            const SerialPortList listed = listedControllerPorts(manager);
            std::optional<std::string> found;
            for (const SerialPort::Ptr& port : listed) {
                if (usbLocation(*port) != location) {
                    continue;
                }
                if (port->path() == path) {
                    return path;
                }
                found = found.value_or(port->path());
            }
            return found.value_or(path);
        },
        location);
}

PortList::PortList(MainView& view, ApplicationDelegate* appDelegate, SerialPortManager* manager, Clock& clock)
    : _view(view), _appDelegate(appDelegate), _manager(manager), _clock(clock)
{
}

PortList::~PortList()
{
    _alive->store(false);
}

SerialPortManager& PortList::manager() const
{
    return _manager != nullptr ? *_manager : SerialPortManager::sharedSerialPortManager();
}

void PortList::observePortChanges()
{
    auto& center = NotificationCenter::defaultCenter();
    _connectedObserver = ScopedObserver(center, SerialPortsWereConnectedNotification, nullptr,
                                        [this](const Notification& /*notification*/) { updateSerialPorts(); });
    _disconnectedObserver = ScopedObserver(center, SerialPortsWereDisconnectedNotification, nullptr,
                                           [this](const Notification& /*notification*/) { updateSerialPorts(); });
}

// --- the menu -----------------------------------------------------------------------

void PortList::updateSerialPorts()
{
    dispatch::mainQueue()->async([this, alive = _alive] {
        if (alive->load()) {
            rebuildPortMenu();
        }
    });
}

void PortList::rebuildPortMenu()
{
    const SerialPortList ports = manager().availablePorts();

    std::optional<std::string> previousSelection = _view.selectedPortTitle();
    if (previousSelection) {
        const bool stillListed = isUsbSerialPortName(*previousSelection) &&
                                 std::any_of(ports.begin(), ports.end(), [&](const SerialPort::Ptr& port) {
                                     return port->name() == *previousSelection;
                                 });
        if (!stillListed) {
            previousSelection.reset();
        }
    }

    _view.removeAllPortMenuItems();
    bool selected = false;
    for (const SerialPort::Ptr& port : ports) {
        const std::string& name = port->name();
        if (!isUsbSerialPortName(name)) {
            continue;
        }
        _view.addPortMenuItem(name);
        // Every listed name passes the second test, so the first listed port is
        // the one selected; an earlier choice survives only when it is first.
        if (!selected && (name == previousSelection || isUsbSerialPortName(name))) {
            _view.selectPortMenuItem(name);
            selected = true;
            // A monitor window whose device went away follows the new selection.
            if (_appDelegate != nullptr && _appDelegate->getSerialMonitorState()) {
                _appDelegate->openSerialMonitor(port->path());
            }
        }
    }
}

std::optional<std::string> PortList::pathOfSerialPortWithName(const std::string& name) const
{
    for (const SerialPort::Ptr& port : manager().availablePorts()) {
        if (port->name() == name) {
            return port->path();
        }
    }
    return std::nullopt;
}

std::optional<std::string> PortList::pathOfSelectedPort() const
{
    const std::optional<std::string> title = _view.selectedPortTitle();
    if (!title) {
        return std::nullopt;
    }
    return pathOfSerialPortWithName(*title);
}

CombinedUsbIdentifier PortList::getPIDVID(const std::string& path) const
{
    return usbIdentifierOf(manager().availablePorts(), path);
}

// --- the 1200-baud touch ------------------------------------------------------------------

void PortList::resetDevice(const std::string& path, int delay)
{
    resetDevice(path, delay, std::stop_token{});
}

void PortList::resetDevice(const std::string& path, int delay, std::stop_token stop)
{
    touchForBootloader(path, delay, std::move(stop), _clock, [this](const SerialPort::Ptr& port) {
        std::function<void(const SerialPort::Ptr&)> store;
        {
            std::lock_guard lock(_serialMutex);
            _serial = port;
            store = _storeSerial;
        }
        if (store) {
            store(port);
        }
    });
}

SerialPort::Ptr PortList::serial() const
{
    std::lock_guard lock(_serialMutex);
    return _serial;
}

void PortList::setSerialStore(std::function<void(const SerialPort::Ptr& port)> store)
{
    std::lock_guard lock(_serialMutex);
    _storeSerial = std::move(store);
}

// --- the FTDI driver ----------------------------------------------------------------------

void PortList::warnIfFTDIDriverMissing(bool installed)
{
    if (installed) {
        return;
    }
    Logger::log("FTDI driver not installed");
    const bool download = _view.showDriverAlert("FTDI driver not installed",
                                                "Please install the USB Serial driver from " + ftdiDriverDownloadURL(),
                                                "Go to download", "Close");
    alertDidClose(download ? kAlertFirstButtonReturn : kAlertSecondButtonReturn);
}

void PortList::alertDidClose(int returnCode)
{
    if (returnCode == kAlertFirstButtonReturn) {
        _view.openURL(ftdiDriverDownloadURL());
    }
}

std::string PortList::ftdiDriverDownloadURL()
{
    return QUENDRAL_FTDI_DRIVER_URL;
}

} // namespace quendral
