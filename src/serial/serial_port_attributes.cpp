#include "serial/serial_port_attributes.h"

#include <array>
#include <charconv>
#include <string_view>

namespace quendral {
namespace {

constexpr const char* kVendorKey = "idVendor";
constexpr const char* kProductKey = "idProduct";
// What a USB device tells about itself; read as far as the device has them.
constexpr std::array kIdentityAttributes = {kVendorKey, kProductKey,    "bcdDevice",     "manufacturer",
                                            "product",  "serial",       "busnum",        "devnum",
                                            "speed",    "bDeviceClass", "bNumInterfaces"};

// sysfs writes the identifiers as four hexadecimal digits ("2341").
std::optional<std::uint16_t> hexNumber(const std::string& text)
{
    std::uint16_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end == text.data()) {
        return std::nullopt;
    }
    return value;
}

// The nearest device above the port's tty that carries both identifiers,
// with the two of them ("2341", "003e").
struct UsbDevice {
    DeviceHandle entry;
    std::string vendor;
    std::string product;
};

std::optional<UsbDevice> usbDeviceOf(const SerialPort& port)
{
    const SerialPort::Ptr current = SerialPort::serialPortWithPath(port.path());
    if (!current) {
        return std::nullopt;
    }
    auto found = DeviceRegistry::shared().nearestWithAttributes(current->IOKitDevice(), {kVendorKey, kProductKey});
    if (!found) {
        return std::nullopt;
    }
    return UsbDevice{std::move(found->first), std::move(found->second[0]), std::move(found->second[1])};
}

} // namespace

std::optional<DeviceAttributes> ioDeviceAttributes(const SerialPort& port)
{
    const auto usb = usbDeviceOf(port);
    if (!usb) {
        return std::nullopt;
    }
    DeviceRegistry& registry = DeviceRegistry::shared();
    DeviceAttributes attributes(usb->entry->properties.begin(), usb->entry->properties.end());
    // The sysfs attributes win over udev properties of the same name.
    for (const char* key : kIdentityAttributes) {
        if (std::string_view(key) == kVendorKey) {
            attributes[key] = usb->vendor;
        } else if (std::string_view(key) == kProductKey) {
            attributes[key] = usb->product;
        } else if (std::optional<std::string> value = registry.attribute(usb->entry, key)) {
            attributes[key] = std::move(*value);
        }
    }
    return attributes;
}

std::optional<std::string> usbLocation(const SerialPort& port)
{
    const auto usb = usbDeviceOf(port);
    if (!usb || usb->entry->sysname.empty()) {
        return std::nullopt;
    }
    return usb->entry->sysname;
}

std::optional<UsbIdentifiers> usbIdentifiers(const SerialPort& port)
{
    const auto usb = usbDeviceOf(port);
    if (!usb) {
        return std::nullopt;
    }
    return UsbIdentifiers{hexNumber(usb->vendor), hexNumber(usb->product)};
}

std::optional<std::uint16_t> vendorID(const SerialPort& port)
{
    const auto identifiers = usbIdentifiers(port);
    return identifiers ? identifiers->vendor : std::nullopt;
}

std::optional<std::uint16_t> productID(const SerialPort& port)
{
    const auto identifiers = usbIdentifiers(port);
    return identifiers ? identifiers->product : std::nullopt;
}

} // namespace quendral
