// SerialBuffer, SerialPacketDescriptor and SerialRequest on their own.
#include "../support/packet_matching.h"
#include "serial/serial_buffer.h"
#include "serial/serial_packet_descriptor.h"
#include "serial/serial_packet_scanner.h"
#include "serial/serial_request.h"
#include "serial/utf8_validation.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <set>

using namespace quendral;
using quendral::test::expectScannerAgreesWithThePlainSearch;

namespace {

SerialData bytes(std::string_view text)
{
    return SerialData(text.begin(), text.end());
}

std::optional<SerialData> match(const SerialPacketDescriptor::Ptr& descriptor, std::string_view buffer)
{
    return descriptor->packetMatchingAtEndOfBuffer(bytes(buffer));
}

} // namespace

TEST(SerialBuffer, KeepsTheNewestBytesUpToItsMaximum)
{
    SerialBuffer buffer(4);
    for (const char c : std::string("abcdef")) {
        buffer.appendByte(static_cast<std::uint8_t>(c));
    }
    EXPECT_EQ(SerialData(buffer.data().begin(), buffer.data().end()), bytes("cdef"));
    buffer.appendData(bytes("0123456789"));
    EXPECT_EQ(SerialData(buffer.data().begin(), buffer.data().end()), bytes("6789"));
    buffer.clearBuffer();
    EXPECT_TRUE(buffer.data().empty());
    EXPECT_EQ(buffer.maximumLength(), 4u);
}

TEST(SerialBuffer, MaximumOfZeroAlwaysEndsEmpty)
{
    SerialBuffer buffer(0);
    buffer.appendData(bytes("abc"));
    EXPECT_TRUE(buffer.data().empty());
}

TEST(SerialBuffer, LongStreamsStayBoundedAndInOrder)
{
    SerialBuffer buffer(100);
    std::string all;
    for (int i = 0; i < 10000; ++i) {
        const char c = static_cast<char>('a' + i % 26);
        all.push_back(c);
        buffer.appendByte(static_cast<std::uint8_t>(c));
        ASSERT_LE(buffer.length(), 100u);
    }
    EXPECT_EQ(SerialData(buffer.data().begin(), buffer.data().end()), bytes(all.substr(all.size() - 100)));
}

TEST(SerialBuffer, ObserversHearAppendsButNotClears)
{
    SerialBuffer buffer(8);
    std::vector<SerialBufferChange> changes;
    buffer.setInternalBufferObserver([&](SerialBufferChange change) { changes.push_back(change); });
    buffer.appendData(bytes("ab"));
    buffer.clearBuffer();
    EXPECT_EQ(changes,
              (std::vector<SerialBufferChange>{SerialBufferChange::WillChange, SerialBufferChange::DidChange}));
}

TEST(SerialPacketDescriptor, IdentityIsTheUuidNotTheSettings)
{
    const auto a = SerialPacketDescriptor::initWithPacketData(bytes("x"), {});
    const auto b = SerialPacketDescriptor::initWithPacketData(bytes("x"), {});
    EXPECT_TRUE(a->isEqual(*a));
    EXPECT_FALSE(a->isEqual(*b));
    EXPECT_NE(a->uuid().UUIDString(), b->uuid().UUIDString());
    EXPECT_EQ(a->hash(), a->uuid().hash());
}

TEST(SerialPacketDescriptor, DesignatedFormWithoutEvaluatorTakesAnyNonEmptyData)
{
    const auto descriptor = SerialPacketDescriptor::initWithMaximumPacketLength(10, std::string("info"), nullptr);
    EXPECT_TRUE(descriptor->dataIsValidPacket(bytes("a")));
    EXPECT_FALSE(descriptor->dataIsValidPacket({}));
    EXPECT_EQ(match(descriptor, "abc"), bytes("c"));
    EXPECT_EQ(std::any_cast<std::string>(descriptor->userInfo()), "info");
    EXPECT_EQ(descriptor->maximumPacketLength(), 10u);
}

