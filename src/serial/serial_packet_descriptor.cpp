// SerialPacketDescriptor: creation, the tests, and the search for a packet at
// the end of a buffer.
#include "serial/serial_packet_descriptor.h"

#include "serial/serial_packet_scanner.h"
#include "serial/utf8_validation.h"

#include <algorithm>
#include <cstring>

namespace quendral {
namespace {

bool equalBytes(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

bool prefixSuffixMatches(const std::optional<SerialData>& prefix, const std::optional<SerialData>& suffix,
                         std::span<const std::uint8_t> data)
{
    if (!prefix && !suffix) {
        return false;
    }
    const std::size_t prefixLength = prefix ? prefix->size() : 0;
    const std::size_t suffixLength = suffix ? suffix->size() : 0;
    if (prefixLength > data.size() || suffixLength > data.size()) {
        return false;
    }
    if (prefixLength > 0 && !equalBytes(data.first(prefixLength), *prefix)) {
        return false;
    }
    if (suffixLength > 0 && !equalBytes(data.last(suffixLength), *suffix)) {
        return false;
    }
    return true;
}

bool regularExpressionMatches(const SerialRegularExpression::Ptr& expression, std::span<const std::uint8_t> data)
{
    return expression && utf8::isValid(data) && expression->hasAnchoredMatch(data);
}

SerialData bytesOf(const std::string& text)
{
    return SerialData(text.begin(), text.end());
}

} // namespace

SerialPacketDescriptor::SerialPacketDescriptor(Passkey, Kind kind, std::uint64_t maximumPacketLength, std::any userInfo)
    : _kind(kind), _maximumPacketLength(maximumPacketLength), _userInfo(std::move(userInfo)), _uuid(SerialUUID::make())
{
}

// --- creation ---------------------------------------------------------------------

SerialPacketDescriptor::Ptr SerialPacketDescriptor::initWithMaximumPacketLength(std::uint64_t maximumPacketLength,
                                                                                std::any userInfo,
                                                                                ResponseEvaluator responseEvaluator)
{
    auto descriptor =
        std::make_shared<SerialPacketDescriptor>(Passkey{}, Kind::Evaluator, maximumPacketLength, std::move(userInfo));
    if (responseEvaluator) {
        descriptor->_responseEvaluator = std::move(responseEvaluator);
    } else {
        descriptor->_responseEvaluator = [](std::span<const std::uint8_t> data) { return !data.empty(); };
    }
    return descriptor;
}

SerialPacketDescriptor::Ptr SerialPacketDescriptor::initWithPacketData(SerialData packetData, std::any userInfo)
{
    auto descriptor =
        std::make_shared<SerialPacketDescriptor>(Passkey{}, Kind::PacketData, packetData.size(), std::move(userInfo));
    descriptor->_responseEvaluator = [packetData](std::span<const std::uint8_t> data) {
        return equalBytes(data, packetData);
    };
    descriptor->_packetData = std::move(packetData);
    return descriptor;
}

SerialPacketDescriptor::Ptr SerialPacketDescriptor::initWithPrefix(std::optional<SerialData> prefix,
                                                                   std::optional<SerialData> suffix,
                                                                   std::uint64_t maximumPacketLength, std::any userInfo)
{
    auto descriptor = std::make_shared<SerialPacketDescriptor>(Passkey{}, Kind::PrefixSuffix, maximumPacketLength,
                                                               std::move(userInfo));
    descriptor->_responseEvaluator = [prefix, suffix](std::span<const std::uint8_t> data) {
        return prefixSuffixMatches(prefix, suffix, data);
    };
    descriptor->_prefix = std::move(prefix);
    descriptor->_suffix = std::move(suffix);
    return descriptor;
}

SerialPacketDescriptor::Ptr SerialPacketDescriptor::initWithPrefixString(std::optional<std::string> prefixString,
                                                                         std::optional<std::string> suffixString,
                                                                         std::uint64_t maximumPacketLength,
                                                                         std::any userInfo)
{
    std::optional<SerialData> prefix;
    std::optional<SerialData> suffix;
    if (prefixString) {
        prefix = bytesOf(*prefixString);
    }
    if (suffixString) {
        suffix = bytesOf(*suffixString);
    }
    return initWithPrefix(std::move(prefix), std::move(suffix), maximumPacketLength, std::move(userInfo));
}

SerialPacketDescriptor::Ptr
SerialPacketDescriptor::initWithRegularExpression(SerialRegularExpression::Ptr regularExpression,
                                                  std::uint64_t maximumPacketLength, std::any userInfo)
{
    auto descriptor = std::make_shared<SerialPacketDescriptor>(Passkey{}, Kind::RegularExpression, maximumPacketLength,
                                                               std::move(userInfo));
    descriptor->_responseEvaluator = [regularExpression](std::span<const std::uint8_t> data) {
        return regularExpressionMatches(regularExpression, data);
    };
    descriptor->_regularExpression = std::move(regularExpression);
    return descriptor;
}

// --- tests ------------------------------------------------------------------------

bool SerialPacketDescriptor::dataIsValidPacket(std::span<const std::uint8_t> data) const
{
    if (!_responseEvaluator) {
        return true;
    }
    return _responseEvaluator(data);
}

// --- the search at the end of a buffer --------------------------------------------

std::size_t lengthOfPacketAtEndOfBufferTryingEveryTail(const SerialPacketDescriptor& descriptor,
                                                       std::span<const std::uint8_t> buffer)
{
    for (std::size_t k = 1; k <= buffer.size(); ++k) {
        if (descriptor.dataIsValidPacket(buffer.last(k))) {
            return k;
        }
    }
    return 0;
}

std::optional<SerialData>
SerialPacketDescriptor::packetMatchingAtEndOfBuffer(std::span<const std::uint8_t> buffer) const
{
    const std::size_t length = lengthOfPacketAtEndOfBuffer(buffer);
    if (length == 0) {
        return std::nullopt;
    }
    const auto tail = buffer.last(length);
    return SerialData(tail.begin(), tail.end());
}

std::size_t SerialPacketDescriptor::lengthOfPacketAtEndOfBuffer(std::span<const std::uint8_t> buffer) const
{
    const std::size_t size = buffer.size();
    switch (_kind) {
    case Kind::Evaluator:
        return lengthOfPacketAtEndOfBufferTryingEveryTail(*this, buffer);

    case Kind::PacketData: {
        // Only the tail as long as the data can equal it.
        const std::size_t length = _packetData->size();
        return length > 0 && length <= size && equalBytes(buffer.last(length), *_packetData) ? length : 0;
    }

    case Kind::PrefixSuffix: {
        if (!_prefix && !_suffix) {
            return 0;
        }
        const std::size_t prefixLength = _prefix ? _prefix->size() : 0;
        const std::size_t suffixLength = _suffix ? _suffix->size() : 0;
        // Every tail ends in the same bytes: without the suffix there, none matches.
        if (suffixLength > size || (suffixLength > 0 && !equalBytes(buffer.last(suffixLength), *_suffix))) {
            return 0;
        }
        const std::size_t shortest = std::max<std::size_t>({prefixLength, suffixLength, 1});
        if (shortest > size) {
            return 0;
        }
        if (prefixLength == 0) {
            return shortest;
        }
        // The latest start of the prefix that leaves a long enough tail.
        const std::uint8_t first = (*_prefix)[0];
        for (std::size_t start = size - shortest + 1; start-- > 0;) {
            const void* found = ::memrchr(buffer.data(), first, start + 1);
            if (found == nullptr) {
                return 0;
            }
            start = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - buffer.data());
            if (equalBytes(buffer.subspan(start, prefixLength), *_prefix)) {
                return size - start;
            }
        }
        return 0;
    }

    case Kind::RegularExpression: {
        if (!_regularExpression) {
            return 0;
        }
        // Walk back over character starts; a tail that does not decode makes
        // every longer one fail too, which ends the walk.
        std::size_t boundary = size; // where the character after `start` begins
        for (std::size_t start = size; start-- > 0;) {
            const std::uint8_t byte = buffer[start];
            if (utf8::isContinuation(byte)) {
                if (boundary - start > 3) {
                    return 0;
                }
                continue;
            }
            const utf8::LeadByte lead = utf8::classifyLead(byte);
            if (!lead.valid || static_cast<std::size_t>(lead.continuationBytes) != boundary - start - 1 ||
                !utf8::isValid(buffer.subspan(start, boundary - start))) {
                return 0;
            }
            boundary = start;
            if (_regularExpression->hasAnchoredMatch(buffer.subspan(start))) {
                return size - start;
            }
        }
        return 0;
    }
    }
    return 0;
}

} // namespace quendral
