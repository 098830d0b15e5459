#pragma once
// The device registry on libudev. libudev objects are not thread-safe, and
// ports are looked up from background threads, so every call into libudev is
// made under one lock.
#include "serial/device_registry.h"

#include <atomic>
#include <cstdint>
#include <mutex>

struct udev;
struct udev_device;

namespace quendral {

class UdevDeviceRegistry final : public DeviceRegistry {
public:
    UdevDeviceRegistry();
    ~UdevDeviceRegistry() override;
    UdevDeviceRegistry(const UdevDeviceRegistry&) = delete;
    UdevDeviceRegistry& operator=(const UdevDeviceRegistry&) = delete;

    [[nodiscard]] std::vector<DeviceHandle> serialDevices() override;
    [[nodiscard]] std::vector<DeviceHandle> serialDevicesNamed(const std::string& sysname) override;
    [[nodiscard]] DeviceHandle deviceWithSyspath(const std::string& syspath) override;
    [[nodiscard]] DeviceHandle parentOf(const DeviceHandle& device) override;
    [[nodiscard]] std::optional<std::string> attribute(const DeviceHandle& device, const std::string& name) override;
    [[nodiscard]] std::optional<std::pair<DeviceHandle, std::vector<std::string>>>
    nearestWithAttributes(const DeviceHandle& device, const std::vector<std::string>& names) override;
    [[nodiscard]] std::optional<std::string> stringProperty(const DeviceHandle& device, std::string_view key) override;
    [[nodiscard]] std::unique_ptr<DeviceMonitor> monitorSerialDevices() override;

    // A snapshot of a libudev device (the caller keeps its reference). For the
    // hot-plug monitor, which receives udev_device objects of its own.
    [[nodiscard]] static DeviceHandle entryFromUdevDevice(udev_device* device);
    // True for the tty entries that count as serial ports: a device node and a
    // real device behind it (virtual consoles and pseudo-terminals have none).
    [[nodiscard]] static bool isSerialDevice(const DeviceEntry& entry);

    // The context and its lock, for code that talks to libudev directly.
    [[nodiscard]] udev* context() const { return _udev; }
    [[nodiscard]] std::mutex& mutex() { return _mutex; }

    // How many devices this process has read from sysfs through the registry
    // (a look-up by path, or a step to a parent): the cost of a look-up on a
    // machine where each is a handful of file reads.
    [[nodiscard]] static std::uint64_t devicesRead();

private:
    // The serial devices, all or only those of one name.
    [[nodiscard]] std::vector<DeviceHandle> enumerateSerialDevices(const std::string* sysname);

    std::mutex _mutex;
    udev* _udev = nullptr;
};

} // namespace quendral
