#pragma once
// The USB identity of the device behind a serial port: the properties of the
// nearest device above the port's tty that carries both "idVendor" and
// "idProduct" (the usb_device). Every call looks the port up and walks the
// device tree anew; nothing is cached, so an identity that changed (a board
// that rebooted into its boot loader under the same path) is seen at once.
// A port that is not on USB (a mainboard's ttyS0) has none.
#include "serial/serial_port.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace quendral {

using DeviceAttributes = std::map<std::string, std::string>;

// The USB device's properties: its udev properties and its identifying sysfs
// attributes (idVendor, idProduct, manufacturer, product, serial, ...), as text.
[[nodiscard]] std::optional<DeviceAttributes> ioDeviceAttributes(const SerialPort& port);
[[nodiscard]] std::optional<std::uint16_t> vendorID(const SerialPort& port);
[[nodiscard]] std::optional<std::uint16_t> productID(const SerialPort& port);
// Both identifiers from one walk of the tree (an identifier that is not a
// hexadecimal number is none, as above).
struct UsbIdentifiers {
    std::optional<std::uint16_t> vendor;
    std::optional<std::uint16_t> product;
};
[[nodiscard]] std::optional<UsbIdentifiers> usbIdentifiers(const SerialPort& port);
// Where that USB device is plugged in: its name on the bus, the bus and the
// chain of hub ports ("1-1.4"). It stays the same while a board re-enumerates
// on its socket (into its boot loader and back), when its node, identity and
// serial number all change. None off USB.
[[nodiscard]] std::optional<std::string> usbLocation(const SerialPort& port);

} // namespace quendral
