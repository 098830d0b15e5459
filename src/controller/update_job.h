#pragma once
// The update job: identifies the Controller (installing the intermediate
// firmware first where it cannot answer), asks the update server for a build
// made for it, polls the ticket until the file arrives, checks digest and
// image, flashes it under the computer-wide flash lock and reports the result
// to the server. Returns how it ended.
//
// Threading: run() blocks its caller for the whole job (background only).
#include "controller/controller_link.h"
#include "controller/firmware_uploader.h"
#include "controller/owner_feedback.h"
#include "controller/port_path.h"
#include "controller/update_outcome.h"
#include "controller/update_server_client.h"
#include "flashing/board_table.h"
#include "platform/clock.h"
#include "platform/computer_wide_lock.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral {

class UpdateJob {
public:
    // Everything given outlives the job.
    UpdateJob(ControllerLink& link, FirmwareUploader& uploader, OwnerFeedback& feedback, Clock& clock = systemClock());

    // The board on `path` when the update server builds firmware for it (it
    // logs "Detected KorbatekDue"); none, after logging and saying so, when not.
    const BoardIdentification* boardToUpdate(const std::string& path);

    // `version`: "master", "masternodelete", "branch_<name>" or none (the
    // server decides).
    UpdateOutcome run(const PortPath& port, const BoardIdentification& board, const std::optional<std::string>& version,
                      const UpdateServerClient& server);

    // Why the last run could not use the server's answer to its query (see
    // ServerProblem); none when it could, or when it asked nothing.
    [[nodiscard]] std::optional<ServerProblemReport> serverProblem() const;

private:
    // Reads the identifier, installing the intermediate firmware first where
    // the Controller cannot answer; an outcome when the job ends there.
    std::optional<UpdateOutcome> identifyForUpdate(const PortPath& port, const BoardIdentification& board);
    UpdateOutcome askServerAndInstall(const PortPath& port, const BoardIdentification& board,
                                      const std::optional<std::string>& version, const UpdateServerClient& server);
    // Polls the ticket until a file arrives that passes digest and image checks.
    UpdateOutcome fetchAndInstall(const PortPath& port, const BoardIdentification& board,
                                  const std::optional<TicketId>& ticket, const UpdateServerClient& server);
    // Writes, flashes and deletes the file under the flash lock; reports to the server.
    UpdateOutcome installDownloaded(const PortPath& port, const std::vector<std::uint8_t>& data,
                                    const std::optional<TicketId>& ticket, const UpdateServerClient& server);
    // The computer-wide lock on the downloaded file, waited for with a limit.
    std::optional<ComputerWideLock> waitForFlashLock();
    void noteServerProblem(std::optional<ServerProblemReport> problem);

    ControllerLink& _link;
    FirmwareUploader& _uploader;
    OwnerFeedback& _feedback;
    Clock& _clock;
    mutable std::mutex _problemMutex;
    std::optional<ServerProblemReport> _serverProblem;
};

} // namespace quendral
