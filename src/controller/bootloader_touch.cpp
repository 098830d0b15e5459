#include "controller/bootloader_touch.h"

#include "log/logger.h"
#include "serial/serial_port_attributes.h"

#include <chrono>

namespace quendral {

void touchForBootloader(const std::string& path, int delay, std::stop_token stop, Clock& clock,
                        const std::function<void(const SerialPort::Ptr& port)>& portInUse)
{
    SerialPort::Ptr port = SerialPort::serialPortWithPath(path);
    portInUse(port);
    if (port) {
        port->setDTR(false);
        port->setRTS(false);
    }
    // A fresh object is closed; one still open elsewhere is waited for.
    while (port && port->isOpen() && !stop.stop_requested()) {
    }
    Logger::log("Resetting device into programming mode..");
    if (port) {
        port->setBaudRate(1200);
    }
    // No pause: a port that cannot be opened keeps this thread here (a
    // vanished path leaves no object to open at all). A port this user may
    // not open never will be: that ends the retry at once.
    bool denied = false;
    while (!(port && port->isOpen()) && !stop.stop_requested() && !denied) {
        if (port) {
            port->open();
            denied = !port->isOpen() && port->openWasDenied();
        }
    }
    if (denied) {
        Logger::log("Cannot reset " + path + ": permission denied");
        return;
    }
    if (stop.stop_requested()) {
        if (port && port->isOpen()) {
            port->close();
        }
        return;
    }
    clock.sleepFor(std::chrono::seconds(delay));
    port->close();
}

CombinedUsbIdentifier usbIdentifierOf(const SerialPortList& ports, const std::string& path)
{
    for (const SerialPort::Ptr& port : ports) {
        if (port->path() == path) {
            const auto identifiers = usbIdentifiers(*port).value_or(UsbIdentifiers{});
            return combinedUsbIdentifier(identifiers.vendor.value_or(0), identifiers.product.value_or(0));
        }
    }
    return 0;
}

} // namespace quendral
