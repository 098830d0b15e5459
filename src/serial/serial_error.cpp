#include "serial/serial_error.h"

#include <cstring>

namespace quendral {

SerialError SerialError::fromErrno(int error, std::string path)
{
    char buffer[256];
    // GNU strerror_r: returns the text, which may or may not live in `buffer`.
    const char* text = ::strerror_r(error, buffer, sizeof buffer);
    return SerialError{error, text, std::move(path)};
}

} // namespace quendral
