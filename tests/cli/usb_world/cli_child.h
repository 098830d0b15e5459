#pragma once
// The quendral-cli binary as a child process of a test: its standard input is
// a pipe the test writes to, its standard output and error are collected
// separately while it runs. The child inherits the test's environment, so
// inside umockdev's preload it sees the test's USB world (UMOCKDEV_DIR is set
// once a test bed exists: start the child after building the world).
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <termios.h>
#include <thread>
#include <vector>

namespace quendral::test {

struct CliResult {
    int exitCode = -1; // -1: killed (it did not end in time) or did not start
    std::string out;
    std::string err;
};

class CliChild {
public:
    // Variables to set (a value) or remove (none) for the child only.
    using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

    enum class Input { Pipe, Terminal };

    // Input::Terminal: standard input and output are one pseudo-terminal (as
    // in an interactive session); `out` is then what the terminal showed.
    CliChild(const std::vector<std::string>& arguments, const EnvironmentChanges& environment,
             Input input = Input::Pipe);
    // A child still running is killed (SIGKILL to its own pid) and reaped.
    ~CliChild();
    CliChild(const CliChild&) = delete;
    CliChild& operator=(const CliChild&) = delete;

    [[nodiscard]] bool started() const { return _pid > 0; }

    bool writeInput(std::string_view text);
    void closeInput();

    // Waits until standard output contains `text`.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout);
    [[nodiscard]] std::string output() const;
    // Waits until standard error contains `text`.
    bool waitForErrorOutput(const std::string& text, std::chrono::milliseconds timeout);
    // The input terminal's settings now, or as the child left them once
    // finish() has seen it end (Input::Terminal only).
    [[nodiscard]] std::optional<termios> terminalSettings() const;

    // Waits for the end (closing a piped standard input first); kills the child when
    // it outlives the timeout.
    CliResult finish(std::chrono::milliseconds timeout);

private:
    void collect(int outFd, int errFd);

    pid_t _pid = -1;
    int _input = -1; // the pipe's write end, or the terminal's master side
    bool _terminal = false;
    std::optional<termios> _terminalSettingsAtEnd;
    std::thread _collector;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::string _out;
    std::string _err;
    bool _collected = false;
};

// Runs the binary named by $QUENDRAL_CLI with the arguments, feeds it `input`
// (then end of input) and waits for its end.
CliResult runCli(const std::vector<std::string>& arguments, const CliChild::EnvironmentChanges& environment,
                 const std::string& input = "", std::chrono::milliseconds timeout = std::chrono::milliseconds(90000));

} // namespace quendral::test
