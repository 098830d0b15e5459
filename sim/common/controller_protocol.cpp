#include "controller_protocol.h"

#include <cstdio>

namespace quendral::sim {
namespace {

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.rfind(prefix, 0) == 0;
}

std::vector<std::string> split(const std::string& line, char separator)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t at = line.find(separator); at != std::string::npos; at = line.find(separator, start)) {
        parts.push_back(line.substr(start, at - start));
        start = at + 1;
    }
    parts.push_back(line.substr(start));
    return parts;
}

std::string join(const std::vector<std::string>& parts, char separator)
{
    std::string line;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        line += (i > 0 ? std::string(1, separator) : std::string()) + parts[i];
    }
    return line;
}

} // namespace

ControllerProtocol::ControllerProtocol()
    : dumpLines{"ip;192.168.10.50", "subnet;255.255.255.0", "gateway;192.168.10.1", "dns;192.168.10.1",
                "dev;1;Label;192.168.10.60;1"}
{
}

std::string ControllerProtocol::answer(const std::string& received)
{
    std::string line = received;
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    if (line == "getCID") {
        return message ? "CID:MSG:" + *message + "\n" : "CID:" + cid + "\n";
    }
    if (line == "getVersion") {
        return "VERSION:" + version + "\n";
    }
    if (line == "dumpIP") {
        std::string dump = "start_dump\n";
        for (const std::string& setting : dumpLines) {
            dump += setting + "\n";
        }
        return dump + "end_dump\n";
    }
    if (line == "config" || line == "configd") {
        // The application closes the port and reopens it; the address is
        // announced to whoever opens it next.
        _configMode = true;
        _announceAddressOnOpen = true;
        return serviceAnswers ? "Entering configuration mode\n" : std::string();
    }
    if (line == "webconfig") {
        _webserver = !_webserver;
        return _webserver ? "Starting webserver for configuration at http://" + address + "\n" : "Stopping webserver\n";
    }
    if (line == "reset") {
        _configMode = false;
        _webserver = false;
        _announceAddressOnOpen = false;
        return serviceAnswers ? "Restarting\n" : std::string();
    }
    if (const auto equals = line.find('='); equals != std::string::npos) {
        applySetting(line.substr(0, equals), line.substr(equals + 1));
        return {};
    }
    if (!serviceAnswers) {
        return {};
    }
    if (line == "clearpresets") {
        return "Presets cleared\n";
    }
    if (line == "debug") {
        _debug = !_debug;
        return _debug ? "Debug output on\n" : "Debug output off\n";
    }
    if (line == "newmac") {
        ++_macCounter;
        char mac[32];
        std::snprintf(mac, sizeof mac, "02:51:45:4E:%02X:%02X", (_macCounter >> 8) & 0xFFU, _macCounter & 0xFFU);
        return "New MAC address: " + std::string(mac) + "\n";
    }
    if (line == "ok") {
        return "ok\n";
    }
    return {};
}

std::string ControllerProtocol::portOpened()
{
    if (!_announceAddressOnOpen) {
        return {};
    }
    _announceAddressOnOpen = false;
    return "IP address: " + address + "\n";
}

void ControllerProtocol::applySetting(const std::string& key, const std::string& value)
{
    if (key == "ip") {
        address = value;
    }
    for (std::string& setting : dumpLines) {
        auto parts = split(setting, ';');
        if (parts.size() == 2 && parts[0] == key) {
            setting = key + ";" + value;
            return;
        }
    }
    // "ipDeviceN" and "enableDeviceN" name the N-th device line of the dump.
    for (const auto& [prefix, part] : {std::pair{std::string("ipDevice"), 3U}, {std::string("enableDevice"), 4U}}) {
        if (!startsWith(key, prefix)) {
            continue;
        }
        const std::string number = key.substr(prefix.size());
        unsigned wanted = 0;
        if (number.empty() || std::sscanf(number.c_str(), "%u", &wanted) != 1) {
            return;
        }
        unsigned seen = 0;
        for (std::string& setting : dumpLines) {
            auto parts = split(setting, ';');
            if (parts.size() == 5 && parts[0] == "dev" && ++seen == wanted) {
                parts[part] = value;
                setting = join(parts, ';');
                return;
            }
        }
    }
}

} // namespace quendral::sim
