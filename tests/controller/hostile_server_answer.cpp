// Update server answers nested or sized beyond reason: refused like a body
// that is not JSON, at a cost in memory that stays near the body's own size.
// The memory is measured in a child process (support/peak_memory.h).
#include "controller/server_answer.h"
#include "support/peak_memory.h"

#include <gtest/gtest.h>

#include <string>

using namespace quendral;

namespace {

constexpr std::size_t kMiB = 1024 * 1024;

// What parsing `body` took in memory above the body itself, and what it gave.
struct Parsed {
    std::optional<std::size_t> growth;
    bool answered = false;
    ServerAnswer::Unread why = ServerAnswer::Unread::NotJson;
};

Parsed parseMeasured(const std::string& body)
{
    Parsed parsed;
    const auto measured = test::measurePeakMemory([&] {
        ServerAnswer::Unread why = ServerAnswer::Unread::NotJson;
        const bool answered = ServerAnswer::fromJsonText(body, &why).has_value();
        return answered ? -1 : static_cast<int>(why);
    });
    if (!measured) {
        return parsed;
    }
    parsed.growth = measured->peakGrowth;
    parsed.answered = measured->result < 0;
    parsed.why = static_cast<ServerAnswer::Unread>(std::max(measured->result, 0));
    return parsed;
}

std::string nested(std::size_t depth, const std::string& inside = "1")
{
    std::string text;
    for (std::size_t i = 1; i < depth; ++i) {
        text += "{\"a\":";
    }
    text += "{\"a\":" + inside + "}";
    return text + std::string(depth - 1, '}');
}

std::string objectWithValues(std::size_t values)
{
    // {"status":"ok","list":[0,0,...]}: the object, two keys, "ok", the array and its numbers.
    std::string text = R"({"status":"ok","list":[)";
    for (std::size_t i = 5; i < values; ++i) {
        text += i == 5 ? "0" : ",0";
    }
    return text + "]}";
}

// The body is refused for `why`, and parsing it took less than `limit` bytes.
void expectRefusedCheaply(const std::string& body, ServerAnswer::Unread why, std::size_t limit)
{
    const Parsed parsed = parseMeasured(body);
    EXPECT_FALSE(parsed.answered);
    EXPECT_EQ(parsed.why, why);
    ASSERT_TRUE(parsed.growth) << "the child could not measure";
    EXPECT_LT(*parsed.growth, test::peakMemoryBound(limit)) << "bytes above the body while parsing";
}

} // namespace

TEST(HostileServerAnswer, MegabytesOfOpeningBracketsAreRefusedAtOnce)
{
    const std::string body(4 * kMiB, '[');
    expectRefusedCheaply(body, ServerAnswer::Unread::TooDeep, 4 * kMiB);
}

TEST(HostileServerAnswer, AnObjectOfMegabytesOfNestedArraysIsRefused)
{
    const std::string body = "{\"status\":" + std::string(4 * kMiB, '[') + std::string(4 * kMiB, ']') + "}";
    expectRefusedCheaply(body, ServerAnswer::Unread::TooDeep, 4 * kMiB);
}

TEST(HostileServerAnswer, MegabytesOfSmallValuesAreRefused)
{
    std::string body = "[0";
    while (body.size() < 8 * kMiB) {
        body += ",0";
    }
    body += "]";
    expectRefusedCheaply(body, ServerAnswer::Unread::TooManyValues, 4 * kMiB);
}

TEST(HostileServerAnswer, DepthUpToTheLimitIsRead)
{
    ServerAnswer::Unread why = ServerAnswer::Unread::NotJson;
    const auto answer = ServerAnswer::fromJsonText(nested(ServerAnswer::kMaxDepth), &why);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->containsKey("a"));
    EXPECT_FALSE(ServerAnswer::fromJsonText(nested(ServerAnswer::kMaxDepth + 1), &why));
    EXPECT_EQ(why, ServerAnswer::Unread::TooDeep);
    EXPECT_FALSE(ServerAnswer::fromJsonText(nested(ServerAnswer::kMaxDepth, "[]"), &why));
    EXPECT_EQ(why, ServerAnswer::Unread::TooDeep);
}

TEST(HostileServerAnswer, ValuesUpToTheLimitAreRead)
{
    ServerAnswer::Unread why = ServerAnswer::Unread::NotJson;
    const auto answer = ServerAnswer::fromJsonText(objectWithValues(ServerAnswer::kMaxValues), &why);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->json()["list"].size(), ServerAnswer::kMaxValues - 5);
    EXPECT_FALSE(ServerAnswer::fromJsonText(objectWithValues(ServerAnswer::kMaxValues + 1), &why));
    EXPECT_EQ(why, ServerAnswer::Unread::TooManyValues);
}

TEST(HostileServerAnswer, TheOtherReasonsAreNamed)
{
    ServerAnswer::Unread why = ServerAnswer::Unread::TooDeep;
    EXPECT_FALSE(ServerAnswer::fromJsonText("<html>", &why));
    EXPECT_EQ(why, ServerAnswer::Unread::NotJson);
    EXPECT_FALSE(ServerAnswer::fromJsonText("[1,2]", &why));
    EXPECT_EQ(why, ServerAnswer::Unread::NotAnObject);
}

TEST(HostileServerAnswer, AFirmwareAnswerFarAboveRealSizeIsReadAtASmallMultipleOfItsSize)
{
    // A real firmware is at most about 2 MB of Base64; this one is eight times that.
    const std::string hexfile(16 * kMiB, 'Q');
    const std::string body =
        R"({"status":"ok","hash":"0123456789abcdef0123456789abcdef","hexfile":")" + hexfile + "\"}";
    const Parsed parsed = parseMeasured(body);
    EXPECT_TRUE(parsed.answered);
    ASSERT_TRUE(parsed.growth) << "the child could not measure";
    // The lexer holds the string twice while it grows (about 4.6 times its
    // size at the peak); what the limits refuse above costs 20 to 80 times.
    EXPECT_LT(*parsed.growth, test::peakMemoryBound(6 * body.size()));
}
