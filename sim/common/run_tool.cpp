#include "run_tool.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace quendral::sim {

ToolRun runTool(const std::vector<std::string>& argv, double timeoutSeconds)
{
    using Clock = std::chrono::steady_clock;
    ToolRun run;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        return run;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    auto start = Clock::now();
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (rc != 0) {
        close(pipeFds[0]);
        run.output = "cannot start " + argv[0];
        return run;
    }
    auto deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds));
    char buf[4096];
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            run.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
        pollfd p{pipeFds[0], POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        ssize_t n = read(pipeFds[0], buf, sizeof buf);
        if (n <= 0) {
            break; // the tool closed its output: it is exiting
        }
        run.output.append(buf, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (WIFEXITED(status)) {
        run.exitStatus = WEXITSTATUS(status);
    }
    return run;
}

} // namespace quendral::sim
