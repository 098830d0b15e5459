#include "platform/paths.h"

#include <cstdlib>
#include <mutex>
#include <system_error>

#ifndef QUENDRAL_BUILD_RESOURCES
#error "QUENDRAL_BUILD_RESOURCES must be defined by the build"
#endif

namespace quendral::paths {
namespace {

std::mutex gMutex;
std::optional<std::filesystem::path> gResourceOverride;

std::filesystem::path installedResourceFolder()
{
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        return {};
    }
    return exe.parent_path().parent_path() / "share" / "quendral-firmware-updater";
}

} // namespace

std::optional<std::filesystem::path> userDataFolder()
{
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
        return std::filesystem::path(xdg);
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return std::filesystem::path(home) / ".local" / "share";
    }
    return std::nullopt;
}

std::filesystem::path resourceFolder()
{
    {
        std::lock_guard lock(gMutex);
        if (gResourceOverride) {
            return *gResourceOverride;
        }
    }
    std::error_code ec;
    if (auto installed = installedResourceFolder();
        !installed.empty() && std::filesystem::is_directory(installed, ec)) {
        return installed;
    }
    return std::filesystem::path(QUENDRAL_BUILD_RESOURCES);
}

void setResourceFolder(std::optional<std::filesystem::path> folder)
{
    std::lock_guard lock(gMutex);
    gResourceOverride = std::move(folder);
}

} // namespace quendral::paths
