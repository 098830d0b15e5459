// Finding the Controller identity in flash, raw or as HEX text.

#include "controller_image.h"
#include "intel_hex.h"

#include <gtest/gtest.h>

using namespace quendral::sim;

namespace {

const ControllerIdentity kIdentity{"0123456789abcdefghijklmnopqrstuv", "4.5.6"};

std::vector<uint8_t> asFlash(const std::vector<uint8_t>& bytes)
{
    std::vector<uint8_t> flash(512 * 1024, 0xff);
    std::copy(bytes.begin(), bytes.end(), flash.begin());
    return flash;
}

} // namespace

TEST(ControllerImage, IdentityInARawImageIsFound)
{
    auto image = makeControllerImage(kIdentity, 10000, 7);
    auto found = findIdentity(asFlash(image));
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(*found, kIdentity);
}

TEST(ControllerImage, IdentityInHexTextWrittenAsBytesIsFound)
{
    auto image = makeControllerImage(kIdentity, 10000, 7);
    std::string hex = toIntelHex(image, 0x80000);
    // The marker is spread over several records: it is not in the text itself.
    EXPECT_EQ(hex.find("QUENDRAL-ID"), std::string::npos);
    auto found = findIdentity(asFlash(std::vector<uint8_t>(hex.begin(), hex.end())));
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(*found, kIdentity);
}

TEST(ControllerImage, ImageWithoutMarkerHasNoIdentity)
{
    auto image = makeControllerImage(std::nullopt, 10000, 7);
    EXPECT_FALSE(findIdentity(asFlash(image)).has_value());
    std::string hex = toIntelHex(image, 0x80000);
    EXPECT_FALSE(findIdentity(asFlash(std::vector<uint8_t>(hex.begin(), hex.end()))).has_value());
    EXPECT_FALSE(findIdentity(std::vector<uint8_t>(512 * 1024, 0xff)).has_value());
}

TEST(ControllerImage, MalformedMarkersAreIgnored)
{
    for (std::string bad :
         {"QUENDRAL-ID:CID=short;VERSION=1;", "QUENDRAL-ID:CID=0123456789abcdefghijklmnopqrstuv;VERSION=;",
          "QUENDRAL-ID:CID=0123456789abcdefghijklmnopqrstuv;VERSION=1.0",
          "QUENDRAL-ID:CID=0123456789abcdefghijklmnopqrstuv;VERSIO=1.0;"}) {
        EXPECT_FALSE(findIdentity(asFlash(std::vector<uint8_t>(bad.begin(), bad.end())))) << bad;
    }
    // A bad marker before a good one does not hide it.
    std::string both = "QUENDRAL-ID:CID=short;" + identityMarker(kIdentity);
    auto found = findIdentity(asFlash(std::vector<uint8_t>(both.begin(), both.end())));
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(*found, kIdentity);
}

TEST(ControllerImage, HexRoundTripKeepsAddressesAcross64KiB)
{
    std::vector<uint8_t> data(70000);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i ^ (i >> 8));
    }
    auto parsed = parseIntelHex(toIntelHex(data, 0x8FFF0));
    ASSERT_TRUE(parsed.has_value());
    ASSERT_EQ(parsed->size(), data.size());
    EXPECT_EQ(parsed->begin()->first, 0x8FFF0u);
    for (size_t i = 0; i < data.size(); i += 997) {
        EXPECT_EQ(parsed->at(0x8FFF0 + static_cast<uint32_t>(i)), data[i]);
    }
    EXPECT_FALSE(parseIntelHex(":0100000001FF\n").has_value()); // bad checksum
}

TEST(ControllerImage, HexDigitsAreReadInEitherCaseAndNothingElseIsADigit)
{
    const auto lower = parseIntelHex(":01000000ab54\n:00000001ff\n");
    ASSERT_TRUE(lower.has_value());
    EXPECT_EQ(lower->at(0), 0xAB);
    EXPECT_FALSE(parseIntelHex(":0100000GAB54\n").has_value());
    EXPECT_FALSE(parseIntelHex(":01000000-154\n").has_value());
    EXPECT_FALSE(parseIntelHex(":01000000 B54\n").has_value());
}
