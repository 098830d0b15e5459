#pragma once
// What a packet looks like: fixed bytes, a prefix and/or a suffix, a regular
// expression, or any test function; and how long one can be at most.
//
// A port that listens for a descriptor keeps the newest maximumPacketLength
// bytes for it and, after every byte, looks for the shortest tail of those
// bytes that is a valid packet (packetMatchingAtEndOfBuffer). Requests use
// the same descriptors for their expected responses.
//
// Descriptors are immutable. Identity is the random uuid made at creation:
// two descriptors made from the same arguments are different descriptors.
// They are made only through the factory functions below (a descriptor
// without a test makes no sense, so there is no default constructor).
#include "serial/serial_port_delegate.h"
#include "serial/serial_regular_expression.h"
#include "serial/serial_uuid.h"

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace quendral {

class SerialPacketScanner;

class SerialPacketDescriptor {
public:
    using Ptr = std::shared_ptr<SerialPacketDescriptor>;
    using ResponseEvaluator = std::function<bool(std::span<const std::uint8_t> data)>;

    // --- creation ---------------------------------------------------------------
    // The designated form. Without an evaluator, any non-empty data is a packet.
    static Ptr initWithMaximumPacketLength(std::uint64_t maximumPacketLength, std::any userInfo,
                                           ResponseEvaluator responseEvaluator);
    // Exactly these bytes; the maximum length is their length.
    static Ptr initWithPacketData(SerialData packetData, std::any userInfo);
    // Data that begins with the prefix and ends with the suffix (either may be
    // absent, not both: with neither, nothing is a packet). They may overlap in
    // a short packet.
    static Ptr initWithPrefix(std::optional<SerialData> prefix, std::optional<SerialData> suffix,
                              std::uint64_t maximumPacketLength, std::any userInfo);
    // As initWithPrefix, with the UTF-8 bytes of the strings.
    static Ptr initWithPrefixString(std::optional<std::string> prefixString, std::optional<std::string> suffixString,
                                    std::uint64_t maximumPacketLength, std::any userInfo);
    // Data that decodes as UTF-8 and in which the expression matches from the
    // first character on (the match need not reach the end). A null
    // expression matches nothing.
    static Ptr initWithRegularExpression(SerialRegularExpression::Ptr regularExpression,
                                         std::uint64_t maximumPacketLength, std::any userInfo);

    SerialPacketDescriptor() = delete;
    SerialPacketDescriptor(const SerialPacketDescriptor&) = delete;
    SerialPacketDescriptor& operator=(const SerialPacketDescriptor&) = delete;

    // --- properties -------------------------------------------------------------
    [[nodiscard]] std::uint64_t maximumPacketLength() const { return _maximumPacketLength; }
    [[nodiscard]] const std::any& userInfo() const { return _userInfo; }
    [[nodiscard]] const ResponseEvaluator& responseEvaluator() const { return _responseEvaluator; }
    [[nodiscard]] const SerialUUID& uuid() const { return _uuid; }
    // Set by the convenience forms only.
    [[nodiscard]] const std::optional<SerialData>& packetData() const { return _packetData; }
    [[nodiscard]] const std::optional<SerialData>& prefix() const { return _prefix; }
    [[nodiscard]] const std::optional<SerialData>& suffix() const { return _suffix; }
    [[nodiscard]] const SerialRegularExpression::Ptr& regularExpression() const { return _regularExpression; }

    [[nodiscard]] bool isEqual(const SerialPacketDescriptor& other) const { return _uuid == other._uuid; }
    [[nodiscard]] std::size_t hash() const { return _uuid.hash(); }

    // --- matching ---------------------------------------------------------------
    [[nodiscard]] bool dataIsValidPacket(std::span<const std::uint8_t> data) const;
    // The shortest tail of `buffer` that is a valid packet, or none. Gives the
    // same answer as trying every tail from the shortest on, but skips the
    // tails that cannot match.
    [[nodiscard]] std::optional<SerialData> packetMatchingAtEndOfBuffer(std::span<const std::uint8_t> buffer) const;
    // The length of that tail, 0 for none.
    [[nodiscard]] std::size_t lengthOfPacketAtEndOfBuffer(std::span<const std::uint8_t> buffer) const;

    // A matcher for a buffer that grows one byte at a time; it remembers what
    // earlier bytes ruled out and so answers in (amortised) constant time for
    // prefix/suffix, fixed-data and most regular-expression descriptors.
    [[nodiscard]] std::unique_ptr<SerialPacketScanner> makeScanner() const;

    enum class Kind { Evaluator, PacketData, PrefixSuffix, RegularExpression };
    [[nodiscard]] Kind kind() const { return _kind; }

    struct Passkey {
    private:
        friend class SerialPacketDescriptor;
        Passkey() = default;
    };
    SerialPacketDescriptor(Passkey, Kind kind, std::uint64_t maximumPacketLength, std::any userInfo);

private:
    Kind _kind;
    std::uint64_t _maximumPacketLength;
    std::any _userInfo;
    ResponseEvaluator _responseEvaluator;
    SerialUUID _uuid;
    std::optional<SerialData> _packetData;
    std::optional<SerialData> _prefix;
    std::optional<SerialData> _suffix;
    SerialRegularExpression::Ptr _regularExpression;
};

// The plain search: every tail from the shortest on, each given to
// dataIsValidPacket(). Quadratic; kept as the reference the fast paths are
// checked against (tests, fuzzing, benchmarks).
[[nodiscard]] std::size_t lengthOfPacketAtEndOfBufferTryingEveryTail(const SerialPacketDescriptor& descriptor,
                                                                     std::span<const std::uint8_t> buffer);

} // namespace quendral
