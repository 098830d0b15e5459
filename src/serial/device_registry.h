#pragma once
// The machine's registry of devices, as far as the serial layer needs it:
// which serial (tty) devices exist, their string properties, and the devices
// above them (the USB device that carries a port). On Linux it is served by
// libudev (udev_device_registry.cpp); tests see a umockdev tree through the
// same code.
//
// Entries are plain snapshots taken at look-up time, shared by handle. They
// stay valid after the device is gone; look-ups through a vanished entry
// simply find nothing.
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quendral {

struct DeviceEntry {
    std::string syspath;                           // "/sys/devices/.../tty/ttyACM0"
    std::string devnode;                           // "/dev/ttyACM0"; empty for devices without a node
    std::string sysname;                           // "ttyACM0"
    std::string subsystem;                         // "tty", "usb", ...
    std::string devtype;                           // "usb_device", ...; often empty
    std::map<std::string, std::string> properties; // the udev environment (E: lines)
};

using DeviceHandle = std::shared_ptr<const DeviceEntry>;

// Keys of the serial string properties a port reads from its entry. On Linux
// the callout and dial-in path are both the /dev node and "IOTTYDevice" is the
// node's base name ("ttyACM0"), split into "IOTTYBaseName" ("ttyACM") and
// "IOTTYSuffix" ("0").
namespace SerialPropertyKey {
inline constexpr std::string_view CalloutDevice = "IOCalloutDevice";
inline constexpr std::string_view DialinDevice = "IODialinDevice";
inline constexpr std::string_view TTYBaseName = "IOTTYBaseName";
inline constexpr std::string_view SerialBSDClientType = "IOSerialBSDClientType";
inline constexpr std::string_view TTYDevice = "IOTTYDevice";
inline constexpr std::string_view TTYSuffix = "IOTTYSuffix";
} // namespace SerialPropertyKey

// One hot-plug event of a serial device: "add", "remove" (others, like
// "change", are passed on as they come).
struct DeviceEvent {
    std::string action;
    DeviceHandle device;
};

// A subscription to the arrival and removal of serial devices. Its descriptor
// becomes readable when events wait; receive() then hands them out one by one.
// Events are announced after the system's rules have run (device permissions
// are set), and only for devices that count as serial ports.
class DeviceMonitor {
public:
    virtual ~DeviceMonitor() = default;
    // For poll(): readable while events wait.
    [[nodiscard]] virtual int fileDescriptor() const = 0;
    // The next waiting event, or none when nothing (more) waits. Never blocks.
    [[nodiscard]] virtual std::optional<DeviceEvent> receive() = 0;
};

class DeviceRegistry {
public:
    virtual ~DeviceRegistry() = default;

    // The registry of this machine (libudev).
    static DeviceRegistry& shared();

    // Every serial stream device, in the order the registry lists them.
    [[nodiscard]] virtual std::vector<DeviceHandle> serialDevices() = 0;
    // The serial stream devices of that name ("ttyACM0"): the same search
    // without reading every other tty of the machine (a desktop has dozens of
    // virtual consoles), for a look-up by path that is asked for at every step.
    [[nodiscard]] virtual std::vector<DeviceHandle> serialDevicesNamed(const std::string& sysname) = 0;
    // The entry at a sysfs path, or nullptr when there is none (any more).
    [[nodiscard]] virtual DeviceHandle deviceWithSyspath(const std::string& syspath) = 0;
    // The entry's parent device, or nullptr at the top of the tree.
    [[nodiscard]] virtual DeviceHandle parentOf(const DeviceHandle& device) = 0;
    // A sysfs attribute of the entry ("idVendor"), or none.
    [[nodiscard]] virtual std::optional<std::string> attribute(const DeviceHandle& device, const std::string& name) = 0;
    // The nearest device at or above the entry that has every one of the
    // named sysfs attributes, with their values in the order named; none when
    // no device up the tree has them all. One walk of the tree: the USB
    // identity of a port is asked for at every step of an update.
    [[nodiscard]] virtual std::optional<std::pair<DeviceHandle, std::vector<std::string>>>
    nearestWithAttributes(const DeviceHandle& device, const std::vector<std::string>& names) = 0;
    // Starts listening for serial devices that arrive or go; nullptr when the
    // registry cannot deliver such events. Listen first, then enumerate, so
    // that nothing falls between the two.
    [[nodiscard]] virtual std::unique_ptr<DeviceMonitor> monitorSerialDevices() = 0;
    // One of the serial string properties above, or none when the entry lacks it.
    [[nodiscard]] virtual std::optional<std::string> stringProperty(const DeviceHandle& device,
                                                                    std::string_view key) = 0;
};

} // namespace quendral
