// The incremental matchers behind SerialPacketDescriptor::makeScanner().
//
// Each keeps what it learnt from earlier bytes in stream positions (counted
// from the first byte it was told of), so that dropping bytes at the front of
// the buffer only means forgetting positions before the buffer's start.
#include "serial/serial_packet_scanner.h"

#include "serial/utf8_validation.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <vector>

namespace quendral {
namespace {

bool endsWith(std::span<const std::uint8_t> buffer, const SerialData& tail)
{
    return tail.size() <= buffer.size() &&
           (tail.empty() || std::memcmp(buffer.data() + buffer.size() - tail.size(), tail.data(), tail.size()) == 0);
}

// Any test function: nothing is known about it, so every tail is tried.
class EvaluatorScanner final : public SerialPacketScanner {
public:
    explicit EvaluatorScanner(SerialPacketDescriptor::ResponseEvaluator evaluator) : _evaluator(std::move(evaluator)) {}
    std::size_t appendedByte(std::uint8_t /*byte*/, std::span<const std::uint8_t> buffer) override
    {
        for (std::size_t k = 1; k <= buffer.size(); ++k) {
            if (!_evaluator || _evaluator(buffer.last(k))) {
                return k;
            }
        }
        return 0;
    }
    void bufferCleared() override {}

private:
    SerialPacketDescriptor::ResponseEvaluator _evaluator;
};

// Fixed bytes: only the tail of their length can be equal.
class PacketDataScanner final : public SerialPacketScanner {
public:
    explicit PacketDataScanner(SerialData data) : _data(std::move(data)) {}
    std::size_t appendedByte(std::uint8_t /*byte*/, std::span<const std::uint8_t> buffer) override
    {
        return !_data.empty() && endsWith(buffer, _data) ? _data.size() : 0;
    }
    void bufferCleared() override {}

private:
    SerialData _data;
};

// Prefix and suffix: the suffix is checked at the end; the prefix's
// occurrences are found once each, as their last byte arrives (Knuth-Morris-
// Pratt), and kept while they are inside the buffer.
class PrefixSuffixScanner final : public SerialPacketScanner {
public:
    PrefixSuffixScanner(const std::optional<SerialData>& prefix, const std::optional<SerialData>& suffix)
        : _hasEither(prefix || suffix), _prefix(prefix.value_or(SerialData{})), _suffix(suffix.value_or(SerialData{})),
          _shortest(std::max<std::size_t>({_prefix.size(), _suffix.size(), 1}))
    {
        _failure.assign(_prefix.size(), 0);
        for (std::size_t i = 1, k = 0; i < _prefix.size(); ++i) {
            while (k > 0 && _prefix[i] != _prefix[k]) {
                k = _failure[k - 1];
            }
            if (_prefix[i] == _prefix[k]) {
                ++k;
            }
            _failure[i] = k;
        }
    }

    std::size_t appendedByte(std::uint8_t byte, std::span<const std::uint8_t> buffer) override
    {
        const std::uint64_t position = _end++;
        if (!_prefix.empty()) {
            while (_matched > 0 && byte != _prefix[_matched]) {
                _matched = _failure[_matched - 1];
            }
            if (byte == _prefix[_matched]) {
                ++_matched;
            }
            if (_matched == _prefix.size()) {
                _prefixStarts.push_back(position + 1 - _prefix.size());
                _matched = _failure[_matched - 1];
            }
        }
        const std::uint64_t bufferStart = _end - buffer.size();
        while (!_prefixStarts.empty() && _prefixStarts.front() < bufferStart) {
            _prefixStarts.pop_front();
        }
        if (!_hasEither || buffer.size() < _shortest || !endsWith(buffer, _suffix)) {
            return 0;
        }
        if (_prefix.empty()) {
            return _shortest;
        }
        // The latest prefix that leaves a tail of at least the shortest length.
        for (auto it = _prefixStarts.rbegin(); it != _prefixStarts.rend(); ++it) {
            if (*it + _shortest <= _end) {
                return static_cast<std::size_t>(_end - *it);
            }
        }
        return 0;
    }

