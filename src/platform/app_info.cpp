#include "platform/app_info.h"

#include <fstream>

#ifndef QUENDRAL_VERSION
#error "QUENDRAL_VERSION must be defined by the build"
#endif

namespace quendral::appinfo {

std::string shortVersion()
{
    return QUENDRAL_VERSION;
}

std::optional<std::string> osProductVersion(const std::string& osReleasePath)
{
    std::ifstream in(osReleasePath);
    std::string line;
    const std::string key = "VERSION_ID=";
    while (std::getline(in, line)) {
        if (line.rfind(key, 0) != 0) {
            continue;
        }
        std::string value = line.substr(key.size());
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        if (value.empty()) {
            return std::nullopt;
        }
        return value;
    }
    return std::nullopt;
}

} // namespace quendral::appinfo
