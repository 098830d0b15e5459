#include "controller/update_request.h"

namespace quendral {

namespace {

RequestBody serialize(const nlohmann::json& request)
{
    try {
        // Strict: a CID read from a misbehaving Controller may hold bytes that are not UTF-8;
        // such a request is refused rather than sent with replaced characters.
        return request.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
    } catch (...) {
        return RequestBuildError::SerializationFailed;
    }
}

bool missing(const std::optional<TicketId>& ticket)
{
    return !ticket || ticket->is_null();
}

} // namespace

RequestBody checkUpdateBody(const UpdateQuery& query)
{
    if (!query.cid || !query.platform || !query.currentVersion || !query.appVersion || !query.osVersion) {
        return RequestBuildError::MissingParameter;
    }
    nlohmann::json request = {
        {"cmd", "check_update"},           {"CID", *query.cid},
        {"platform", *query.platform},     {"currentVersion", *query.currentVersion},
        {"appVersion", *query.appVersion}, {"OS", *query.osVersion},
    };
    if (query.version) {
        request["version"] = *query.version;
    }
    return serialize(request);
}

RequestBody ticketBody(const std::optional<TicketId>& ticket, const std::optional<std::string>& cid)
{
    if (missing(ticket) || !cid) {
        return RequestBuildError::MissingParameter;
    }
    return serialize({{"cmd", "ticket"}, {"CID", *cid}, {"ticket_id", *ticket}});
}

RequestBody ticketStatusBody(const std::optional<TicketId>& ticket, const std::optional<std::string>& cid, bool success)
{
    if (missing(ticket) || !cid) {
        return RequestBuildError::MissingParameter;
    }
    return serialize({{"cmd", "ticket_status"}, {"CID", *cid}, {"ticket_id", *ticket}, {"success", success}});
}

} // namespace quendral
