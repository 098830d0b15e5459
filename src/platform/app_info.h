#pragma once
#include <optional>
#include <string>

namespace quendral::appinfo {

// The application's short version string, e.g. "1.0.0".
std::string shortVersion();

// The operating system's product version: VERSION_ID of /etc/os-release (or of
// the given file), else its BUILD_ID, else "rolling". None when the file cannot
// be read.
std::optional<std::string> osProductVersion(const std::string& osReleasePath = "/etc/os-release");

} // namespace quendral::appinfo
