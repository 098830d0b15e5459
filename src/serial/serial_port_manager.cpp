#include "serial/serial_port_manager.h"

#include "log/logger.h"
#include "platform/dispatch.h"
#include "platform/notification_center.h"

#include <algorithm>
#include <any>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

namespace quendral {
namespace {

bool containsPortWithPath(const SerialPortList& ports, const SerialPort& port)
{
    return std::any_of(ports.begin(), ports.end(), [&](const SerialPort::Ptr& item) { return *item == port; });
}

} // namespace

SerialPortManager& SerialPortManager::sharedSerialPortManager()
{
    // Never destroyed: the exit handler and detached workers use it until the very end.
    static SerialPortManager* shared = new SerialPortManager;
    return *shared;
}

SerialPortManager::SerialPortManager()
{
    retrieveAvailablePortsAndRegisterForChangeNotifications();
    registerForNotifications();
}

SerialPortManager::~SerialPortManager()
{
    stopWatching();
}

// --- enumeration and hot-plug ----------------------------------------------------

void SerialPortManager::retrieveAvailablePortsAndRegisterForChangeNotifications()
{
    DeviceRegistry& registry = DeviceRegistry::shared();
    // Listen before enumerating: a device that arrives in between is then
    // reported once more, which adds nothing, instead of being missed.
    std::unique_ptr<DeviceMonitor> monitor = registry.monitorSerialDevices();

    SerialPortList ports;
    for (const DeviceHandle& device : registry.serialDevices()) {
        if (SerialPort::Ptr port = SerialPort::serialPortWithDevice(device)) {
            ports.push_back(std::move(port));
        }
    }
    setAvailablePorts(ports);

    if (!monitor) {
        // No subscription, no retry: the list stays as enumerated.
        return;
    }
    _cancelFd = ::eventfd(0, EFD_CLOEXEC);
    if (_cancelFd < 0) {
        return;
    }
    _monitoring.store(true);
    _watcher = std::thread([this, watched = std::move(monitor), cancelFd = _cancelFd]() mutable {
        watchDeviceEvents(std::move(watched), cancelFd);
    });
}

void SerialPortManager::watchDeviceEvents(std::unique_ptr<DeviceMonitor> monitor, int cancelFd)
{
    for (;;) {
        pollfd fds[2] = {{monitor->fileDescriptor(), POLLIN, 0}, {cancelFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            break;
        }
        if ((fds[0].revents & (POLLERR | POLLNVAL)) != 0) {
            break;
        }
        // Each event is handled on its own, in the order the registry sent them.
        while (std::optional<DeviceEvent> event = monitor->receive()) {
            std::vector<DeviceHandle> devices{event->device};
            if (event->action == "add") {
                dispatch::mainQueue()->async([this, devices] { serialPortsWerePublished(devices); });
            } else if (event->action == "remove") {
                dispatch::mainQueue()->async([this, devices] { serialPortsWereTerminated(devices); });
            }
        }
    }
    _monitoring.store(false);
}

void SerialPortManager::stopWatching()
{
    if (!_watcher.joinable()) {
        return;
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(_cancelFd, &one, sizeof one);
    _watcher.join();
    ::close(_cancelFd);
    _cancelFd = -1;
}

void SerialPortManager::serialPortsWerePublished(const std::vector<DeviceHandle>& devices)
{
    SerialPortList newPorts;
    const SerialPortList current = availablePorts();
    for (const DeviceHandle& device : devices) {
        SerialPort::Ptr port = SerialPort::serialPortWithDevice(device);
        if (port && !containsPortWithPath(current, *port) && !containsPortWithPath(newPorts, *port)) {
            newPorts.push_back(std::move(port));
        }
    }
    if (!newPorts.empty()) {
        std::vector<std::size_t> indexes;
        const std::size_t start = countOfAvailablePorts();
        for (std::size_t i = 0; i < newPorts.size(); ++i) {
            indexes.push_back(start + i);
        }
        insertAvailablePortsAtIndexes(newPorts, indexes);
    }
    // Posted also when nothing was new: observers learn that the registry spoke.
    NotificationCenter::defaultCenter().post(SerialPortsWereConnectedNotification, this, {},
                                             {{ConnectedSerialPortsKey, std::any(newPorts)}});
}

void SerialPortManager::serialPortsWereTerminated(const std::vector<DeviceHandle>& devices)
{
    SerialPortList removed;
    for (const DeviceHandle& device : devices) {
        if (SerialPort::Ptr port = SerialPort::serialPortWithDevice(device)) {
            removed.push_back(std::move(port));
        }
    }
    for (const SerialPort::Ptr& port : removed) {
        port->cleanupAfterSystemRemoval();
    }
    std::vector<std::size_t> indexes;
    {
        std::lock_guard lock(_mutex);
        for (std::size_t i = 0; i < _availablePorts.size(); ++i) {
            if (containsPortWithPath(removed, *_availablePorts[i])) {
                indexes.push_back(i);
            }
        }
    }
    if (!indexes.empty()) {
        removeAvailablePortsAtIndexes(indexes);
    }
    NotificationCenter::defaultCenter().post(SerialPortsWereDisconnectedNotification, this, {},
                                             {{DisconnectedSerialPortsKey, std::any(removed)}});
}

// --- process exit ---------------------------------------------------------------------

void SerialPortManager::registerForNotifications()
{
    const int result = std::atexit(&SerialPortManager::cleanupAtExit);
    if (result != 0) {
        Logger::log("SerialPort was unable to register its termination handler for serial port cleanup: " +
                    std::to_string(result));
    }
}

void SerialPortManager::cleanupAtExit()
{
    SerialPortManager& manager = sharedSerialPortManager();
    manager.stopWatching();
    for (const SerialPort::Ptr& port : manager.availablePorts()) {
        port->cleanupAfterSystemRemoval();
    }
    manager.setAvailablePorts({});
}

// --- sleep and wake ---------------------------------------------------------------------

void SerialPortManager::systemWillSleep()
{
    for (const SerialPort::Ptr& port : availablePorts()) {
        if (port->isOpen() && port->close()) {
            std::lock_guard lock(_mutex);
            _portsToReopenAfterSleep.push_back(port);
        }
    }
}

void SerialPortManager::systemDidWake()
{
    for (const SerialPort::Ptr& port : portsToReopenAfterSleep()) {
        port->open();
        std::lock_guard lock(_mutex);
        auto found = std::find(_portsToReopenAfterSleep.begin(), _portsToReopenAfterSleep.end(), port);
        if (found != _portsToReopenAfterSleep.end()) {
            _portsToReopenAfterSleep.erase(found);
        }
    }
}

// --- the observable list ------------------------------------------------------------------

std::size_t SerialPortManager::countOfAvailablePorts() const
{
    std::lock_guard lock(_mutex);
    return _availablePorts.size();
}

SerialPort::Ptr SerialPortManager::objectInAvailablePortsAtIndex(std::size_t index) const
{
    std::lock_guard lock(_mutex);
    return index < _availablePorts.size() ? _availablePorts[index] : nullptr;
}

void SerialPortManager::insertObjectInAvailablePortsAtIndex(const SerialPort::Ptr& port, std::size_t index)
{
    insertAvailablePortsAtIndexes({port}, {index});
}

void SerialPortManager::insertAvailablePortsAtIndexes(const SerialPortList& ports,
                                                      const std::vector<std::size_t>& indexes)
{
    AvailablePortsChange change{AvailablePortsChange::Kind::Insertion, {}, {}};
    {
        std::lock_guard lock(_mutex);
        for (std::size_t i = 0; i < ports.size() && i < indexes.size(); ++i) {
            const std::size_t index = std::min(indexes[i], _availablePorts.size());
            _availablePorts.insert(_availablePorts.begin() + static_cast<std::ptrdiff_t>(index), ports[i]);
            change.indexes.push_back(index);
            change.ports.push_back(ports[i]);
        }
    }
    if (!change.ports.empty()) {
        notifyListObservers(change);
    }
}

void SerialPortManager::removeObjectFromAvailablePortsAtIndex(std::size_t index)
{
    removeAvailablePortsAtIndexes({index});
}

void SerialPortManager::removeAvailablePortsAtIndexes(const std::vector<std::size_t>& indexes)
{
    AvailablePortsChange change{AvailablePortsChange::Kind::Removal, {}, {}};
    {
        std::lock_guard lock(_mutex);
        std::vector<std::size_t> sorted = indexes;
        std::sort(sorted.begin(), sorted.end());
        sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
        for (const std::size_t index : sorted) {
            if (index < _availablePorts.size()) {
                change.indexes.push_back(index);
                change.ports.push_back(_availablePorts[index]);
            }
        }
        // From the back, so that the indexes still hold.
        for (auto it = change.indexes.rbegin(); it != change.indexes.rend(); ++it) {
            _availablePorts.erase(_availablePorts.begin() + static_cast<std::ptrdiff_t>(*it));
        }
    }
    if (!change.ports.empty()) {
        notifyListObservers(change);
    }
}

void SerialPortManager::setAvailablePorts(const SerialPortList& ports)
{
    {
        std::lock_guard lock(_mutex);
        _availablePorts = ports;
    }
    notifyListObservers({AvailablePortsChange::Kind::Replacement, {}, ports});
}

std::uint64_t SerialPortManager::addAvailablePortsObserver(ListObserver observer)
{
    return _observers.add(std::move(observer));
}

void SerialPortManager::removeAvailablePortsObserver(std::uint64_t id)
{
    _observers.remove(id);
}

void SerialPortManager::notifyListObservers(const AvailablePortsChange& change)
{
    _observers.notify(change);
}

} // namespace quendral
