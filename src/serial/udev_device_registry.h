#pragma once
// The device registry on libudev. libudev objects are not thread-safe, and
// ports are looked up from background threads, so every call into libudev is
// made under one lock.
#include "serial/device_registry.h"

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
    [[nodiscard]] DeviceHandle deviceWithSyspath(const std::string& syspath) override;
    [[nodiscard]] DeviceHandle parentOf(const DeviceHandle& device) override;
    [[nodiscard]] std::optional<std::string> attribute(const DeviceHandle& device, const std::string& name) override;
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

private:
    std::mutex _mutex;
    udev* _udev = nullptr;
};

} // namespace quendral
