#pragma once
// Where the application finds its files on this machine.
#include <filesystem>
#include <optional>
#include <string>

namespace quendral::paths {

// The per-user data folder: $XDG_DATA_HOME, or ~/.local/share when it is unset
// or not absolute. None when neither can be found (no HOME).
std::optional<std::filesystem::path> userDataFolder();

// The folder holding avrdude, bossac, avrdude.conf and the intermediate
// firmware: ../share/quendral-firmware-updater beside the running executable
// when that folder exists (an installed program, whatever its prefix),
// otherwise the build tree's resources folder.
std::filesystem::path resourceFolder();
// Lets the command line, the device lab and tests point at another folder.
void setResourceFolder(std::optional<std::filesystem::path> folder);

} // namespace quendral::paths
