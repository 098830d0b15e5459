#pragma once
// The packet and request state of a SerialPort (internal to the serial layer).
//
// Everything here is changed only on the port's requestHandlingQueue. The
// descriptor list, the request queue and the pending request are also read
// from other threads (packetDescriptors(), queuedRequests()), so changes to
// them take `mutex`; the buffers, scanners and the timer are the queue's own.
#include "platform/dispatch.h"
#include "serial/serial_buffer.h"
#include "serial/serial_packet_descriptor.h"
#include "serial/serial_packet_scanner.h"
#include "serial/serial_port.h"
#include "serial/serial_request.h"

#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace quendral {

// A buffer of the newest bytes and the scanner that follows it.
struct SerialPacketReceiver {
    explicit SerialPacketReceiver(const SerialPacketDescriptor& descriptor)
        : buffer(descriptor.maximumPacketLength()), scanner(descriptor.makeScanner())
    {
    }

    // Appends the byte; the length of the packet now at the end, 0 for none.
    std::size_t receiveByte(std::uint8_t byte)
    {
        buffer.appendByte(byte);
        return scanner->appendedByte(byte, buffer.data());
    }
    void clear()
    {
        buffer.clearBuffer();
        scanner->bufferCleared();
    }

    SerialBuffer buffer;
    std::unique_ptr<SerialPacketScanner> scanner;
};

struct SerialPort::PacketsAndRequests {
    struct Listening {
        explicit Listening(SerialPacketDescriptor::Ptr listenedFor)
            : descriptor(std::move(listenedFor)), receiver(*descriptor)
        {
        }
        SerialPacketDescriptor::Ptr descriptor;
        SerialPacketReceiver receiver;
    };

    mutable std::mutex mutex;
    // packetDescriptorsAndBuffers, in the order listening began.
    std::vector<std::shared_ptr<Listening>> packetDescriptorsAndBuffers;
    std::deque<SerialRequest::Ptr> requestsQueue;
    SerialRequest::Ptr pendingRequest;

    // Only on requestHandlingQueue.
    std::unique_ptr<SerialPacketReceiver> requestResponseReceiveBuffer;
    dispatch::TimerPtr pendingRequestTimeoutTimer; // cancelled when replaced or destroyed

    ~PacketsAndRequests()
    {
        if (pendingRequestTimeoutTimer) {
            pendingRequestTimeoutTimer->cancel();
        }
    }
};

} // namespace quendral
