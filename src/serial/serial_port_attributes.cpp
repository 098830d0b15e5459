#include "serial/serial_port_attributes.h"

#include <array>
#include <charconv>

namespace quendral {
namespace {

constexpr const char* kVendorKey = "idVendor";
constexpr const char* kProductKey = "idProduct";
// What a USB device tells about itself; read as far as the device has them.
constexpr std::array kIdentityAttributes = {kVendorKey, kProductKey,    "bcdDevice",     "manufacturer",
                                            "product",  "serial",       "busnum",        "devnum",
                                            "speed",    "bDeviceClass", "bNumInterfaces"};

// sysfs writes the identifiers as four hexadecimal digits ("2341").
std::optional<std::uint16_t> hexNumber(const std::optional<DeviceAttributes>& attributes, const char* key)
{
    if (!attributes) {
        return std::nullopt;
    }
    const auto found = attributes->find(key);
    if (found == attributes->end()) {
        return std::nullopt;
    }
    const std::string& text = found->second;
    std::uint16_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end == text.data()) {
        return std::nullopt;
    }
    return value;
}

} // namespace

namespace {

// The nearest device above the port's tty that carries both identifiers.
DeviceHandle usbDeviceOf(const SerialPort& port)
{
    const SerialPort::Ptr current = SerialPort::serialPortWithPath(port.path());
    if (!current) {
        return nullptr;
    }
    DeviceRegistry& registry = DeviceRegistry::shared();
    for (DeviceHandle entry = current->IOKitDevice(); entry; entry = registry.parentOf(entry)) {
        if (registry.attribute(entry, kVendorKey) && registry.attribute(entry, kProductKey)) {
            return entry;
        }
    }
    return nullptr;
}

} // namespace

std::optional<DeviceAttributes> ioDeviceAttributes(const SerialPort& port)
{
    const DeviceHandle entry = usbDeviceOf(port);
    if (!entry) {
        return std::nullopt;
    }
    DeviceRegistry& registry = DeviceRegistry::shared();
    DeviceAttributes attributes(entry->properties.begin(), entry->properties.end());
    for (const char* key : kIdentityAttributes) {
        if (std::optional<std::string> value = registry.attribute(entry, key)) {
            attributes[key] = std::move(*value);
        }
    }
    return attributes;
}

std::optional<std::string> usbLocation(const SerialPort& port)
{
    const DeviceHandle entry = usbDeviceOf(port);
    if (!entry || entry->sysname.empty()) {
        return std::nullopt;
    }
    return entry->sysname;
}

std::optional<std::uint16_t> vendorID(const SerialPort& port)
{
    return hexNumber(ioDeviceAttributes(port), kVendorKey);
}

std::optional<std::uint16_t> productID(const SerialPort& port)
{
    return hexNumber(ioDeviceAttributes(port), kProductKey);
}

} // namespace quendral
