#include "controller/update_request.h"

#include <gtest/gtest.h>

#include <set>

using quendral::RequestBody;
using quendral::RequestBuildError;
using quendral::TicketId;
using quendral::UpdateQuery;

namespace {

nlohmann::json bodyJson(const RequestBody& body)
{
    const auto* text = std::get_if<std::string>(&body);
    if (text == nullptr) {
        ADD_FAILURE() << "no body";
        return nullptr;
    }
    return nlohmann::json::parse(*text);
}

std::set<std::string> keysOf(const nlohmann::json& object)
{
    std::set<std::string> keys;
    for (const auto& [key, value] : object.items()) {
        keys.insert(key);
    }
    return keys;
}

UpdateQuery fullQuery()
{
    return {"CID0123", "due", "1.2.3", "mac_1.0.0", "macOS12", std::nullopt};
}

} // namespace

TEST(UpdateRequest, CheckUpdateWithoutVersionHasSixKeys)
{
    const auto body = bodyJson(quendral::checkUpdateBody(fullQuery()));
    EXPECT_EQ(keysOf(body), (std::set<std::string>{"cmd", "CID", "platform", "currentVersion", "appVersion", "OS"}));
    EXPECT_EQ(body["cmd"], "check_update");
    EXPECT_EQ(body["appVersion"], "mac_1.0.0");
}

TEST(UpdateRequest, CheckUpdateWithVersionHasSevenKeys)
{
    auto query = fullQuery();
    query.version = "masternodelete";
    const auto body = bodyJson(quendral::checkUpdateBody(query));
    EXPECT_EQ(body.size(), 7u);
    EXPECT_EQ(body["version"], "masternodelete");
}

TEST(UpdateRequest, EmptyTextsAreValuesNotMissing)
{
    const UpdateQuery query{"", "", "", "", "", ""};
    const auto body = bodyJson(quendral::checkUpdateBody(query));
    EXPECT_EQ(body.size(), 7u);
    EXPECT_EQ(body["CID"], "");
}

TEST(UpdateRequest, CheckUpdateMissesAnyRequiredValue)
{
    for (int missing = 0; missing < 5; ++missing) {
        auto query = fullQuery();
        std::optional<std::string>* fields[] = {&query.cid, &query.platform, &query.currentVersion, &query.appVersion,
                                                &query.osVersion};
        fields[missing]->reset();
        const auto body = quendral::checkUpdateBody(query);
        ASSERT_TRUE(std::holds_alternative<RequestBuildError>(body)) << missing;
        EXPECT_EQ(std::get<RequestBuildError>(body), RequestBuildError::MissingParameter);
    }
}

TEST(UpdateRequest, BodiesAreCompact)
{
    const auto body = quendral::ticketStatusBody(TicketId("T 1"), "CID with blanks", true);
    ASSERT_TRUE(std::holds_alternative<std::string>(body));
    const auto& text = std::get<std::string>(body);
    EXPECT_EQ(text, nlohmann::json::parse(text).dump());
    EXPECT_EQ(text.find(": "), std::string::npos);
}

TEST(UpdateRequest, TicketIsPassedBackUnchanged)
{
    for (const TicketId& ticket :
         {TicketId("T1"), TicketId(17), TicketId(18446744073709551615ull), TicketId(-3), TicketId(2.5), TicketId("")}) {
        const auto query = bodyJson(quendral::ticketBody(ticket, "CID"));
        EXPECT_EQ(query["ticket_id"], ticket);
        // Same text on the wire: 17 stays 17, "17" stays "17".
        EXPECT_EQ(query["ticket_id"].dump(), ticket.dump());
        const auto report = bodyJson(quendral::ticketStatusBody(ticket, "CID", false));
        EXPECT_EQ(report["ticket_id"], ticket);
        EXPECT_EQ(report["success"], false);
        EXPECT_EQ(keysOf(report), (std::set<std::string>{"cmd", "CID", "ticket_id", "success"}));
    }
}

TEST(UpdateRequest, NullOrAbsentTicketAndAbsentCidAreMissing)
{
    EXPECT_EQ(std::get<RequestBuildError>(quendral::ticketBody(std::nullopt, "CID")),
              RequestBuildError::MissingParameter);
    EXPECT_EQ(std::get<RequestBuildError>(quendral::ticketBody(TicketId(nullptr), "CID")),
              RequestBuildError::MissingParameter);
    EXPECT_EQ(std::get<RequestBuildError>(quendral::ticketBody(TicketId("T"), std::nullopt)),
              RequestBuildError::MissingParameter);
    EXPECT_EQ(std::get<RequestBuildError>(quendral::ticketStatusBody(TicketId("T"), std::nullopt, true)),
              RequestBuildError::MissingParameter);
}

TEST(UpdateRequest, TextThatIsNotUtf8FailsSerialisation)
{
    auto query = fullQuery();
    query.currentVersion = "1.\xc3";
    EXPECT_EQ(std::get<RequestBuildError>(quendral::checkUpdateBody(query)), RequestBuildError::SerializationFailed);
    EXPECT_EQ(std::get<RequestBuildError>(quendral::ticketBody(TicketId("\xff"), "CID")),
              RequestBuildError::SerializationFailed);
}
