#pragma once
// A lock that every process on this computer sees, whoever runs it.
//
// It is a name in the abstract Unix-socket namespace, held by binding a
// socket to it. There is no file behind it, so nobody can plant one before
// us, point it elsewhere through a link, or keep it after a crash: the
// kernel drops the name with the last descriptor of the process that holds
// it. Any local user can bind the same name, though, and so hold it for as
// long as they like: callers wait for it with a time limit of their own.
#include <optional>
#include <string>

namespace quendral {

class ComputerWideLock {
public:
    // Takes the lock `name` if nobody holds it; none when somebody does (or
    // when no socket can be made, which is logged by the caller's outcome).
    [[nodiscard]] static std::optional<ComputerWideLock> tryAcquire(const std::string& name);

    ComputerWideLock(ComputerWideLock&& other) noexcept;
    ComputerWideLock& operator=(ComputerWideLock&& other) noexcept;
    ComputerWideLock(const ComputerWideLock&) = delete;
    ComputerWideLock& operator=(const ComputerWideLock&) = delete;
    // Releases the lock.
    ~ComputerWideLock();

private:
    explicit ComputerWideLock(int descriptor) : _descriptor(descriptor) {}
    int _descriptor = -1;
};

} // namespace quendral
