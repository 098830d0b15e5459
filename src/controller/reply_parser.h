#pragma once
// The one parser of a Controller's replies: bytes in, ControllerState out.
//
// Lines end in a line feed. A line feed that arrives as the very last byte
// is left for later: it is examined only once at least one more byte has
// arrived (the waiting procedures poll around this lag, and the reply to one
// request is usually completed by the first byte of the next).
//
// Lines that are not 7-bit ASCII are skipped whole: they neither set a field
// nor enter the IP dump.
//
// A line counts with its first kLineLimit bytes; the rest of a longer one is
// dropped as it arrives (a Controller line is shorter than a hundred bytes,
// so only a broken or hostile peer gets there). The IP dump has limits of
// its own (ControllerState). Each cut is logged once.
#include "controller/controller_state.h"

#include <cstdint>
#include <span>
#include <vector>

namespace quendral {

class ControllerReplyParser {
public:
    static constexpr std::size_t kLineLimit = std::size_t{64} * 1024;

    explicit ControllerReplyParser(ControllerState& state) : _state(state) {}

    void receive(std::span<const std::uint8_t> bytes);
    // Forgets the bytes not yet consumed (a new port session begins).
    void discardPending()
    {
        _serialInput.clear();
        _scanned = 0;
    }
    // The bytes not yet consumed as complete lines (`serialInput`).
    [[nodiscard]] const std::vector<std::uint8_t>& serialInput() const { return _serialInput; }

private:
    void classify(std::string_view line);
    void noteLineCut();

    ControllerState& _state;
    std::vector<std::uint8_t> _serialInput;
    // Bytes of `_serialInput` known to hold no line feed; resuming there finds
    // exactly what a scan from index 0 would, without going quadratic on a
    // long line that arrives in many chunks.
    std::size_t _scanned = 0;
    // The line now arriving was cut already (and said so in the log).
    bool _cuttingLine = false;
};

} // namespace quendral
