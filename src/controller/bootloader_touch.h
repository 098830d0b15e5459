#pragma once
// The 1200-baud touch that sends a board into its boot loader, and the USB
// identity by which the board behind a port is told.
#include "flashing/board_table.h"
#include "platform/clock.h"
#include "serial/serial_port.h"
#include "serial/serial_port_manager.h"

#include <functional>
#include <stop_token>
#include <string>

namespace quendral {

// Open the port at 1200 baud with DTR and RTS off (retrying the open without
// pause for as long as it fails), wait `delay` seconds, close. `portInUse`
// hears of the port object first. The retry has no limit on purpose; only a
// stop request (the board left, tests, shutdown) or a refusal for lack of
// permission ends it early. Blocks: never on the main queue.
void touchForBootloader(const std::string& path, int delay, std::stop_token stop, Clock& clock,
                        const std::function<void(const SerialPort::Ptr& port)>& portInUse);

// The combined USB identifier of the listed port with this path; 0 when none
// is listed (any more) or it is not on USB.
[[nodiscard]] CombinedUsbIdentifier usbIdentifierOf(const SerialPortList& ports, const std::string& path);

} // namespace quendral
