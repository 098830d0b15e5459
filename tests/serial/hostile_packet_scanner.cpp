// Packet matching against inputs found by fuzzing: the scanner and the plain
// search must agree, and both must say what the expression really matches.
#include "../support/packet_matching.h"
#include "serial/serial_buffer.h"
#include "serial/serial_packet_descriptor.h"
#include "serial/serial_packet_scanner.h"

#include <gtest/gtest.h>

#include <string_view>

using namespace quendral;
using quendral::test::expectScannerAgreesWithThePlainSearch;

namespace {

SerialData bytes(std::string_view text)
{
    return SerialData(text.begin(), text.end());
}

// A lookahead in front of an optional item: PCRE2 10.42 takes the lookahead's
// character as the first one that a match consumes, so it asks for two
// characters and for a second "a" after the first, although "a" alone matches.
constexpr std::string_view kLookaheadPattern = "(?=a)(?=a)a?a";

SerialPacketDescriptor::Ptr lookaheadDescriptor()
{
    return SerialPacketDescriptor::initWithRegularExpression(
        SerialRegularExpression::regularExpressionWithPattern(kLookaheadPattern), 16, {});
}

} // namespace

TEST(HostilePacketMatching, ALookaheadBeforeAnOptionalItemDoesNotMakeTheMatchLonger)
{
    const auto expression = SerialRegularExpression::regularExpressionWithPattern(kLookaheadPattern);
    ASSERT_TRUE(expression);
    EXPECT_TRUE(expression->hasAnchoredMatch(bytes("a")));
    EXPECT_TRUE(expression->hasAnchoredMatch(bytes("ab")));
    EXPECT_TRUE(expression->hasAnchoredMatch(bytes("aa")));
    EXPECT_FALSE(expression->hasAnchoredMatch(bytes("b")));
    EXPECT_FALSE(expression->hasAnchoredMatch(bytes("ba")));

    const auto descriptor = lookaheadDescriptor();
    EXPECT_EQ(lengthOfPacketAtEndOfBufferTryingEveryTail(*descriptor, bytes("a")), 1u);
    EXPECT_EQ(lengthOfPacketAtEndOfBufferTryingEveryTail(*descriptor, bytes("ab")), 2u);
    EXPECT_EQ(lengthOfPacketAtEndOfBufferTryingEveryTail(*descriptor, bytes("xa")), 1u);
    EXPECT_EQ(descriptor->lengthOfPacketAtEndOfBuffer(bytes("xa")), 1u);
}

// The stream of the fuzz input tests/fuzz/corpus/fuzz_packet_matching/
// lookahead-before-optional-item (descriptor: that pattern, at most 16 bytes;
// the buffer is cleared after each packet, as a listening port does). The
// scanner said 2 where the plain search said 0 at its twelfth byte.
TEST(HostilePacketMatching, ScannerAndPlainSearchAgreeOnTheFuzzedLookaheadStream)
{
    const SerialData stream = {'a', 'a', 'a', 'a', 0xC3, '9',  'a',  'a', 'a', 'a', 'a', 'b', 'a', 'a',  'a',
                               'a', 'a', 'a', 'a', 'a',  'a',  'b',  'a', 'a', 'a', 'a', 'a', 'a', '\n', 'a',
                               'a', 'a', 'a', ' ', 'a',  0xFF, '\n', 'a', 'a', 'a', 'a', ' ', 'a', 0xFF, '9'};
    std::size_t packets = 0;
    expectScannerAgreesWithThePlainSearch(lookaheadDescriptor(), stream, &packets);
    // Every "a" is a packet of its own: the stream holds 34 of them.
    EXPECT_EQ(packets, 34u);
}
