#pragma once
// An answer of the update server: the JSON object it sent, read through
// accessors that never throw. The server is a peer we do not control, so a
// key holding a value of an unexpected type ("status": 5, "hexfile": [],
// "ticket_id": null) reads as missing instead of reaching the caller.
#include <nlohmann/json.hpp>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quendral {

// The ticket identifier is handed back to the server exactly as it was
// received, so it stays a JSON value (a string or a number).
using TicketId = nlohmann::json;

class ServerAnswer {
public:
    // Limits of what an answer may hold. A real answer is one flat object of a
    // few keys, whose firmware is one long string; parsing a body that holds
    // millions of values or nests them millions deep would cost tens of times
    // the body's size in memory (every value is a node of its own), so such a
    // body is not read at all. String content is not limited here: it costs
    // about its own size, and the body as a whole is bounded by the transport.
    static constexpr std::size_t kMaxDepth = 64;    // nested objects and arrays, the answer itself included
    static constexpr std::size_t kMaxValues = 4096; // values of any kind, keys included

    // Why a body gave no answer.
    enum class Unread {
        NotJson,
        NotAnObject,
        TooDeep,       // nested deeper than kMaxDepth
        TooManyValues, // more than kMaxValues values
    };

    // Parses an answer body. None when the body is not JSON, when it is JSON
    // whose top level is not an object (an array, a number, a string, null):
    // such a body carries none of the keys an answer is read by, and callers
    // treat it like an unreadable answer; and when it is beyond the limits
    // above (parsing stops at the value that crosses them). `why`, when
    // given, receives the reason for none.
    static std::optional<ServerAnswer> fromJsonText(std::string_view body, Unread* why = nullptr) noexcept;
    // Wraps an already parsed value; none unless it is an object.
    static std::optional<ServerAnswer> fromJson(nlohmann::json value) noexcept;
    // What a failed transport is answered with: {"status":"error","description":"connection"},
    // so that callers treat a network failure like a refusal by the server.
    static ServerAnswer connectionError();

    // The text under `key`; none when the key is absent or holds anything but a string.
    [[nodiscard]] std::optional<std::string> stringValue(std::string_view key) const;
    // The value under `key` when it can identify a ticket: a string or a number.
    // None for an absent key, null, booleans, arrays and objects.
    [[nodiscard]] std::optional<TicketId> identifierValue(std::string_view key) const;
    // True when `key` is present with a value of any type, null included.
    [[nodiscard]] bool containsKey(std::string_view key) const;

    // Shorthands for the keys the update road reads.
    [[nodiscard]] std::optional<std::string> status() const { return stringValue("status"); }
    [[nodiscard]] std::optional<std::string> description() const { return stringValue("description"); }
    [[nodiscard]] std::optional<TicketId> ticketId() const { return identifierValue("ticket_id"); }
    [[nodiscard]] std::optional<std::string> message() const { return stringValue("msg"); }
    [[nodiscard]] std::optional<std::string> hexfile() const { return stringValue("hexfile"); }
    [[nodiscard]] std::optional<std::string> hash() const { return stringValue("hash"); }

    // status "error" with description "connection".
    [[nodiscard]] bool isConnectionError() const;

    // The whole object as received.
    [[nodiscard]] const nlohmann::json& json() const { return _object; }

private:
    explicit ServerAnswer(nlohmann::json object) : _object(std::move(object)) {}
    [[nodiscard]] const nlohmann::json* find(std::string_view key) const;

    nlohmann::json _object; // always an object
};

} // namespace quendral
