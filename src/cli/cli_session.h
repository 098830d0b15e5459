#pragma once
// One run of quendral-cli: the same MainViewController as the window, with a
// terminal view, the port manager and a run loop on the main thread.
#include "command_line.h"
#include "controller/ip_settings.h"
#include "controller/main_view_controller.h"
#include "terminal_main_view.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace quendral::cli {

// The application delegate of a terminal: there are no secondary windows;
// the end of an action (its controls coming back) is what matters.
class TerminalApplicationDelegate final : public ApplicationDelegate {
public:
    void openSerialMonitor(const std::string& /*path*/) override {}
    void closeSerialMonitor() override {}
    [[nodiscard]] bool getSerialMonitorState() const override { return false; }
    void openIPConfig(const std::string& /*path*/, const std::vector<std::string>& /*lines*/) override {}
    [[nodiscard]] bool getIPConfigState() const override { return false; }
    void setUpdateMenuEnable(bool enabled) override
    {
        if (enabled) {
            ++_actionEnds;
        }
    }
    [[nodiscard]] int actionEnds() const { return _actionEnds.load(); }

private:
    std::atomic<int> _actionEnds{0};
};

class CliSession {
public:
    explicit CliSession(const Invocation& invocation);
    ~CliSession();
    CliSession(const CliSession&) = delete;
    CliSession& operator=(const CliSession&) = delete;

    int run();

private:
    // Selects the port named on the command line (name or /dev path), or keeps
    // the menu's first port. False, with a message, when there is none.
    bool selectPort();
    // Runs `work` on the global queue while the main thread serves the main queue.
    void runInBackground(const std::function<void()>& work);
    // Serves the main queue until `done`.
    static void runUntil(const std::function<bool()>& done);

    int ports();
    int identify();
    int update();
    int flash();
    int ip();
    int writeIp();
    // Writes settings that passed every check, and says how it went.
    int saveIp(const ipsettings::Settings& settings);
    // Runs a window action and waits until its controls come back.
    void action(void (MainViewController::*work)());
    int webConfig();
    int onlineConfig();
    int monitor();

    const Invocation& _invocation;
    std::unique_ptr<TerminalMainView> _view;
    TerminalApplicationDelegate _appDelegate;
    std::shared_ptr<MainViewController> _controller;
};

// The exit code of an update or upload outcome. A server answer too large
// to take is a failure (1), not a missing connection (5), though the window
// shows both alike.
int exitCodeFor(UpdateOutcome outcome, const std::optional<ServerProblemReport>& problem = std::nullopt);

// What the command line says, after "quendral-cli: ", when the update server's
// answer could not be used.
std::string serverProblemText(const ServerProblemReport& problem);

// Why the Controller was never flashed, for outcomes where no tool ran (and
// the window may have said nothing); nullptr for the others.
const char* notFlashedReason(UpdateOutcome outcome);

} // namespace quendral::cli
