#include "ip_assignments.h"

#include "command_line.h"
#include "log/visible_text.h"

#include <map>

namespace quendral::cli {
namespace {

std::string invalidText(const std::string& key, const std::string& value)
{
    return "Invalid: " + key + "=" + visibleText(value) + " (nothing was sent)";
}

bool isDeviceKey(const std::string& key)
{
    return key.rfind("dev", 0) == 0;
}

} // namespace

std::optional<std::string> refuseInvalidTypedAddress(const Assignments& assignments)
{
    std::map<std::string, std::string> typed;
    std::map<std::size_t, std::string> typedDevices;
    for (const auto& [key, value] : assignments) {
        if (key == "ip" || key == "subnet" || key == "gateway" || key == "dns") {
            typed[key] = value;
        } else if (isDeviceKey(key)) {
            typedDevices[deviceNumber(key).value_or(0)] = value;
        }
    }
    std::vector<std::pair<std::string, std::string>> typedInOrder;
    for (const char* key : {"ip", "subnet", "gateway", "dns"}) {
        if (const auto found = typed.find(key); found != typed.end()) {
            typedInOrder.emplace_back(key, found->second);
        }
    }
    for (const auto& [number, value] : typedDevices) {
        typedInOrder.emplace_back("dev" + std::to_string(number), value);
    }
    // The window's check takes the first address it finds in a field
    // ("192.168.10.1234" gives 192.168.10.123); a typed value is taken only
    // when it is that address and nothing more.
    for (const auto& [key, value] : typedInOrder) {
        const auto valid = ipsettings::verifyIP(value);
        if (!valid) {
            return invalidText(key, value);
        }
        if (*valid != value) {
            return "Invalid: " + key + "=" + visibleText(value) + " (not a whole address, only " + *valid +
                   " of it is one; nothing was sent)";
        }
    }
    return std::nullopt;
}

ipsettings::Settings settingsFromDump(const std::vector<std::string>& lines)
{
    const auto dump = ipsettings::parseIpDump(lines);
    ipsettings::Settings settings{
        dump.ip.value_or(""), dump.subnet.value_or(""), dump.gateway.value_or(""), dump.dns.value_or(""), {}};
    for (const auto& device : dump.devices) {
        settings.devices.push_back({device.address, device.enabled});
    }
    return settings;
}

std::optional<std::string> applyAssignments(const Assignments& assignments, ipsettings::Settings& settings)
{
    // Switching DHCP off proposes the window's fixed address only when DHCP is
    // on: a Controller with a fixed address keeps it.
    for (const auto& [key, value] : assignments) {
        if (key == "dhcp" && value == "on") {
            settings.ip = ipsettings::IpDump::kDhcpAddress;
        } else if (key == "dhcp" && settings.ip == ipsettings::IpDump::kDhcpAddress) {
            settings.ip = ipsettings::kSuggestedStaticAddress;
        }
    }
    const std::map<std::string, std::string*> addresses{
        {"ip", &settings.ip}, {"subnet", &settings.subnet}, {"gateway", &settings.gateway}, {"dns", &settings.dns}};
    for (const auto& [key, value] : assignments) {
        if (const auto field = addresses.find(key); field != addresses.end()) {
            *field->second = value;
            continue;
        }
        if (!isDeviceKey(key) && key.rfind("enable", 0) != 0) {
            continue;
        }
        const std::size_t number = deviceNumber(key).value_or(0);
        if (number == 0 || number > settings.devices.size()) {
            return "The Controller has no device " + std::to_string(number) + " (it reports " +
                   std::to_string(settings.devices.size()) + ")";
        }
        auto& device = settings.devices[number - 1];
        if (isDeviceKey(key)) {
            device.address = value;
        } else {
            device.enabled = value == "1";
        }
    }
    return std::nullopt;
}

std::vector<std::string> assignmentLines(const ipsettings::Settings& settings)
{
    std::vector<std::string> lines;
    if (settings.ip == ipsettings::IpDump::kDhcpAddress) {
        lines.emplace_back("dhcp=on");
    } else {
        lines.emplace_back("dhcp=off");
        lines.push_back("ip=" + settings.ip);
    }
    lines.push_back("subnet=" + settings.subnet);
    lines.push_back("gateway=" + settings.gateway);
    lines.push_back("dns=" + settings.dns);
    for (std::size_t i = 0; i < settings.devices.size(); ++i) {
        const std::string number = std::to_string(i + 1);
        lines.push_back("dev" + number + "=" + settings.devices[i].address);
        lines.push_back("enable" + number + "=" + (settings.devices[i].enabled ? "1" : "0"));
    }
    return lines;
}

std::optional<std::string> normaliseAddresses(ipsettings::Settings& settings)
{
    std::vector<std::pair<std::string, std::string*>> checks{
        {"ip", &settings.ip}, {"subnet", &settings.subnet}, {"gateway", &settings.gateway}, {"dns", &settings.dns}};
    for (std::size_t i = 0; i < settings.devices.size(); ++i) {
        checks.emplace_back("dev" + std::to_string(i + 1), &settings.devices[i].address);
    }
    for (auto& [key, address] : checks) {
        const auto valid = ipsettings::verifyIP(*address);
        if (!valid) {
            return invalidText(key, *address);
        }
        *address = *valid;
    }
    return std::nullopt;
}

} // namespace quendral::cli
