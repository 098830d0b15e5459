#include "controller/controller_port.h"

namespace quendral {

void openControllerPort(SerialPort& port, unsigned long baudRate)
{
    // Exactly this order: baud rate, DTR, RTS, open.
    port.setBaudRate(baudRate);
    port.setDTR(true);
    port.setRTS(true);
    port.open();
}

} // namespace quendral
