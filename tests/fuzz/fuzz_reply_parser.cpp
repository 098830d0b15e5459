// Fuzz target for the Controller reply parser.
//
// The input is a byte stream from a Controller; its first two bytes seed how
// the stream is cut into chunks. The parser must not crash, and chunking must
// not matter: the same stream fed whole and fed in pieces leaves the same
// state and the same unconsumed bytes (the last-byte rule holds back only
// the final line feed in both cases).
#include "controller/controller_state.h"
#include "controller/reply_parser.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

namespace {

using quendral::ControllerReplyParser;
using quendral::ControllerState;

bool sameState(const ControllerState& a, const ControllerState& b)
{
    return a.deviceCID() == b.deviceCID() && a.currentVersion() == b.currentVersion() &&
           a.deviceMessage() == b.deviceMessage() && a.deviceIP() == b.deviceIP() && a.ipDump() == b.ipDump() &&
           a.dumpingIP() == b.dumpingIP();
}

void check(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2) {
        return 0;
    }
    std::uint32_t seed = static_cast<std::uint32_t>(data[0]) << 8 | data[1];
    const std::span<const std::uint8_t> stream(data + 2, size - 2);

    ControllerState wholeState;
    ControllerReplyParser whole(wholeState);
    whole.receive(stream);

    ControllerState chunkedState;
    ControllerReplyParser chunked(chunkedState);
    std::size_t offset = 0;
    while (offset < stream.size()) {
        seed = seed * 1103515245U + 12345U;
        const std::size_t length = std::min<std::size_t>(1 + (seed >> 16) % 64, stream.size() - offset);
        chunked.receive(stream.subspan(offset, length));
        offset += length;
        // What is left is at most one incomplete line, whose line feed (if
        // any) is its very last byte.
        const auto& input = chunked.serialInput();
        if (input.size() > 1) {
            check(std::find(input.begin(), input.end() - 1, '\n') == input.end() - 1);
        }
    }

    check(sameState(wholeState, chunkedState));
    check(whole.serialInput() == chunked.serialInput());
    for (const std::string& line : wholeState.ipDump()) {
        check(line.find('\n') == std::string::npos);
        check(std::none_of(line.begin(), line.end(),
                           [](char c) { return (static_cast<unsigned char>(c) & 0x80U) != 0; }));
    }
    if (const auto cid = wholeState.deviceCID()) {
        check(cid->size() == 32);
    }
    return 0;
}
