#pragma once
// What this process has open, for leak checks.
#include <filesystem>
#include <map>
#include <string>
#include <unistd.h>

namespace quendral::test {

// Open descriptors by what they point to ("/dev/pts/3", "anon_inode:[eventfd]", "socket:[...]").
inline std::map<int, std::string> openDescriptors()
{
    std::map<int, std::string> result;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        std::error_code linkError;
        const auto target = std::filesystem::read_symlink(entry.path(), linkError);
        if (!linkError) {
            result.emplace(std::stoi(entry.path().filename().string()), target.string());
        }
    }
    return result;
}

inline std::size_t openDescriptorCount()
{
    return openDescriptors().size();
}

} // namespace quendral::test
