#include "platform/computer_wide_lock.h"

#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace quendral {

std::optional<ComputerWideLock> ComputerWideLock::tryAcquire(const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // A leading NUL puts the name in the abstract namespace.
    if (name.empty() || name.size() + 1 > sizeof address.sun_path) {
        return std::nullopt;
    }
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return std::nullopt;
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        ::close(descriptor); // EADDRINUSE: somebody holds it
        return std::nullopt;
    }
    return ComputerWideLock(descriptor);
}

ComputerWideLock::ComputerWideLock(ComputerWideLock&& other) noexcept
    : _descriptor(std::exchange(other._descriptor, -1))
{
}

ComputerWideLock& ComputerWideLock::operator=(ComputerWideLock&& other) noexcept
{
    if (this != &other) {
        if (_descriptor >= 0) {
            ::close(_descriptor);
        }
        _descriptor = std::exchange(other._descriptor, -1);
    }
    return *this;
}

ComputerWideLock::~ComputerWideLock()
{
    if (_descriptor >= 0) {
        ::close(_descriptor);
    }
}

} // namespace quendral
