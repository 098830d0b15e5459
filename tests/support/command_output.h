#pragma once
// A shell command run to its end: its exit code and what it wrote.
#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace quendral::test {

struct CommandOutput {
    int exitCode = -1; // -1: did not exit normally, or could not be started
    std::string output;
};

// Runs `command` through /bin/sh; add "2>&1" to it to read standard error too.
inline CommandOutput runCommand(const std::string& command)
{
    CommandOutput result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 4096> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
        result.output += buffer.data();
    }
    const int status = ::pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace quendral::test
