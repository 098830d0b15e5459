#pragma once
// The packet matchers against each other on one stream.
#include "serial/serial_buffer.h"
#include "serial/serial_packet_descriptor.h"
#include "serial/serial_packet_scanner.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace quendral::test {

// Feeds a stream byte by byte as a listening port does (the buffer is cleared
// after each packet) and checks the scanner, the shortcut search and the
// plain search against each other at every byte. `packets`, when given,
// receives the number of packets found.
inline void expectScannerAgreesWithThePlainSearch(const SerialPacketDescriptor::Ptr& descriptor,
                                                  const SerialData& stream, std::size_t* packets = nullptr)
{
    SerialBuffer buffer(descriptor->maximumPacketLength());
    auto scanner = descriptor->makeScanner();
    std::size_t found = 0;
    for (std::size_t i = 0; i < stream.size(); ++i) {
        buffer.appendByte(stream[i]);
        const std::size_t plain = lengthOfPacketAtEndOfBufferTryingEveryTail(*descriptor, buffer.data());
        ASSERT_EQ(descriptor->lengthOfPacketAtEndOfBuffer(buffer.data()), plain) << "shortcut at byte " << i;
        ASSERT_EQ(scanner->appendedByte(stream[i], buffer.data()), plain) << "scanner at byte " << i;
        if (plain > 0) {
            ++found;
            buffer.clearBuffer();
            scanner->bufferCleared();
        }
    }
    if (packets != nullptr) {
        *packets = found;
    }
}

} // namespace quendral::test
