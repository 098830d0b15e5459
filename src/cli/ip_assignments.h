#pragma once
// `quendral-cli ip KEY=VALUE ...`: what was typed, merged into the settings
// the Controller reports, checked as the IP window checks its fields. Each
// step returns the line to print when it refuses (nothing is sent then).
#include "controller/ip_settings.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quendral::cli {

using Assignments = std::vector<std::pair<std::string, std::string>>;

// The typed addresses in the window's field order (the last assignment of a
// key counting, as it would stand in the field); the first one that is not a
// whole dotted-quad address refuses.
[[nodiscard]] std::optional<std::string> refuseInvalidTypedAddress(const Assignments& assignments);

// The settings as the Controller's dump shows them.
[[nodiscard]] ipsettings::Settings settingsFromDump(const std::vector<std::string>& lines);

// The assignments applied to `settings` (dhcp first, so that an explicit ip=
// wins over its suggestion); a device number the Controller lacks refuses.
[[nodiscard]] std::optional<std::string> applyAssignments(const Assignments& assignments,
                                                          ipsettings::Settings& settings);

// The settings as `ip KEY=VALUE...` takes them, one assignment a line:
// "dhcp=on", or "dhcp=off" and "ip=..."; subnet, gateway, dns; then "devN=..."
// and "enableN=0|1" for each device.
[[nodiscard]] std::vector<std::string> assignmentLines(const ipsettings::Settings& settings);

// Every address checked and written as the check normalises it.
[[nodiscard]] std::optional<std::string> normaliseAddresses(ipsettings::Settings& settings);

} // namespace quendral::cli
