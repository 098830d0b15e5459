#pragma once
#include "serial/serial_error.h"

#include <string>

namespace quendral::windows {

// An error as the log shows it: domain, code, description and the port's path.
inline std::string describe(const SerialError& error)
{
    return std::string("Error Domain=") + SerialError::domain + " Code=" + std::to_string(error.code) + " \"" +
           error.description + "\" UserInfo={NSFilePath=" + error.path +
           ", NSLocalizedDescription=" + error.description + "}";
}

} // namespace quendral::windows
