#pragma once
// One Controller's update as the command line runs it, for `update` and for
// each board of `update --all`: the update job, then, after an update, the
// version the Controller reports on its new firmware.
#include "controller/controller_link.h"
#include "controller/firmware_uploader.h"
#include "controller/owner_feedback.h"
#include "controller/port_path.h"
#include "controller/update_job.h"
#include "controller/update_outcome.h"
#include "controller/update_server_client.h"
#include "flashing/board_table.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace quendral::cli {

struct UpdateReport {
    UpdateOutcome outcome = UpdateOutcome::UploadFailed;
    std::optional<ServerProblemReport> problem;
    std::optional<std::string> previousVersion;
    // The Controller answered on its new firmware (its link holds the CID and version it gave).
    bool reidentified = false;
};

// Blocks: call it off the main thread, which serves the ports' callbacks.
UpdateReport updateController(ControllerLink& link, FirmwareUploader& uploader, OwnerFeedback& feedback,
                              const PortPath& port, const BoardIdentification& board,
                              const std::optional<std::string>& build, const UpdateServerClient& server);

// Why a script should not count on the new firmware, when the job's own texts
// may not say so: the server answer that could not be used, or the reason no
// tool ever ran. None otherwise.
[[nodiscard]] std::optional<std::string> updateErrorText(const UpdateReport& report);

// A --json result: port, path, cid, version, outcome, error.
[[nodiscard]] nlohmann::json resultObject(const PortPath& port, const ControllerLink& link, const std::string& outcome,
                                          const std::optional<std::string>& error);
// An update's --json result: the above with previousVersion; version is null
// unless the Controller answered on its new firmware.
[[nodiscard]] nlohmann::json updateResultObject(const PortPath& port, const ControllerLink& link,
                                                const UpdateReport& report);

} // namespace quendral::cli
