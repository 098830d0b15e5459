#include "log/visible_text.h"

namespace quendral {
namespace {

// What the bytes at the start of a text are: a whole character of several
// bytes, no UTF-8 at all (judged one byte at a time), or the start of a
// character that the text ends in.
enum class Judgement { Character, NotUtf8, Unfinished };

struct Sequence {
    Judgement judgement;
    std::size_t length;
};

// Well-formed UTF-8 as Unicode defines it (no overlong forms, no surrogates,
// nothing beyond U+10FFFF); `text` starts with a byte of 0x80 or more.
Sequence utf8Sequence(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text[0]);
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return {Judgement::NotUtf8, 1};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= text.size()) {
            return {Judgement::Unfinished, 0};
        }
        const auto byte = static_cast<unsigned char>(text[i]);
        const unsigned char min = i == 1 ? low : 0x80;
        const unsigned char max = i == 1 ? high : 0xBF;
        if (byte < min || byte > max) {
            return {Judgement::NotUtf8, 1};
        }
    }
    return {Judgement::Character, length};
}

struct Unit {
    std::size_t consumed = 0; // 0: the text ends too early to judge
    std::string_view visible;
};

// The first character or byte of `text` and how it is shown. `atEnd`: no
// more text follows, so an unfinished character or a final CR is judged as
// it is. `scratch` holds an escape.
Unit firstUnit(std::string_view text, bool atEnd, char (&scratch)[8])
{
    const auto byte = static_cast<unsigned char>(text[0]);
    // \x or \u00, then two hex digits.
    const auto escaped = [&](std::string_view prefix, unsigned char value, std::size_t consumed) {
        constexpr char kDigits[] = "0123456789abcdef";
        std::size_t length = prefix.copy(scratch, prefix.size());
        scratch[length++] = kDigits[value >> 4];
        scratch[length++] = kDigits[value & 0xF];
        return Unit{consumed, std::string_view(scratch, length)};
    };
    if (byte == '\n' || byte == '\t' || (byte >= 0x20 && byte < 0x7F)) {
        return {1, text.substr(0, 1)};
    }
    if (byte == '\r') {
        if (text.size() < 2 && !atEnd) {
            return {};
        }
        if (text.size() >= 2 && text[1] == '\n') {
            return {1, text.substr(0, 1)};
        }
        return {1, "\\r"};
    }
    if (byte == 0) {
        return {1, "\\0"};
    }
    if (byte < 0x80) {
        return escaped("\\x", byte, 1);
    }
    const Sequence sequence = utf8Sequence(text);
    if (sequence.judgement == Judgement::Unfinished) {
        if (!atEnd) {
            return {};
        }
        return escaped("\\x", byte, 1);
    }
    if (sequence.judgement == Judgement::NotUtf8) {
        return escaped("\\x", byte, 1);
    }
    if (byte == 0xC2 && static_cast<unsigned char>(text[1]) <= 0x9F) {
        return escaped("\\u00", static_cast<unsigned char>(text[1]), 2); // a C1 control
    }
    return {sequence.length, text.substr(0, sequence.length)};
}

// Appends units of `text` while `out` stays within `limit`; stops early
// where a unit cannot be judged yet (only when !atEnd). Returns the bytes taken.
std::size_t appendUnits(std::string& out, std::string_view text, std::size_t limit, bool atEnd)
{
    char scratch[8];
    std::size_t taken = 0;
    while (taken < text.size()) {
        const Unit unit = firstUnit(text.substr(taken), atEnd, scratch);
        if (unit.consumed == 0 || out.size() + unit.visible.size() > limit) {
            break;
        }
        out += unit.visible;
        taken += unit.consumed;
    }
    return taken;
}

} // namespace

std::string visibleText(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    appendUnits(out, text, std::string::npos, true);
    return out;
}

std::size_t appendVisibleText(std::string& out, std::string_view text, std::size_t limit)
{
    return appendUnits(out, text, limit, true);
}

std::string VisibleTextStream::feed(std::string_view piece)
{
    _pending += piece;
    std::string out;
    _pending.erase(0, appendUnits(out, _pending, std::string::npos, false));
    return out;
}

std::string VisibleTextStream::finish()
{
    std::string out;
    appendUnits(out, _pending, std::string::npos, true);
    _pending.clear();
    return out;
}

} // namespace quendral
