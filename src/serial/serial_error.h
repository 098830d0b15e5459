#pragma once
// A failed system call on a serial port, as its delegate hears of it: the
// POSIX error code, its strerror text and the port's path.
#include <string>

namespace quendral {

struct SerialError {
    // Always the POSIX domain; kept so that the error reads the same in logs
    // as on the platforms that carry several domains.
    static constexpr const char* domain = "NSPOSIXErrorDomain";

    int code = 0;            // errno
    std::string description; // strerror(errno)
    std::string path;        // the port's device path

    // The error of the current errno for the given path.
    static SerialError fromErrno(int error, std::string path);
};

} // namespace quendral