TEST(SerialPacketDescriptor, PacketDataMatchesExactlyAndSetsTheMaximum)
{
    const auto descriptor = SerialPacketDescriptor::initWithPacketData(bytes("ACK"), {});
    EXPECT_EQ(descriptor->maximumPacketLength(), 3u);
    EXPECT_EQ(match(descriptor, "xxACK"), bytes("ACK"));
    EXPECT_EQ(match(descriptor, "ACKx"), std::nullopt);
    EXPECT_EQ(match(SerialPacketDescriptor::initWithPacketData({}, {}), "abc"), std::nullopt);
}

TEST(SerialPacketDescriptor, PrefixAndSuffixTest)
{
    const auto both = SerialPacketDescriptor::initWithPrefixString(std::string("ab"), std::string("ba"), 16, {});
    EXPECT_TRUE(both->dataIsValidPacket(bytes("aba"))); // they overlap
    EXPECT_TRUE(both->dataIsValidPacket(bytes("abxba")));
    EXPECT_FALSE(both->dataIsValidPacket(bytes("ab")));
    EXPECT_FALSE(both->dataIsValidPacket(bytes("xabba")));
    const auto neither = SerialPacketDescriptor::initWithPrefix(std::nullopt, std::nullopt, 16, {});
    EXPECT_FALSE(neither->dataIsValidPacket(bytes("a")));
    EXPECT_EQ(match(neither, "abc"), std::nullopt);
    // Present but empty is not absent: every non-empty tail passes.
    const auto empty = SerialPacketDescriptor::initWithPrefix(SerialData{}, std::nullopt, 16, {});
    EXPECT_EQ(match(empty, "abc"), bytes("c"));
    const auto suffixOnly = SerialPacketDescriptor::initWithPrefix(std::nullopt, bytes("\n"), 16, {});
    EXPECT_EQ(match(suffixOnly, "line\n"), bytes("\n"));
    const auto prefixOnly = SerialPacketDescriptor::initWithPrefix(bytes("$$"), std::nullopt, 16, {});
    EXPECT_EQ(match(prefixOnly, "$$a$$b"), bytes("$$b"));
    EXPECT_EQ(match(prefixOnly, "$$a$"), bytes("$$a$"));
}

TEST(SerialPacketDescriptor, RegularExpressionIsAnchoredAtTheFirstCharacterButNeedNotReachTheEnd)
{
    const auto expression = SerialRegularExpression::regularExpressionWithPattern("OK");
    ASSERT_TRUE(expression);
    const auto descriptor = SerialPacketDescriptor::initWithRegularExpression(expression, 32, {});
    EXPECT_TRUE(descriptor->dataIsValidPacket(bytes("OK and more")));
    EXPECT_FALSE(descriptor->dataIsValidPacket(bytes(" OK")));
    EXPECT_EQ(match(descriptor, "xxOKyy"), bytes("OKyy"));
    // Characters, not bytes: "." takes the two bytes of "é" together.
    const auto dot = SerialPacketDescriptor::initWithRegularExpression(
        SerialRegularExpression::regularExpressionWithPattern("^.$"), 32, {});
    EXPECT_TRUE(dot->dataIsValidPacket(bytes("\xC3\xA9")));
    EXPECT_FALSE(dot->dataIsValidPacket(bytes("\xC3")));
    // "$" also matches before a final line end.
    const auto line = SerialPacketDescriptor::initWithRegularExpression(
        SerialRegularExpression::regularExpressionWithPattern("\\d+$"), 32, {});
    EXPECT_TRUE(line->dataIsValidPacket(bytes("42\n")));
    EXPECT_FALSE(line->dataIsValidPacket(bytes("42x")));
}

TEST(SerialPacketDescriptor, PatternsThatDoNotCompileGiveNoExpression)
{
    std::string error;
    EXPECT_EQ(SerialRegularExpression::regularExpressionWithPattern("(unclosed", &error), nullptr);
    EXPECT_FALSE(error.empty());
    const auto descriptor = SerialPacketDescriptor::initWithRegularExpression(nullptr, 8, {});
    EXPECT_EQ(match(descriptor, "anything"), std::nullopt);
}

