#pragma once
// identify --all and update --all: every listed Controller port whose board
// the board table knows, all at once. Each board has a link, an uploader, a
// job and a terminal feedback of its own (its lines start with its port) and
// is followed by its USB socket, so that no board's reset, boot loader or
// failure reaches another's work; only the terminal is shared. Updates run
// alongside one another, and the computer-wide flash lock lets one tool write
// at a time. A summary table at the end, or one --json object per board.
#include "command_line.h"
#include "controller/update_server_client.h"
#include "terminal_feedback.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quendral::cli {

class SeveralControllers {
public:
    // `feedback`: the options of the run's own terminal feedback, the
    // pattern for each board's.
    SeveralControllers(const Invocation& invocation, const TerminalFeedback::Options& feedback);
    ~SeveralControllers();
    SeveralControllers(const SeveralControllers&) = delete;
    SeveralControllers& operator=(const SeveralControllers&) = delete;

    int identifyAll();
    int updateAll(const UpdateServerConfig& server);

private:
    struct Board;
    // Runs `work` for every board at once off the main thread, which serves
    // the main queue (the ports' callbacks) meanwhile.
    void runForEach(const std::vector<Board*>& boards, const std::function<void(Board&)>& work);
    // The summary table (or nothing under --json) and the worst exit code.
    int finish(bool update);

    const Invocation& _invocation;
    std::vector<std::unique_ptr<Board>> _boards;
};

// The exit code that reports the worst of several: a failure above all, then
// an unreachable server, a refusal, a question answered no, no update
// needed, success.
[[nodiscard]] int worstExitCode(const std::vector<int>& codes);

// Rows of text as columns two spaces apart, each as wide as its widest cell
// (the last one left as it is).
[[nodiscard]] std::string columns(const std::vector<std::vector<std::string>>& rows);

} // namespace quendral::cli
