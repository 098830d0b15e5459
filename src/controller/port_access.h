#pragma once
// What an owner is told when this user may not open a Controller's port:
// the device, the group that may, and the two ways to join it.
#include <string>

namespace quendral {

// The udev rule installed with the application (resources/udev).
inline constexpr const char* kControllersUdevRule = "70-quendral-controllers.rules";

[[nodiscard]] std::string portAccessDeniedText(const std::string& path);

} // namespace quendral
