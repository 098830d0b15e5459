// Strict UTF-8 validation, whole and streaming.
#include "serial/utf8_validation.h"

namespace quendral::utf8 {

LeadByte classifyLead(std::uint8_t byte)
{
    if (byte < 0x80) {
        return {true, 0, 0x80, 0xBF};
    }
    if (byte >= 0xC2 && byte <= 0xDF) {
        return {true, 1, 0x80, 0xBF};
    }
    if (byte == 0xE0) {
        return {true, 2, 0xA0, 0xBF}; // no overlong forms
    }
    if (byte == 0xED) {
        return {true, 2, 0x80, 0x9F}; // no surrogates
    }
    if (byte >= 0xE1 && byte <= 0xEF) {
        return {true, 2, 0x80, 0xBF};
    }
    if (byte == 0xF0) {
        return {true, 3, 0x90, 0xBF};
    }
    if (byte >= 0xF1 && byte <= 0xF3) {
        return {true, 3, 0x80, 0xBF};
    }
    if (byte == 0xF4) {
        return {true, 3, 0x80, 0x8F}; // nothing above U+10FFFF
    }
    return {}; // continuation bytes, C0, C1, F5 to FF
}

bool isValid(std::span<const std::uint8_t> bytes)
{
    std::size_t i = 0;
    while (i < bytes.size()) {
        const LeadByte lead = classifyLead(bytes[i]);
        if (!lead.valid || bytes.size() - i - 1 < static_cast<std::size_t>(lead.continuationBytes)) {
            return false;
        }
        for (int c = 1; c <= lead.continuationBytes; ++c) {
            const std::uint8_t next = bytes[i + static_cast<std::size_t>(c)];
            const std::uint8_t low = c == 1 ? lead.secondLow : 0x80;
            const std::uint8_t high = c == 1 ? lead.secondHigh : 0xBF;
            if (next < low || next > high) {
                return false;
            }
        }
        i += 1 + static_cast<std::size_t>(lead.continuationBytes);
    }
    return true;
}

Utf8StreamState::Step Utf8StreamState::feed(std::uint8_t byte)
{
    if (_remaining > 0) {
        if (byte >= _low && byte <= _high) {
            --_remaining;
            _low = 0x80;
            _high = 0xBF;
            return Step::Continues;
        }
        _remaining = 0;
        return startFrom(byte, true);
    }
    return startFrom(byte, false);
}

Utf8StreamState::Step Utf8StreamState::startFrom(std::uint8_t byte, bool broke)
{
    const LeadByte lead = classifyLead(byte);
    if (!lead.valid) {
        return Step::Breaks;
    }
    _remaining = lead.continuationBytes;
    _low = lead.secondLow;
    _high = lead.secondHigh;
    return broke ? Step::BreaksAndStarts : Step::StartsCharacter;
}

} // namespace quendral::utf8
