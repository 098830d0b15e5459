#include "platform/app_info.h"

#include <fstream>
#include <map>
#include <string_view>

#ifndef QUENDRAL_VERSION
#error "QUENDRAL_VERSION must be defined by the build"
#endif

namespace quendral::appinfo {
namespace {

// os-release values follow shell quoting: bare, in single quotes, or in double
// quotes where a backslash escapes $, `, " and \ itself.
std::string unquoted(const std::string& value)
{
    if (value.size() < 2 || (value.front() != '"' && value.front() != '\'') || value.back() != value.front()) {
        return value;
    }
    const std::string inner = value.substr(1, value.size() - 2);
    if (value.front() == '\'') {
        return inner;
    }
    std::string text;
    for (std::size_t i = 0; i < inner.size(); ++i) {
        if (inner[i] == '\\' && i + 1 < inner.size() &&
            std::string_view("$`\"\\").find(inner[i + 1]) != std::string_view::npos) {
            ++i;
        }
        text += inner[i];
    }
    return text;
}

} // namespace

std::string shortVersion()
{
    return QUENDRAL_VERSION;
}

std::optional<std::string> osProductVersion(const std::string& osReleasePath)
{
    std::ifstream in(osReleasePath);
    if (!in) {
        return std::nullopt;
    }
    std::map<std::string, std::string, std::less<>> values;
    for (std::string line; std::getline(in, line);) {
        const auto equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string::npos) {
            continue;
        }
        values[line.substr(0, equals)] = unquoted(line.substr(equals + 1));
    }
    // Rolling distributions have no release number: Arch names its build, Debian
    // testing and sid name nothing; without a version no update check goes out.
    for (const char* key : {"VERSION_ID", "BUILD_ID"}) {
        if (const auto found = values.find(key); found != values.end() && !found->second.empty()) {
            return found->second;
        }
    }
    return "rolling";
}

} // namespace quendral::appinfo
