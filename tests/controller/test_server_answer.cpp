#include "controller/server_answer.h"

#include <gtest/gtest.h>

#include <string>

using quendral::ServerAnswer;
using quendral::TicketId;

namespace {

ServerAnswer parse(const std::string& text)
{
    auto answer = ServerAnswer::fromJsonText(text);
    if (!answer) {
        ADD_FAILURE() << "not an answer: " << text;
        return ServerAnswer::connectionError();
    }
    return *answer;
}

} // namespace

TEST(ServerAnswer, ReadsTheKeysOfAWellFormedAnswer)
{
    const auto answer = parse(R"({"status":"success","description":"ready","hexfile":"OjAw","hash":"abc","msg":"hi"})");
    EXPECT_EQ(answer.status(), "success");
    EXPECT_EQ(answer.description(), "ready");
    EXPECT_EQ(answer.hexfile(), "OjAw");
    EXPECT_EQ(answer.hash(), "abc");
    EXPECT_EQ(answer.message(), "hi");
    EXPECT_FALSE(answer.ticketId());
    EXPECT_FALSE(answer.isConnectionError());
}

TEST(ServerAnswer, BodyThatIsNotJsonIsNone)
{
    for (const char* text : {"", " ", "<html><body>500</body></html>", "{", R"({"status":"error",})",
                             R"({"status":"error"} trailing)", "{'status':'error'}"}) {
        EXPECT_FALSE(ServerAnswer::fromJsonText(text)) << text;
    }
}

TEST(ServerAnswer, ByteOrderMarkBeforeTheObjectIsTolerated)
{
    const auto answer = ServerAnswer::fromJsonText("\xef\xbb\xbf{\"status\":\"error\"}");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status(), "error");
}

TEST(ServerAnswer, JsonWhoseTopLevelIsNotAnObjectIsNone)
{
    for (const char* text : {"[]", R"([{"status":"error"}])", "5", "-0.5e3", R"("status")", "null", "true", "false"}) {
        EXPECT_FALSE(ServerAnswer::fromJsonText(text)) << text;
    }
    EXPECT_FALSE(ServerAnswer::fromJson(nlohmann::json::array()));
    EXPECT_TRUE(ServerAnswer::fromJson(nlohmann::json::object()));
}

TEST(ServerAnswer, InvalidUtf8InsideAStringIsNotJson)
{
    EXPECT_FALSE(ServerAnswer::fromJsonText("{\"status\":\"\xff\"}"));
}

TEST(ServerAnswer, ValueOfWrongTypeReadsAsMissing)
{
    const auto answer =
        parse(R"({"status":5,"description":null,"hexfile":[],"hash":{"md5":"x"},"msg":true,"ticket_id":null})");
    EXPECT_FALSE(answer.status());
    EXPECT_FALSE(answer.description());
    EXPECT_FALSE(answer.hexfile());
    EXPECT_FALSE(answer.hash());
    EXPECT_FALSE(answer.message());
    EXPECT_FALSE(answer.ticketId());
    // Present, though: callers that only ask "is the key there" still see it.
    EXPECT_TRUE(answer.containsKey("ticket_id"));
    EXPECT_TRUE(answer.containsKey("hexfile"));
    EXPECT_FALSE(answer.containsKey("absent"));
}

TEST(ServerAnswer, TicketIdentifierIsAStringOrANumberKeptAsItCame)
{
    EXPECT_EQ(parse(R"({"ticket_id":"T17"})").ticketId(), TicketId("T17"));
    EXPECT_EQ(parse(R"({"ticket_id":""})").ticketId(), TicketId(""));
    const auto integer = parse(R"({"ticket_id":17})").ticketId();
    ASSERT_TRUE(integer);
    EXPECT_TRUE(integer->is_number_integer());
    EXPECT_EQ(*integer, 17);
    const auto big = parse(R"({"ticket_id":18446744073709551615})").ticketId();
    ASSERT_TRUE(big);
    EXPECT_EQ(big->dump(), "18446744073709551615");
    const auto fraction = parse(R"({"ticket_id":1.5})").ticketId();
    ASSERT_TRUE(fraction);
    EXPECT_TRUE(fraction->is_number_float());
    for (const char* text : {R"({"ticket_id":null})", R"({"ticket_id":true})", R"({"ticket_id":[1]})",
                             R"({"ticket_id":{"id":1}})", R"({})"}) {
        EXPECT_FALSE(parse(text).ticketId()) << text;
    }
}

TEST(ServerAnswer, KeysAreCaseSensitive)
{
    const auto answer = parse(R"({"Status":"error","STATUS":"error"})");
    EXPECT_FALSE(answer.status());
}

TEST(ServerAnswer, LaterDuplicateKeyWins)
{
    EXPECT_EQ(parse(R"({"status":"error","status":"success"})").status(), "success");
}

TEST(ServerAnswer, StringsKeepEscapesAndEmbeddedNul)
{
    const auto answer = parse(R"({"msg":"line\nnext \u00e9 \u0000 end"})");
    const char expected[] = "line\nnext \xc3\xa9 \0 end";
    EXPECT_EQ(answer.message(), std::string(expected, sizeof expected - 1));
}

TEST(ServerAnswer, ConnectionErrorIsTheFixedDictionary)
{
    const auto answer = ServerAnswer::connectionError();
    EXPECT_EQ(answer.json(), nlohmann::json::parse(R"({"status":"error","description":"connection"})"));
    EXPECT_TRUE(answer.isConnectionError());
    EXPECT_TRUE(parse(R"({"status":"error","description":"connection","extra":1})").isConnectionError());
    EXPECT_FALSE(parse(R"({"status":"error","description":"internal"})").isConnectionError());
}

TEST(ServerAnswer, DeeplyNestedInputDoesNotCrash)
{
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_FALSE(ServerAnswer::fromJsonText(deep));
    // Nested beyond any real answer: not read at all (tests/controller/hostile_server_answer.cpp).
    const std::string object = R"({"a":)" + deep + "}";
    EXPECT_FALSE(ServerAnswer::fromJsonText(object));
    const std::string unclosed(200000, '{');
    EXPECT_FALSE(ServerAnswer::fromJsonText(unclosed));
}
