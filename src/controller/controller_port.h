#pragma once
// How every part of this program opens a Controller's port: the Controller
// speaks at 115200 baud and its USB serial side wants DTR and RTS raised
// before the open (a board that resets on DTR resets here, once). Who takes
// the port's callbacks, and when, stays with the caller.
#include "serial/serial_port.h"

namespace quendral {

inline constexpr unsigned long kControllerBaudRate = 115200;

// Sets the speed and both output lines, then opens; the caller checks isOpen().
void openControllerPort(SerialPort& port, unsigned long baudRate = kControllerBaudRate);

} // namespace quendral
