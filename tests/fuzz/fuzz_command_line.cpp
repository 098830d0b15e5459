// Fuzz target for quendral-cli's argument parsing.
//
// The input is a command line: its arguments separated by NUL bytes (no
// argument can hold one). Parsing must never throw or crash, whatever the
// arguments, and what it accepts must be what the session relies on: every
// device key has a usable number, every switch a valid value, a server
// address the https scheme, a flash its file. A usage error always carries a
// message.
#include "command_line.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace quendral::cli;

void check(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

std::vector<std::string> splitArguments(std::string_view input)
{
    std::vector<std::string> arguments;
    std::size_t start = 0;
    for (;;) {
        const auto end = input.find('\0', start);
        arguments.emplace_back(input.substr(start, end - start));
        if (end == std::string_view::npos) {
            break;
        }
        start = end + 1;
    }
    if (input.empty()) {
        arguments.clear();
    }
    return arguments;
}

void checkAccepted(const Invocation& invocation)
{
    if (invocation.command == Command::Help) {
        return; // --help anywhere shows the help, whatever came before it
    }
    for (const auto& [key, value] : invocation.assignments) {
        check(invocation.command == Command::Ip);
        const bool device = key.rfind("dev", 0) == 0 || key.rfind("enable", 0) == 0;
        if (device) {
            const auto number = deviceNumber(key);
            check(number.has_value() && *number >= 1);
        } else {
            check(key == "ip" || key == "subnet" || key == "gateway" || key == "dns" || key == "dhcp");
            check(!deviceNumber(key));
        }
        if (key == "dhcp") {
            check(value == "on" || value == "off");
        }
        if (key.rfind("enable", 0) == 0) {
            check(value == "0" || value == "1");
        }
    }
    if (invocation.serverURL) {
        check(invocation.command == Command::Update);
        check(invocation.serverURL->rfind("https://", 0) == 0);
    }
    if (invocation.command == Command::Flash) {
        check(invocation.firmwareFile.has_value() && !invocation.firmwareFile->empty());
    }
    if (invocation.port) {
        check(!invocation.port->empty());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto arguments = splitArguments(input);
    const auto parsed = parseCommandLine(arguments);
    if (const auto* error = std::get_if<UsageError>(&parsed)) {
        check(!error->message.empty());
        return 0;
    }
    checkAccepted(std::get<Invocation>(parsed));
    return 0;
}
