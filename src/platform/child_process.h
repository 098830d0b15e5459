#pragma once
// A child process with its standard output and standard error on two pipes,
// for running the flashing tools.
//
// - The program is started with posix_spawn from an argv array; no shell ever
//   sees the arguments. Standard input is /dev/null. Only descriptors 0, 1 and 2
//   reach the child: the pipes are close-on-exec and everything from 3 up is
//   closed in the child, so a serial port we hold open cannot leak into a tool.
// - One reader thread per pipe hands every chunk it reads to the data handler,
//   together with the identifier of the pipe it came from. A stream can instead
//   be left to the caller, who reads it synchronously with readAvailable().
// - A waiter thread reaps the process; the termination handler runs once, after
//   the last chunk of both delivered streams has been handed over, so a handler
//   that draws conclusions from the output has seen all of it.
// - The handlers of one process never run at the same time (they share one
//   delivery lock), so a handler may keep plain, unsynchronised state.
// - waitUntilExit() returns after the termination handler has finished.
// - Destroying a process that still runs terminates it (SIGTERM, then SIGKILL),
//   reaps it and stops every thread of it; no zombie and no thread is left.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace quendral {

class ChildProcess {
public:
    enum class Stream { StandardOutput, StandardError };
    // Identifies one pipe read end for the whole life of the program; 0 is none.
    using HandleId = std::uint64_t;

    enum class TerminationReason { NotRun, Exit, UncaughtSignal };
    struct Termination {
        TerminationReason reason = TerminationReason::NotRun;
        // The exit code for Exit, the signal number for UncaughtSignal, -1 for NotRun.
        int status = -1;
        [[nodiscard]] bool succeeded() const { return reason == TerminationReason::Exit && status == 0; }
    };

    using DataHandler = std::function<void(HandleId handle, Stream stream, std::string_view bytes)>;
    using TerminationHandler = std::function<void(const Termination& termination)>;

    ChildProcess();
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // --- set up before launch() ---
    void setExecutablePath(std::filesystem::path path);
    void setArguments(std::vector<std::string> arguments);
    void setDataHandler(DataHandler handler);
    void setTerminationHandler(TerminationHandler handler);
    // The caller reads this stream itself with readAvailable(); its chunks do
    // not reach the data handler.
    void setReadsManually(Stream stream);

    [[nodiscard]] const std::filesystem::path& executablePath() const { return _executablePath; }
    [[nodiscard]] const std::vector<std::string>& arguments() const { return _arguments; }
    // The identifiers the data handler will report for the two pipes; fixed
    // from construction on.
    [[nodiscard]] HandleId handle(Stream stream) const;

    // Starts the program. False (with the reason in `error` when given) when
    // the pipes cannot be made or the program cannot be started; a process can
    // be launched once.
    bool launch(std::string* error = nullptr);

    // Blocks until up to `maxBytes` of a manually read stream are available and
    // returns them; empty at end of file (or for a stream that is not manual).
    std::string readAvailable(Stream stream, std::size_t maxBytes);

    // Blocks until the process has exited and the termination handler has run.
    // Must not be called from one of this process's own handlers.
    Termination waitUntilExit();
    [[nodiscard]] bool isRunning() const;
    [[nodiscard]] pid_t processIdentifier() const;

    // SIGINT and SIGTERM; nothing happens once the process has been reaped.
    void interrupt();
    void terminate();

    // True when `path` names a file this process may execute.
    static bool isExecutableFile(const std::filesystem::path& path);

    struct State;

private:
    void sendSignal(int signal);
    // The launched process's readers and waiter.
    void startWatching(pid_t pid);

    std::filesystem::path _executablePath;
    std::vector<std::string> _arguments;
    std::shared_ptr<State> _state;
};

} // namespace quendral
