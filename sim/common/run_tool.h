#pragma once
// Runs a real flashing tool against a simulated board, for the device lab's
// tests and benchmarks: argv (no shell), standard output and error gathered
// together, killed after a time limit.

#include <string>
#include <vector>

namespace quendral::sim {

struct ToolRun {
    int exitStatus = -1; // exit code; -1 if it did not exit normally
    bool timedOut = false;
    double seconds = 0; // wall time
    std::string output; // standard output and error, interleaved as written
};

ToolRun runTool(const std::vector<std::string>& argv, double timeoutSeconds);

} // namespace quendral::sim
