#pragma once
// The Controller's network settings as its IP dump reports them, the address
// check the IP window applies to every field, and the write sequence that
// stores edited settings on the Controller. Shared by the IP configuration
// window and the command line.
#include <optional>
#include <string>
#include <vector>

namespace quendral::ipsettings {

struct DeviceRow {
    std::string label;
    std::string address;
    bool enabled = false;
};

struct IpDump {
    std::optional<std::string> ip;
    std::optional<std::string> subnet;
    std::optional<std::string> gateway;
    std::optional<std::string> dns;
    std::vector<DeviceRow> devices;

    // The Controller reports DHCP as its own address 0.0.0.0.
    [[nodiscard]] bool dhcpEnabled() const { return ip && *ip == kDhcpAddress; }
    static constexpr const char* kDhcpAddress = "0.0.0.0";
};

// The address proposed whenever the user switches DHCP off.
inline constexpr const char* kSuggestedStaticAddress = "192.168.10.99";

// Splits at every ";", keeping empty parts ("a;;b" has three parts).
std::vector<std::string> splitParts(const std::string& line);

// Reads the lines between the dump markers. "ip", "subnet", "gateway" and "dns"
// lines set their value (a later line wins); a "dev" line with exactly five
// parts adds a device row (the label third, the address fourth, the switch fifth).
// Everything else, including a key line without a value, is ignored.
IpDump parseIpDump(const std::vector<std::string>& lines);

// The leading integer of a text as the Controller's switches use it: optional
// blanks and sign, then digits; 0 when there are none.
long leadingInteger(const std::string& text);

// The first dotted quad anywhere in the text whose four numbers are below 256,
// as it stands in the text (digits are not rewritten: 192.168.001.010 stays);
// none when there is none. Text around it is dropped, so "ip 10.0.0.5x" gives
// "10.0.0.5" and "1234.1.1.1" gives "234.1.1.1".
std::optional<std::string> verifyIP(const std::string& text);

struct Settings {
    std::string ip;
    std::string subnet;
    std::string gateway;
    std::string dns;
    struct Device {
        std::string address;
        bool enabled = false;
    };
    std::vector<Device> devices;
};

// The lines written to the Controller, each one write, in order: "bulkip\n",
// the four addresses, per device (numbered from 1) its address and switch,
// "store\n", "reset\n".
std::vector<std::string> writeSequence(const Settings& settings);

} // namespace quendral::ipsettings
