#include "serial/udev_device_registry.h"

#include <libudev.h>

#include <cctype>
#include <fcntl.h>

namespace quendral {
namespace {

struct DeviceUnref {
    void operator()(udev_device* device) const { udev_device_unref(device); }
};
using UdevDevicePtr = std::unique_ptr<udev_device, DeviceUnref>;

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

std::atomic<std::uint64_t> devicesReadFromSysfs{0};

udev_device* deviceFromSyspath(udev* context, const char* syspath)
{
    devicesReadFromSysfs.fetch_add(1, std::memory_order_relaxed);
    return udev_device_new_from_syspath(context, syspath);
}

// The parent is read when first asked for, then kept by the child.
udev_device* parentDevice(udev_device* device)
{
    devicesReadFromSysfs.fetch_add(1, std::memory_order_relaxed);
    return udev_device_get_parent(device);
}

} // namespace

DeviceRegistry& DeviceRegistry::shared()
{
    // Never destroyed: ports may be looked up from detached workers at exit.
    static auto* registry = new UdevDeviceRegistry;
    return *registry;
}

UdevDeviceRegistry::UdevDeviceRegistry() : _udev(udev_new()) {}

UdevDeviceRegistry::~UdevDeviceRegistry()
{
    if (_udev != nullptr) {
        udev_unref(_udev);
    }
}

DeviceHandle UdevDeviceRegistry::entryFromUdevDevice(udev_device* device)
{
    if (device == nullptr) {
        return nullptr;
    }
    auto entry = std::make_shared<DeviceEntry>();
    entry->syspath = orEmpty(udev_device_get_syspath(device));
    entry->devnode = orEmpty(udev_device_get_devnode(device));
    entry->sysname = orEmpty(udev_device_get_sysname(device));
    entry->subsystem = orEmpty(udev_device_get_subsystem(device));
    entry->devtype = orEmpty(udev_device_get_devtype(device));
    for (udev_list_entry* item = udev_device_get_properties_list_entry(device); item != nullptr;
         item = udev_list_entry_get_next(item)) {
        entry->properties.emplace(orEmpty(udev_list_entry_get_name(item)), orEmpty(udev_list_entry_get_value(item)));
    }
    return entry;
}

bool UdevDeviceRegistry::isSerialDevice(const DeviceEntry& entry)
{
    if (entry.subsystem != "tty" || entry.devnode.empty()) {
        return false;
    }
    // Virtual consoles and the like live under /sys/devices/virtual.
    return entry.syspath.find("/devices/virtual/") == std::string::npos;
}

std::vector<DeviceHandle> UdevDeviceRegistry::serialDevices()
{
    return enumerateSerialDevices(nullptr);
}

std::vector<DeviceHandle> UdevDeviceRegistry::serialDevicesNamed(const std::string& sysname)
{
    return enumerateSerialDevices(&sysname);
}

std::vector<DeviceHandle> UdevDeviceRegistry::enumerateSerialDevices(const std::string* sysname)
{
    std::vector<DeviceHandle> result;
    std::lock_guard lock(_mutex);
    if (_udev == nullptr) {
        return result;
    }
    udev_enumerate* enumerate = udev_enumerate_new(_udev);
    if (enumerate == nullptr) {
        return result;
    }
    udev_enumerate_add_match_subsystem(enumerate, "tty");
    if (sysname != nullptr) {
        // Matched on the directory entries' names: the others are never read.
        udev_enumerate_add_match_sysname(enumerate, sysname->c_str());
    }
    udev_enumerate_scan_devices(enumerate);
    for (udev_list_entry* item = udev_enumerate_get_list_entry(enumerate); item != nullptr;
         item = udev_list_entry_get_next(item)) {
        UdevDevicePtr device(deviceFromSyspath(_udev, udev_list_entry_get_name(item)));
        if (!device) {
            continue;
        }
        // A tty with a real device behind it; consoles and pseudo-terminals have no parent.
        if (parentDevice(device.get()) == nullptr) {
            continue;
        }
        DeviceHandle entry = entryFromUdevDevice(device.get());
        if (isSerialDevice(*entry)) {
            result.push_back(std::move(entry));
        }
    }
    udev_enumerate_unref(enumerate);
    return result;
}

DeviceHandle UdevDeviceRegistry::deviceWithSyspath(const std::string& syspath)
{
    std::lock_guard lock(_mutex);
    if (_udev == nullptr) {
        return nullptr;
    }
    UdevDevicePtr device(deviceFromSyspath(_udev, syspath.c_str()));
    return entryFromUdevDevice(device.get());
}

DeviceHandle UdevDeviceRegistry::parentOf(const DeviceHandle& device)
{
    if (!device) {
        return nullptr;
    }
    std::lock_guard lock(_mutex);
    if (_udev == nullptr) {
        return nullptr;
    }
    UdevDevicePtr child(deviceFromSyspath(_udev, device->syspath.c_str()));
    if (!child) {
        return nullptr;
    }
    // The parent belongs to the child and goes with it.
    return entryFromUdevDevice(parentDevice(child.get()));
}

std::optional<std::string> UdevDeviceRegistry::attribute(const DeviceHandle& device, const std::string& name)
{
    if (!device) {
        return std::nullopt;
    }
    std::lock_guard lock(_mutex);
    if (_udev == nullptr) {
        return std::nullopt;
    }
    UdevDevicePtr entry(deviceFromSyspath(_udev, device->syspath.c_str()));
    if (!entry) {
        return std::nullopt;
    }
    const char* value = udev_device_get_sysattr_value(entry.get(), name.c_str());
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
}

std::optional<std::pair<DeviceHandle, std::vector<std::string>>>
UdevDeviceRegistry::nearestWithAttributes(const DeviceHandle& device, const std::vector<std::string>& names)
{
    if (!device) {
        return std::nullopt;
    }
    std::lock_guard lock(_mutex);
    if (_udev == nullptr) {
        return std::nullopt;
    }
    UdevDevicePtr start(deviceFromSyspath(_udev, device->syspath.c_str()));
    // The parents belong to the start device and go with it.
    for (udev_device* entry = start.get(); entry != nullptr; entry = parentDevice(entry)) {
        std::vector<std::string> values;
        for (const std::string& name : names) {
            const char* value = udev_device_get_sysattr_value(entry, name.c_str());
            if (value == nullptr) {
                break;
            }
            values.emplace_back(value);
        }
        if (values.size() == names.size()) {
            return std::pair{entryFromUdevDevice(entry), std::move(values)};
        }
    }
    return std::nullopt;
}

std::uint64_t UdevDeviceRegistry::devicesRead()
{
    return devicesReadFromSysfs.load(std::memory_order_relaxed);
}

std::optional<std::string> UdevDeviceRegistry::stringProperty(const DeviceHandle& device, std::string_view key)
{
    if (!device || device->subsystem != "tty" || device->devnode.empty()) {
        return std::nullopt;
    }
    if (key == SerialPropertyKey::CalloutDevice || key == SerialPropertyKey::DialinDevice) {
        return device->devnode;
    }
    if (key == SerialPropertyKey::TTYDevice) {
        return device->sysname;
    }
    if (key == SerialPropertyKey::SerialBSDClientType) {
        return std::string("IOSerialStream");
    }
    // "ttyACM0" = base name "ttyACM" + suffix "0".
    std::size_t digits = device->sysname.size();
    while (digits > 0 && std::isdigit(static_cast<unsigned char>(device->sysname[digits - 1])) != 0) {
        --digits;
    }
    if (key == SerialPropertyKey::TTYBaseName) {
        return device->sysname.substr(0, digits);
    }
    if (key == SerialPropertyKey::TTYSuffix) {
        return device->sysname.substr(digits);
    }
    return std::nullopt;
}

// --- hot-plug ---------------------------------------------------------------

namespace {

// A udev monitor on the "udev" source: events come after the rules have run,
// so a port announced here can already be opened by its group.
class UdevDeviceMonitor final : public DeviceMonitor {
public:
    UdevDeviceMonitor(std::mutex& mutex, udev_monitor* monitor) : _mutex(mutex), _monitor(monitor) {}
    ~UdevDeviceMonitor() override
    {
        std::lock_guard lock(_mutex);
        udev_monitor_unref(_monitor);
    }
    UdevDeviceMonitor(const UdevDeviceMonitor&) = delete;
    UdevDeviceMonitor& operator=(const UdevDeviceMonitor&) = delete;

