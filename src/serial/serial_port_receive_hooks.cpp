// SerialPort: where packets and requests hook into the port.
//
// Packet detection and request/response handling keep their state on the
// port's requestHandlingQueue; the port calls in here from that queue.
#include "serial/serial_port_packets_requests.h"

namespace quendral {

bool SerialPort::receivedBytesHaveNowhereToGo() const
{
    const auto& state = *_packetsAndRequests;
    std::lock_guard lock(state.mutex);
    return state.packetDescriptorsAndBuffers.empty() && !state.pendingRequest;
}

void SerialPort::handleReceivedChunk(const SerialData& chunk)
{
    // Most ports (the monitor, the text protocol) listen for no packet and
    // have no request out: then a chunk costs one look instead of two locks
    // per byte (a third of a flooded monitor's CPU time went there).
    if (receivedBytesHaveNowhereToGo()) {
        return;
    }
    // Byte by byte: every listened-for descriptor sees the byte before the
    // pending request's response check does.
    for (const std::uint8_t byte : chunk) {
        detectPackets(byte);
        checkResponseToPendingRequestAndContinueIfValidWithReceivedByte(byte);
    }
}

void SerialPort::resetRequestsAfterClose()
{
    auto& state = *_packetsAndRequests;
    bool hadQueuedRequests = false;
    {
        std::lock_guard lock(state.mutex);
        hadQueuedRequests = !state.requestsQueue.empty();
        state.requestsQueue.clear();
        state.pendingRequest.reset();
    }
    // The time-out timer keeps running: closing has never stopped it.
    if (hadQueuedRequests) {
        notifyPropertyObservers(SerialPortProperty::QueuedRequests);
    }
}

} // namespace quendral
