#pragma once
// Running a program the way a user types it: through the shell, its output
// read to the end, its exit code.
#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace quendral::test {

struct ShellResult {
    int exitCode = -1; // -1: it did not run or did not exit by itself
    std::string output;
};

// What `command` writes on standard output (add " 2>&1" for both streams).
inline ShellResult runShellCommand(const std::string& command)
{
    ShellResult result;
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

// One word for the shell, whatever it holds.
inline std::string shellQuoted(const std::string& word)
{
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

} // namespace quendral::test