TEST(Utf8Validation, RejectsWhatDoesNotDecode)
{
    EXPECT_TRUE(utf8::isValid(bytes("plain")));
    EXPECT_TRUE(utf8::isValid(bytes("\xE2\x82\xAC\xF0\x9F\x98\x80")));
    for (const std::string_view bad : {"\x80", "\xC0\xAF", "\xC1\x81", "\xE0\x80\xAF", "\xED\xA0\x80",
                                       "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xFF"}) {
        EXPECT_FALSE(utf8::isValid(bytes(bad))) << "byte count " << bad.size();
    }
}

TEST(SerialPacketScanner, AgreesWithThePlainSearchOnRandomStreams)
{
    std::mt19937 random(1234);
    const std::string alphabet = "ab$\n\xC3\xA9\x80";
    std::vector<SerialPacketDescriptor::Ptr> descriptors = {
        SerialPacketDescriptor::initWithPrefixString(std::string("$"), std::string("\n"), 12, {}),
        SerialPacketDescriptor::initWithPrefixString(std::string("ab"), std::string("ba"), 6, {}),
        SerialPacketDescriptor::initWithPrefixString(std::string("aab"), std::nullopt, 9, {}),
        SerialPacketDescriptor::initWithPrefixString(std::nullopt, std::string("a\n"), 5, {}),
        SerialPacketDescriptor::initWithPacketData(bytes("aba"), {}),
        SerialPacketDescriptor::initWithRegularExpression(
            SerialRegularExpression::regularExpressionWithPattern("\\$[ab]+\\n"), 10, {}),
        SerialPacketDescriptor::initWithRegularExpression(
            SerialRegularExpression::regularExpressionWithPattern("(?=a)b|é.|a\\b|\\$$"), 8, {}),
        SerialPacketDescriptor::initWithRegularExpression(SerialRegularExpression::regularExpressionWithPattern("a*"),
                                                          4, {}),
        SerialPacketDescriptor::initWithMaximumPacketLength(
            7, {}, [](std::span<const std::uint8_t> data) { return data.size() == 3 && data[0] == 'b'; }),
    };
    for (const auto& descriptor : descriptors) {
        for (int round = 0; round < 20; ++round) {
            SerialData stream(300);
            for (auto& byte : stream) {
                byte = static_cast<std::uint8_t>(alphabet[random() % alphabet.size()]);
            }
            expectScannerAgreesWithThePlainSearch(descriptor, stream);
        }
    }
}

TEST(SerialRequest, DescriptionNamesTheObjectDataUserInfoAndInterval)
{
    const auto request = SerialRequest::requestWithDataToSend(bytes("getCID\n"), std::string("cid"), 1.5, nullptr);
    const std::string description = request->description();
    const std::regex shape(
        R"(<SerialRequest: 0x[0-9a-f]+> data: <67657443 49440a> userInfo: cid timeout interval: 1\.500000)");
    EXPECT_TRUE(std::regex_match(description, shape)) << description;
    EXPECT_EQ(
        SerialRequest::requestWithDataToSend({}, {}, 0, nullptr)->description().substr(description.find(" data:")),
        " data: <> userInfo: (null) timeout interval: 0.000000");
}

TEST(SerialRequest, UUIDStringIsAFreshStandardUuid)
{
    std::set<std::string> seen;
    const std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    for (int i = 0; i < 100; ++i) {
        const auto request = SerialRequest::requestWithDataToSend(bytes("x"), {}, 0, nullptr);
        EXPECT_TRUE(std::regex_match(request->UUIDString(), shape)) << request->UUIDString();
        seen.insert(request->UUIDString());
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(SerialRequest, ResponseTestFollowsTheDescriptor)
{
    const auto none = SerialRequest::requestWithDataToSend(bytes("x"), {}, 0, nullptr);
    EXPECT_TRUE(none->dataIsValidResponse(bytes("anything")));
    const auto withDescriptor = SerialRequest::requestWithDataToSend(
        bytes("x"), {}, 0, SerialPacketDescriptor::initWithPacketData(bytes("OK"), {}));
    EXPECT_TRUE(withDescriptor->dataIsValidResponse(bytes("OK")));
    EXPECT_FALSE(withDescriptor->dataIsValidResponse(bytes("NO")));
}
