// Arbitrary bytes as an update server's answer body: parsing, every accessor
// the update road uses, and handing a ticket back in the next two requests.
// Crashes, sanitizer reports and escaping exceptions are findings; so is a
// ticket that does not come back unchanged.
#include "controller/server_answer.h"
#include "controller/update_request.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using quendral::RequestBody;
using quendral::ServerAnswer;
using quendral::TicketId;

namespace {

void expectTicketComesBack(const RequestBody& body, const TicketId& ticket)
{
    const auto* text = std::get_if<std::string>(&body);
    if (text == nullptr) {
        std::abort(); // a ticket read from valid JSON always serialises
    }
    const nlohmann::json sent = nlohmann::json::parse(*text, nullptr, false);
    if (sent.is_discarded() || !sent.is_object()) {
        std::abort();
    }
    const auto echoed = sent.find("ticket_id");
    if (echoed == sent.end() || *echoed != ticket || echoed->dump() != ticket.dump()) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::optional<ServerAnswer> answer = ServerAnswer::fromJsonText(text);

    // Whatever the bytes, a CID made of them builds a request or is refused; it never throws.
    (void)quendral::ticketBody(TicketId("T1"), std::string(text));

    if (!answer) {
        return 0;
    }
    if (!answer->json().is_object()) {
        std::abort();
    }
    std::size_t seen = 0;
    seen += answer->status().has_value();
    seen += answer->description().has_value();
    seen += answer->message().has_value();
    seen += answer->hexfile().has_value();
    seen += answer->hash().has_value();
    seen += answer->isConnectionError();
    for (const auto& [key, value] : answer->json().items()) {
        const auto asText = answer->stringValue(key);
        const auto asIdentifier = answer->identifierValue(key);
        if (!answer->containsKey(key) || asText.has_value() != value.is_string() ||
            asIdentifier.has_value() != (value.is_string() || value.is_number())) {
            std::abort();
        }
        seen += asText.has_value();
    }
    if (const auto ticket = answer->ticketId()) {
        expectTicketComesBack(quendral::ticketBody(ticket, "0123456789ABCDEF0123456789ABCDEF"), *ticket);
        expectTicketComesBack(quendral::ticketStatusBody(ticket, "0123456789ABCDEF0123456789ABCDEF", true), *ticket);
    }
    return seen > size + 16 ? 1 : 0; // keeps `seen` observable; never true
}
