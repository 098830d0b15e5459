#pragma once
// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above
// U+10FFFF, no stray or missing continuation bytes. Text that fails here does
// not decode to a string at all.
#include <cstdint>
#include <span>

namespace quendral::utf8 {

[[nodiscard]] bool isValid(std::span<const std::uint8_t> bytes);

// How a byte at a character boundary begins a character.
struct LeadByte {
    bool valid = false;
    int continuationBytes = 0;     // 0 to 3
    std::uint8_t secondLow = 0x80; // range allowed for the byte after the lead
    std::uint8_t secondHigh = 0xBF;
};

[[nodiscard]] LeadByte classifyLead(std::uint8_t byte);

[[nodiscard]] inline bool isContinuation(std::uint8_t byte)
{
    return (byte & 0xC0) == 0x80;
}

// Follows a stream byte by byte and tells which bytes begin a character of a
// valid decoding, and whether the stream currently ends between characters.
class Utf8StreamState {
public:
    enum class Step {
        StartsCharacter, // the byte begins a character (every earlier start stays valid)
        Continues,       // the byte continues the current character
        Breaks,          // the byte makes every earlier start invalid; it begins nothing itself
        BreaksAndStarts, // every earlier start is invalid, and this byte begins a character
    };

    Step feed(std::uint8_t byte);
    [[nodiscard]] bool atCharacterBoundary() const { return _remaining == 0; }
    void reset() { _remaining = 0; }

private:
    Step startFrom(std::uint8_t byte, bool broke);

    int _remaining = 0;
    std::uint8_t _low = 0x80;
    std::uint8_t _high = 0xBF;
};

} // namespace quendral::utf8
