#pragma once
// One run of quendral-cli: the core's classes (the Controller link, the
// firmware uploader, the update job) called with the port named on the
// command line, their outcomes turned into output and an exit code. The main
// thread serves the main queue (the ports' callbacks) while the work runs on
// the global queue.
#include "command_line.h"
#include "controller/controller_link.h"
#include "controller/firmware_uploader.h"
#include "controller/ip_settings.h"
#include "controller/port_path.h"
#include "controller/update_outcome.h"
#include "controller/update_server_client.h"
#include "terminal_feedback.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace quendral::cli {

// Serves the main queue (the ports' callbacks) on the main thread until `done`.
void serveMainQueueUntil(const std::function<bool()>& done);

class CliSession {
public:
    explicit CliSession(const Invocation& invocation);
    ~CliSession();
    CliSession(const CliSession&) = delete;
    CliSession& operator=(const CliSession&) = delete;

    int run();

private:
    // The port to work on: the one named on the command line (name or /dev
    // path), or the first Controller port. None, with a message, when there is none.
    std::optional<PortPath> choosePort();
    // Runs `work` on the global queue while the main thread serves the main queue.
    void runInBackground(const std::function<void()>& work);
    static void runUntil(const std::function<bool()>& done) { serveMainQueueUntil(done); }

    int ports();
    int doctor();
    // The update server named by --server and --ca-file (the build's own otherwise).
    [[nodiscard]] UpdateServerConfig serverConfig() const;
    int identify();
    int update();
    int flash();
    int ip();
    int writeIp();
    // Writes settings that passed every check, and says how it went.
    int saveIp(const ipsettings::Settings& settings);
    // A --json result: port, path, cid, version, outcome, error.
    [[nodiscard]] nlohmann::json resultObject(const std::string& outcome,
                                              const std::optional<std::string>& error) const;
    [[nodiscard]] nlohmann::json ipObject(const std::vector<std::string>& lines) const;
    int webConfig();
    int onlineConfig();
    int monitor();

    const Invocation& _invocation;
    TerminalFeedback::Options _feedbackOptions;
    std::unique_ptr<TerminalFeedback> _feedback;
    std::shared_ptr<ControllerLink> _link;
    std::unique_ptr<FirmwareUploader> _uploader;
    std::optional<PortPath> _port;
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
