#include "serial/udev_device_registry.h"

#include <libudev.h>

#include <cctype>

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
    udev_enumerate_scan_devices(enumerate);
    for (udev_list_entry* item = udev_enumerate_get_list_entry(enumerate); item != nullptr;
         item = udev_list_entry_get_next(item)) {
        UdevDevicePtr device(udev_device_new_from_syspath(_udev, udev_list_entry_get_name(item)));
        if (!device) {
            continue;
        }
        // A tty with a real device behind it; consoles and pseudo-terminals have no parent.
        if (udev_device_get_parent(device.get()) == nullptr) {
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
    UdevDevicePtr device(udev_device_new_from_syspath(_udev, syspath.c_str()));
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
    UdevDevicePtr child(udev_device_new_from_syspath(_udev, device->syspath.c_str()));
    if (!child) {
        return nullptr;
    }
    // The parent belongs to the child and goes with it.
    return entryFromUdevDevice(udev_device_get_parent(child.get()));
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
    UdevDevicePtr entry(udev_device_new_from_syspath(_udev, device->syspath.c_str()));
    if (!entry) {
        return std::nullopt;
    }
    const char* value = udev_device_get_sysattr_value(entry.get(), name.c_str());
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
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

} // namespace quendral
