// SerialPort: where packets and requests hook into the port.
//
// Packet detection and request/response handling keep their state on the
// port's requestHandlingQueue. The port calls in here from that queue; the
// packet and request machinery fills these in.
#include "serial/serial_port.h"

namespace quendral {

void SerialPort::handleReceivedChunk(const SerialData& /*chunk*/)
{
    // For each byte: every listened-for packet descriptor, then the pending
    // request's response check. No descriptors or requests exist yet.
}

void SerialPort::resetRequestsAfterClose()
{
    // Drops the queued requests and the pending one; none exist yet.
}

} // namespace quendral