    [[nodiscard]] int fileDescriptor() const override { return _fd; }

    [[nodiscard]] std::optional<DeviceEvent> receive() override
    {
        for (;;) {
            std::lock_guard lock(_mutex);
            UdevDevicePtr device(udev_monitor_receive_device(_monitor));
            if (!device) {
                return std::nullopt;
            }
            DeviceHandle entry = UdevDeviceRegistry::entryFromUdevDevice(device.get());
            // The filter lets every tty through; consoles and pseudo-terminals are not ports.
            if (!UdevDeviceRegistry::isSerialDevice(*entry)) {
                continue;
            }
            return DeviceEvent{orEmpty(udev_device_get_action(device.get())), std::move(entry)};
        }
    }

    void setDescriptor(int fd) { _fd = fd; }

private:
    std::mutex& _mutex;
    udev_monitor* _monitor;
    int _fd = -1;
};

} // namespace

std::unique_ptr<DeviceMonitor> UdevDeviceRegistry::monitorSerialDevices()
{
    std::lock_guard lock(_mutex);
    if (_udev == nullptr) {
        return nullptr;
    }
    udev_monitor* monitor = udev_monitor_new_from_netlink(_udev, "udev");
    if (monitor == nullptr) {
        return nullptr;
    }
    if (udev_monitor_filter_add_match_subsystem_devtype(monitor, "tty", nullptr) < 0 ||
        udev_monitor_enable_receiving(monitor) < 0) {
        udev_monitor_unref(monitor);
        return nullptr;
    }
    const int fd = udev_monitor_get_fd(monitor);
    if (fd < 0) {
        udev_monitor_unref(monitor);
        return nullptr;
    }
    // The receive call must not block: the watcher polls the descriptor first,
    // and an event that the filter drops must not stall it.
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) {
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
    auto result = std::make_unique<UdevDeviceMonitor>(_mutex, monitor);
    result->setDescriptor(fd);
    return result;
}

} // namespace quendral
