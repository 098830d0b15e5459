#pragma once
// The child processes of this test that run a given program (a flashing tool
// the code under test started), read from /proc.
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

namespace quendral::test {

inline std::vector<pid_t> childProcessesRunning(const std::string& program)
{
    std::vector<pid_t> children;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
        std::ifstream stat(entry.path() / "stat");
        pid_t pid = 0;
        std::string name;
        std::string state;
        pid_t parent = 0;
        // "pid (name) state ppid ...": tool names hold no spaces.
        if (stat >> pid >> name >> state >> parent && parent == ::getpid() && name == "(" + program + ")") {
            children.push_back(pid);
        }
    }
    return children;
}

} // namespace quendral::test