    void bufferCleared() override
    {
        _prefixStarts.clear();
        _matched = 0;
    }

private:
    bool _hasEither;
    SerialData _prefix;
    SerialData _suffix;
    std::size_t _shortest;
    std::vector<std::size_t> _failure;
    std::size_t _matched = 0;
    std::uint64_t _end = 0;
    std::deque<std::uint64_t> _prefixStarts;
};

// Regular expression: a tail is tried only if it starts a character and
// decodes; and a start is dropped for good once the engine says that no text
// appended to it can make a match start there. What stays is usually a
// handful of starts (the ones inside a packet that is still arriving).
//
// Asking whether a start can still match costs a pass over its whole tail,
// while the plain question (is there a match now?) is usually answered at
// once (the engine first looks for a byte that every match needs). So a
// start that stays open is asked the costly question again only each time
// its tail has doubled: amortised, a constant per byte.
class RegularExpressionScanner final : public SerialPacketScanner {
public:
    explicit RegularExpressionScanner(SerialRegularExpression::Ptr expression) : _expression(std::move(expression)) {}

    std::size_t appendedByte(std::uint8_t byte, std::span<const std::uint8_t> buffer) override
    {
        const std::uint64_t position = _end++;
        if (!_expression) {
            return 0;
        }
        switch (_utf8.feed(byte)) {
        case utf8::Utf8StreamState::Step::StartsCharacter:
            _starts.push_back({position, 0});
            break;
        case utf8::Utf8StreamState::Step::Continues:
            break;
        case utf8::Utf8StreamState::Step::Breaks:
            _starts.clear();
            break;
        case utf8::Utf8StreamState::Step::BreaksAndStarts:
            _starts.clear();
            _starts.push_back({position, 0});
            break;
        }
        const std::uint64_t bufferStart = _end - buffer.size();
        const auto firstInBuffer = std::find_if(_starts.begin(), _starts.end(),
                                                [&](const Start& start) { return start.position >= bufferStart; });
        _starts.erase(_starts.begin(), firstInBuffer);
        if (!_utf8.atCharacterBoundary()) {
            return 0; // every tail ends inside a character
        }
        std::size_t found = 0;
        bool dropped = false;
        for (std::size_t i = _starts.size(); i-- > 0;) {
            Start& start = _starts[i];
            const auto text = buffer.subspan(static_cast<std::size_t>(start.position - bufferStart));
            if (text.size() < start.nextProspectAt) {
                if (_expression->hasAnchoredMatch(text)) {
                    found = text.size();
                    break;
                }
                continue;
            }
            start.nextProspectAt = 2 * text.size();
            const auto prospect = _expression->anchoredProspect(text);
            if (prospect == SerialRegularExpression::Prospect::Never) {
                start.position = kDropped;
                dropped = true;
                continue;
            }
            if (prospect == SerialRegularExpression::Prospect::Match || _expression->hasAnchoredMatch(text)) {
                found = text.size();
                break;
            }
        }
        if (dropped) {
            std::erase_if(_starts, [](const Start& start) { return start.position == kDropped; });
        }
        return found;
    }

    void bufferCleared() override
    {
        _starts.clear();
        _utf8.reset();
    }

private:
    static constexpr std::uint64_t kDropped = ~std::uint64_t{0};

    struct Start {
        std::uint64_t position;     // in the stream
        std::size_t nextProspectAt; // tail length at which to ask whether it can still match
    };

    SerialRegularExpression::Ptr _expression;
    utf8::Utf8StreamState _utf8;
    std::uint64_t _end = 0;
    std::vector<Start> _starts; // ascending positions
};

} // namespace

std::unique_ptr<SerialPacketScanner> SerialPacketDescriptor::makeScanner() const
{
    switch (_kind) {
    case Kind::PacketData:
        return std::make_unique<PacketDataScanner>(*_packetData);
    case Kind::PrefixSuffix:
        return std::make_unique<PrefixSuffixScanner>(_prefix, _suffix);
    case Kind::RegularExpression:
        return std::make_unique<RegularExpressionScanner>(_regularExpression);
    case Kind::Evaluator:
        break;
    }
    return std::make_unique<EvaluatorScanner>(_responseEvaluator);
}

} // namespace quendral
