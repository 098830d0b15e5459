#pragma once
// Finds the packet at the end of one SerialBuffer while the buffer grows a
// byte at a time: the answer of packetMatchingAtEndOfBuffer() (the shortest
// valid tail), without trying every tail again after every byte.
//
// A scanner follows exactly one buffer: it is told of every byte appended to
// it (after the append) and of every clear. It may be asked only through
// appendedByte(); its answers equal the plain search on the buffer's bytes.
#include "serial/serial_packet_descriptor.h"

#include <cstdint>
#include <span>

namespace quendral {

class SerialPacketScanner {
public:
    virtual ~SerialPacketScanner() = default;
    // `buffer` holds the bytes after `byte` was appended. Returns the length
    // of the shortest valid tail of `buffer`, or 0 when no tail is a packet.
    virtual std::size_t appendedByte(std::uint8_t byte, std::span<const std::uint8_t> buffer) = 0;
    virtual void bufferCleared() = 0;
};

} // namespace quendral
