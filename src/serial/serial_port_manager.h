#pragma once
// The one object that knows which serial ports the machine has.
//
// At creation it enumerates every serial device of the device registry (in
// the registry's order, unsorted) into availablePorts, then follows arrivals
// and removals: a watcher thread waits on the registry's hot-plug monitor and
// hands every event to the main queue, where the list is changed and the
// connect/disconnect notifications are posted (sender: the manager). At
// process exit every port is cleaned up as if its device had been removed.
//
// There is exactly one manager: sharedSerialPortManager(). alloc() and copy()
// exist for callers written against the allocate-and-copy idiom; both yield
// the same instance.
//
// availablePorts may be read from any thread (background work asks for paths
// and identities while the main queue changes the list); changes are made on
// the main queue only, and list observers hear them there.
#include "platform/locked.h"
#include "platform/observer_list.h"
#include "serial/device_registry.h"
#include "serial/serial_port.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quendral {

// Notification names and their user-information keys.
inline constexpr const char* SerialPortsWereConnectedNotification = "SerialPortWasConnectedNotification";
inline constexpr const char* SerialPortsWereDisconnectedNotification = "SerialPortWasDisconnectedNotification";
inline constexpr const char* ConnectedSerialPortsKey = "ConnectedSerialPortsKey";
inline constexpr const char* DisconnectedSerialPortsKey = "DisconnectedSerialPortsKey";

// The value stored under the two keys.
using SerialPortList = std::vector<SerialPort::Ptr>;

// One change of availablePorts: ports inserted or removed at these indexes
// (indexes of the list after an insertion, before a removal); Replacement for
// setAvailablePorts().
struct AvailablePortsChange {
    enum class Kind { Insertion, Removal, Replacement };
    Kind kind = Kind::Replacement;
    std::vector<std::size_t> indexes;
    SerialPortList ports;
};

class SerialPortManager {
public:
    using ListObserver = std::function<void(const AvailablePortsChange& change)>;

    static SerialPortManager& sharedSerialPortManager();
    // Every attempt to make another manager yields the shared one.
    static SerialPortManager& alloc() { return sharedSerialPortManager(); }
    SerialPortManager& copy() { return *this; }
    SerialPortManager& init() { return *this; }

    SerialPortManager(const SerialPortManager&) = delete;
    SerialPortManager& operator=(const SerialPortManager&) = delete;
    SerialPortManager(SerialPortManager&&) = delete;
    SerialPortManager& operator=(SerialPortManager&&) = delete;

    // --- the list --------------------------------------------------------------
    // A copy; its order is the order of the registry at enumeration, then of arrival.
    [[nodiscard]] SerialPortList availablePorts() const { return lockedCopy(_mutex, _availablePorts); }
    [[nodiscard]] std::size_t countOfAvailablePorts() const;
    [[nodiscard]] SerialPort::Ptr objectInAvailablePortsAtIndex(std::size_t index) const;
    void insertObjectInAvailablePortsAtIndex(const SerialPort::Ptr& port, std::size_t index);
    // Indexes ascending, one per port; each index counts in the list as it grows.
    void insertAvailablePortsAtIndexes(const SerialPortList& ports, const std::vector<std::size_t>& indexes);
    void removeObjectFromAvailablePortsAtIndex(std::size_t index);
    void removeAvailablePortsAtIndexes(const std::vector<std::size_t>& indexes);
    void setAvailablePorts(const SerialPortList& ports);

    // Observers of availablePorts, called after each change on the changing thread.
    std::uint64_t addAvailablePortsObserver(ListObserver observer);
    void removeAvailablePortsObserver(std::uint64_t id);

    // --- sleep and wake (not wired to the system; callable) ---------------------
    void systemWillSleep();
    void systemDidWake();
    [[nodiscard]] SerialPortList portsToReopenAfterSleep() const
    {
        return lockedCopy(_mutex, _portsToReopenAfterSleep);
    }

    // --- registry events, normally delivered by the watcher thread ---------------
    // Run on the main queue.
    void serialPortsWerePublished(const std::vector<DeviceHandle>& devices);
    void serialPortsWereTerminated(const std::vector<DeviceHandle>& devices);

    // True while the watcher thread listens for hot-plug events.
    [[nodiscard]] bool isMonitoring() const { return _monitoring.load(); }

private:
    SerialPortManager();
    ~SerialPortManager();

    void retrieveAvailablePortsAndRegisterForChangeNotifications();
    void registerForNotifications();
    void watchDeviceEvents(std::unique_ptr<DeviceMonitor> monitor, int cancelFd);
    // Stops the watcher thread (at exit; it may not outlive the process's statics).
    void stopWatching();
    static void cleanupAtExit();

    void notifyListObservers(const AvailablePortsChange& change);

    mutable std::mutex _mutex; // guards the lists and the observers
    SerialPortList _availablePorts;
    SerialPortList _portsToReopenAfterSleep;
    ObserverList<ListObserver> _observers;

    std::thread _watcher;
    int _cancelFd = -1;
    std::atomic<bool> _monitoring{false};
};

inline SerialPortManager& sharedSerialPortManager()
{
    return SerialPortManager::sharedSerialPortManager();
}

} // namespace quendral
