#pragma once
// Writing to a descriptor that may take the bytes in pieces.
#include <cerrno>
#include <string_view>
#include <unistd.h>

namespace quendral::sim {

// Writes all of `bytes` to the (blocking) descriptor `fd`, again whenever a
// signal broke in; false as soon as a write fails otherwise (errno says why).
inline bool writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

} // namespace quendral::sim
