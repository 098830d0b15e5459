#include "controller/server_answer.h"

#include <utility>
#include <vector>

namespace quendral {
namespace {

// Builds the parsed document as nlohmann's own parser does, but counts every
// value and the nesting on the way and stops the parse at the first one past
// the limits, before the document has grown. Strings are moved out of the
// lexer, not copied (the lexer itself still holds a long string twice while
// it reads it: about four times its length at the peak).
class BoundedDocumentBuilder final : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit BoundedDocumentBuilder(nlohmann::json& root) : _root(root) {}

    [[nodiscard]] std::optional<ServerAnswer::Unread> refusal() const { return _refusal; }

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(number_integer_t value) override { return add(value); }
    bool number_unsigned(number_unsigned_t value) override { return add(value); }
    bool number_float(number_float_t value, const string_t& /*text*/) override { return add(value); }
    bool string(string_t& value) override { return add(std::move(value)); }
    bool binary(binary_t& value) override { return add(nlohmann::json::binary(std::move(value))); }
    bool start_object(std::size_t /*elements*/) override { return open(nlohmann::json::value_t::object); }
    bool key(string_t& key) override
    {
        if (!counted()) {
            return false;
        }
        _member = &(*_open.back())[std::move(key)]; // a repeated key: the last value wins, as in nlohmann's parser
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t /*elements*/) override { return open(nlohmann::json::value_t::array); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& /*error*/) override
    {
        return false;
    }

private:
    bool counted()
    {
        if (++_values > ServerAnswer::kMaxValues) {
            _refusal = ServerAnswer::Unread::TooManyValues;
            return false;
        }
        return true;
    }
    bool add(nlohmann::json value)
    {
        if (!counted()) {
            return false;
        }
        place(std::move(value));
        return true;
    }
    // Where a value goes: the root, the end of the open array, or the member
    // of the open object whose key came last. An open container is never
    // moved: nothing is added to its parent until it is closed.
    nlohmann::json* place(nlohmann::json value)
    {
        if (_open.empty()) {
            _root = std::move(value);
            return &_root;
        }
        nlohmann::json& parent = *_open.back();
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            return &parent.back();
        }
        *_member = std::move(value);
        return _member;
    }
    bool open(nlohmann::json::value_t type)
    {
        if (!counted()) {
            return false;
        }
        if (_open.size() >= ServerAnswer::kMaxDepth) {
            _refusal = ServerAnswer::Unread::TooDeep;
            return false;
        }
        _open.push_back(place(nlohmann::json(type)));
        return true;
    }
    bool close()
    {
        _open.pop_back();
        return true;
    }

    nlohmann::json& _root;
    std::vector<nlohmann::json*> _open;
    nlohmann::json* _member = nullptr;
    std::size_t _values = 0;
    std::optional<ServerAnswer::Unread> _refusal;
};

} // namespace

std::optional<ServerAnswer> ServerAnswer::fromJsonText(std::string_view body, Unread* why) noexcept
{
    try {
        nlohmann::json value;
        BoundedDocumentBuilder builder(value);
        if (!nlohmann::json::sax_parse(body.begin(), body.end(), &builder)) {
            if (why != nullptr) {
                *why = builder.refusal().value_or(Unread::NotJson);
            }
            return std::nullopt;
        }
        auto answer = fromJson(std::move(value));
        if (!answer && why != nullptr) {
            *why = Unread::NotAnObject;
        }
        return answer;
    } catch (...) {
        // Only allocation failure is left to throw here; an answer we cannot hold is no answer.
        if (why != nullptr) {
            *why = Unread::NotJson;
        }
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
