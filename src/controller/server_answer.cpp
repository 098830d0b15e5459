#include "controller/server_answer.h"

#include <utility>

namespace quendral {

std::optional<ServerAnswer> ServerAnswer::fromJsonText(std::string_view body) noexcept
{
    try {
        // Without exceptions the parser reports a syntax error as a "discarded" value.
        nlohmann::json value = nlohmann::json::parse(body.begin(), body.end(), nullptr, false);
        if (value.is_discarded()) {
            return std::nullopt;
        }
        return fromJson(std::move(value));
    } catch (...) {
        // Only allocation failure is left to throw here; an answer we cannot hold is no answer.
        return std::nullopt;
    }
}

std::optional<ServerAnswer> ServerAnswer::fromJson(nlohmann::json value) noexcept
{
    if (!value.is_object()) {
        return std::nullopt;
    }
    return ServerAnswer(std::move(value));
}

ServerAnswer ServerAnswer::connectionError()
{
    return ServerAnswer(nlohmann::json{{"status", "error"}, {"description", "connection"}});
}

const nlohmann::json* ServerAnswer::find(std::string_view key) const
{
    const auto it = _object.find(key);
    return it == _object.end() ? nullptr : &*it;
}

std::optional<std::string> ServerAnswer::stringValue(std::string_view key) const
{
    const nlohmann::json* value = find(key);
    if (value == nullptr || !value->is_string()) {
        return std::nullopt;
    }
    return value->get_ref<const std::string&>();
}

std::optional<TicketId> ServerAnswer::identifierValue(std::string_view key) const
{
    const nlohmann::json* value = find(key);
    if (value == nullptr || !(value->is_string() || value->is_number())) {
        return std::nullopt;
    }
    return *value;
}

bool ServerAnswer::containsKey(std::string_view key) const
{
    return find(key) != nullptr;
}

bool ServerAnswer::isConnectionError() const
{
    return status() == "error" && description() == "connection";
}

} // namespace quendral
