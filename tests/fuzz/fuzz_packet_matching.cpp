// The fast packet matchers against the plain search.
//
// The input picks a descriptor (prefix/suffix, fixed data, a regular
// expression put together from tokens, or a test function) and a stream. The
// stream is fed byte by byte into a bounded buffer as a listening port does;
// after every byte the scanner, the shortcut search and the plain search that
// tries every tail must name the same packet. Any difference aborts.
#include "serial/serial_buffer.h"
#include "serial/serial_packet_descriptor.h"
#include "serial/serial_packet_scanner.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

using namespace quendral;

namespace {

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : _data(data), _size(size) {}
    [[nodiscard]] bool empty() const { return _offset >= _size; }
    std::uint8_t byte() { return empty() ? 0 : _data[_offset++]; }
    // Bytes drawn from a small alphabet so that prefixes, suffixes and
    // patterns actually occur; some of them do not decode as UTF-8.
    std::uint8_t streamByte(bool raw)
    {
        static constexpr std::uint8_t alphabet[] = {'a',  'b',  '$',  '\n', '\r', '0',  '9',  ' ',
                                                    0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0x80, 0xFF, 0xF0};
        const std::uint8_t value = byte();
        return raw ? value : alphabet[value % sizeof alphabet];
    }
    SerialData bytes(std::size_t maxLength, bool raw)
    {
        const std::size_t length = byte() % (maxLength + 1);
        SerialData result;
        for (std::size_t i = 0; i < length && !empty(); ++i) {
            result.push_back(streamByte(raw));
        }
        return result;
    }

private:
    const std::uint8_t* _data;
    std::size_t _size;
    std::size_t _offset = 0;
};

std::string patternFrom(Input& input)
{
    static const char* const tokens[] = {
        "a",     "b",    "$",   "\\$", ".",    "*",     "+",     "?",      "|",      "(",       ")",
        "[ab]",  "[^a]", "^",   "\\b", "\\B",  "(?=a)", "(?!b)", "(?<=a)", "\\d",    "\\w",     "\\s",
        "{1,3}", "é",    "€",   "\\n", "(?i)", "\\z",   "\\Z",   "(a|ab)", "(?>a+)", "a++",     "(a)\\1",
        "(?:",   "\\K",  "\\R", "\\X", "[é€]", "\\r",   "0",     "9",      "*?",     "\\$.*\\n"};
    const std::size_t count = 1 + input.byte() % 8;
    std::string pattern;
    for (std::size_t i = 0; i < count; ++i) {
        pattern += tokens[input.byte() % (sizeof tokens / sizeof tokens[0])];
    }
    return pattern;
}

SerialPacketDescriptor::Ptr descriptorFrom(Input& input)
{
    const std::uint8_t kind = input.byte();
    const std::uint64_t maximum = input.byte() % 48;
    const bool raw = (kind & 0x80) != 0;
    switch (kind % 6) {
    case 0:
        return SerialPacketDescriptor::initWithPrefix(input.bytes(3, raw), input.bytes(3, raw), maximum, {});
    case 1: {
        const std::uint8_t presence = input.byte();
        std::optional<SerialData> prefix;
        std::optional<SerialData> suffix;
        if ((presence & 1) != 0) {
            prefix = input.bytes(4, raw);
        }
        if ((presence & 2) != 0) {
            suffix = input.bytes(4, raw);
        }
        return SerialPacketDescriptor::initWithPrefix(prefix, suffix, maximum, {});
    }
    case 2:
        return SerialPacketDescriptor::initWithPacketData(input.bytes(6, raw), {});
    case 3:
    case 4: {
        auto expression = SerialRegularExpression::regularExpressionWithPattern(patternFrom(input));
        if (!expression) {
            return nullptr;
        }
        return SerialPacketDescriptor::initWithRegularExpression(expression, maximum, {});
    }
    default: {
        const std::uint8_t wanted = input.streamByte(false);
        const std::size_t length = 1 + input.byte() % 5;
        return SerialPacketDescriptor::initWithMaximumPacketLength(
            maximum, {}, [wanted, length](std::span<const std::uint8_t> data) {
                return data.size() >= length && data.front() == wanted;
            });
    }
    }
}

[[noreturn]] void difference(const char* what, std::size_t at, std::size_t expected, std::size_t got)
{
    std::fprintf(stderr, "%s differs at byte %zu: plain search %zu, got %zu\n", what, at, expected, got);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const auto descriptor = descriptorFrom(input);
    if (!descriptor) {
        return 0;
    }
    const std::uint8_t mode = input.byte();
    const bool rawStream = (mode & 1) != 0;
    // A listening port clears the buffer after each packet; a request's
    // response buffer is left as it is.
    const bool clearAfterPacket = (mode & 2) == 0;

    SerialBuffer buffer(descriptor->maximumPacketLength());
    auto scanner = descriptor->makeScanner();
    for (std::size_t i = 0; !input.empty() && i < 4096; ++i) {
        const std::uint8_t byte = input.streamByte(rawStream);
        buffer.appendByte(byte);
        const std::size_t plain = lengthOfPacketAtEndOfBufferTryingEveryTail(*descriptor, buffer.data());
        const std::size_t shortcut = descriptor->lengthOfPacketAtEndOfBuffer(buffer.data());
        if (shortcut != plain) {
            difference("shortcut search", i, plain, shortcut);
        }
        const std::size_t scanned = scanner->appendedByte(byte, buffer.data());
        if (scanned != plain) {
            difference("scanner", i, plain, scanned);
        }
        if (plain > 0 && clearAfterPacket) {
            buffer.clearBuffer();
            scanner->bufferCleared();
        }
    }
    return 0;
}
