#pragma once
// The bodies of the three requests to the update server. Pure functions, so
// that building a request can be checked (and fuzzed) apart from the network.
#include "controller/server_answer.h"

#include <optional>
#include <string>
#include <variant>

namespace quendral {

enum class RequestBuildError {
    MissingParameter,    // a required value was none
    SerializationFailed, // a text is not valid UTF-8 and cannot go into JSON
};

// A compact JSON text, or why there is none.
using RequestBody = std::variant<std::string, RequestBuildError>;

struct UpdateQuery {
    std::optional<std::string> cid;
    std::optional<std::string> platform;
    std::optional<std::string> currentVersion;
    std::optional<std::string> appVersion; // "mac_" + the application version
    std::optional<std::string> osVersion;  // "macOS" + the system's product version
    std::optional<std::string> version;    // the requested build; left out of the body when none
};

// {"cmd":"check_update","CID":..,"platform":..,"currentVersion":..,"appVersion":..,"OS":..[,"version":..]}
RequestBody checkUpdateBody(const UpdateQuery& query);
// {"cmd":"ticket","CID":..,"ticket_id":..}; a null ticket counts as missing.
RequestBody ticketBody(const std::optional<TicketId>& ticket, const std::optional<std::string>& cid);
// {"cmd":"ticket_status","CID":..,"ticket_id":..,"success":true|false}
RequestBody ticketStatusBody(const std::optional<TicketId>& ticket, const std::optional<std::string>& cid,
                             bool success);

} // namespace quendral
