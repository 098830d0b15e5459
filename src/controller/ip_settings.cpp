#include "controller/ip_settings.h"

#include <cctype>
#include <regex>

namespace quendral::ipsettings {

std::vector<std::string> splitParts(const std::string& line)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = line.find(';', start);
        if (end == std::string::npos) {
            parts.push_back(line.substr(start));
            return parts;
        }
        parts.push_back(line.substr(start, end - start));
        start = end + 1;
    }
}

IpDump parseIpDump(const std::vector<std::string>& lines)
{
    IpDump dump;
    for (const std::string& line : lines) {
        const auto parts = splitParts(line);
        const std::string& key = parts.front();
        if (parts.size() >= 2) {
            if (key == "ip") {
                dump.ip = parts[1];
            }
            if (key == "subnet") {
                dump.subnet = parts[1];
            }
            if (key == "gateway") {
                dump.gateway = parts[1];
            }
            if (key == "dns") {
                dump.dns = parts[1];
            }
        }
        if (key == "dev" && parts.size() == 5) {
            dump.devices.push_back(DeviceRow{parts[2], parts[3], leadingInteger(parts[4]) != 0});
        }
    }
    return dump;
}

long leadingInteger(const std::string& text)
{
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])) != 0) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    long value = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) != 0; ++i) {
        if (value > 100'000'000) {
            break; // far beyond any switch value; stop before overflowing
        }
        value = value * 10 + (text[i] - '0');
    }
    return negative ? -value : value;
}

std::optional<std::string> verifyIP(const std::string& text)
{
    static const std::regex quad(R"((\d{1,3})\.(\d{1,3})\.(\d{1,3})\.(\d{1,3}))");
    std::smatch match;
    if (!std::regex_search(text, match, quad)) {
        return std::nullopt;
    }
    for (std::size_t group = 1; group <= 4; ++group) {
        // One to three digits: the value cannot overflow, and nothing here throws.
        int value = 0;
        for (const char digit : match[static_cast<int>(group)].str()) {
            value = value * 10 + (digit - '0');
        }
        if (value >= 256) {
            return std::nullopt;
        }
    }
    return match[0].str();
}

std::vector<std::string> writeSequence(const Settings& settings)
{
    std::vector<std::string> lines;
    lines.emplace_back("bulkip\n");
    lines.push_back("ip=" + settings.ip + "\n");
    lines.push_back("subnet=" + settings.subnet + "\n");
    lines.push_back("gateway=" + settings.gateway + "\n");
    lines.push_back("dns=" + settings.dns + "\n");
    int number = 1;
    for (const auto& device : settings.devices) {
        lines.push_back("ipDevice" + std::to_string(number) + "=" + device.address + "\n");
        lines.push_back("enableDevice" + std::to_string(number) + "=" + (device.enabled ? "1" : "0") + "\n");
        ++number;
    }
    lines.emplace_back("store\n");
    lines.emplace_back("reset\n");
    return lines;
}

} // namespace quendral::ipsettings
