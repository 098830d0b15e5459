#pragma once
// quendral-cli doctor: what stands between this computer and an update, each
// finding with what to do about it. The checks read the computer as it is
// (the tools, the intermediate firmware, each Controller port, ModemManager,
// a braille display service's udev rules, and with a server the update
// server over verified TLS); where they look is set in Places so that tests
// can hand in a computer of their own.
#include "controller/update_server_client.h"
#include "serial/serial_port_manager.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quendral::cli {

struct Finding {
    std::string check; // "avrdude", "port /dev/ttyACM0", "ModemManager", ...
    bool ok = false;
    std::string text; // what was found
    std::string fix;  // what to do; empty when ok
};

class Doctor {
public:
    struct Places {
        std::filesystem::path resources;
        std::filesystem::path proc = "/proc";
        std::vector<std::filesystem::path> udevRules = {"/etc/udev/rules.d", "/run/udev/rules.d",
                                                        "/usr/lib/udev/rules.d", "/lib/udev/rules.d"};
    };

    explicit Doctor(Places places) : _places(std::move(places)) {}

    std::vector<Finding> examine(const SerialPortList& ports, const std::optional<UpdateServerConfig>& server) const;

    // The single checks, in the order examine() runs them.
    [[nodiscard]] Finding tool(const std::string& name, const std::vector<std::string>& versionArguments,
                               const std::string& package) const;
    [[nodiscard]] Finding avrdudeConfiguration() const;
    [[nodiscard]] Finding intermediateFirmware() const;
    [[nodiscard]] static Finding port(const std::string& path);
    // With Controller ports, each port's own mark as udev gives it
    // (ID_MM_DEVICE_IGNORE); without, whether the package's rule is installed.
    [[nodiscard]] Finding modemManager(const SerialPortList& ports = {}) const;
    [[nodiscard]] Finding brailleService() const;
    [[nodiscard]] static Finding updateServer(const UpdateServerConfig& config);

private:
    [[nodiscard]] std::vector<std::filesystem::path> ruleFiles() const;

    Places _places;
};

// One finding as the terminal shows it: "[ok] ..." or "[problem] ... Fix: ...".
[[nodiscard]] std::string findingLine(const Finding& finding);

} // namespace quendral::cli
