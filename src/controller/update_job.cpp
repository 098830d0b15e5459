#include "controller/update_job.h"

#include "controller/firmware_file.h"
#include "controller/firmware_image_check.h"
#include "log/logger.h"
#include "platform/dispatch.h"
#include "platform/paths.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <unistd.h>

#ifndef QUENDRAL_SUPPORT_URL
#error "QUENDRAL_SUPPORT_URL must be defined by the build"
#endif

namespace quendral {
namespace {

const char* const kDownloadedFirmware = firmware::kDownloadedFirmwarePath;
const char* const kFlashLockName = firmware::kDownloadedFirmwareLock;
constexpr int kMaximumDownloads = 6;
// A flash holds the lock a minute or two at most; the patience is bounded
// because any local user can hold the name (see ComputerWideLock).
constexpr auto kFlashLockPatience = std::chrono::minutes(10);

// "%@" of an absent value reads "(null)" in the log, as it always has.
std::string orNull(const std::optional<std::string>& text)
{
    return text.value_or("(null)");
}

struct Refusal {
    std::optional<std::string> logLine;
    UpdateOutcome outcome;
};

// What an error answer without a ticket means; "message" is handled apart
// because its text comes from the answer.
const std::map<std::string, Refusal>& refusals()
{
    static const std::map<std::string, Refusal> table{
        {"not_authorized", {"ERROR, controller not registered", UpdateOutcome::NotAuthorized}},
        {"no_update", {std::nullopt, UpdateOutcome::NoUpdateNeeded}},
        {"connection", {"ERROR, no internet connection", UpdateOutcome::NoConnection}},
    };
    return table;
}

std::string refusalAlert(const std::string& description, const std::string& cid)
{
    if (description == "not_authorized") {
        return "The connected controller is not fully registered yet. Please contact QUENDRAL Support and include "
               "the serial number of the unit, attaching the controller identification code:\n\n " +
               cid;
    }
    if (description == "no_update") {
        return "The connected controller already has the newest software version installed.";
    }
    return "Could not connect to the update server. Please check your internet connection.";
}

} // namespace

UpdateJob::UpdateJob(ControllerLink& link, FirmwareUploader& uploader, OwnerFeedback& feedback, Clock& clock)
    : _link(link), _uploader(uploader), _feedback(feedback), _clock(clock)
{
}

const BoardIdentification* UpdateJob::boardToUpdate(const std::string& path)
{
    const BoardIdentification* board = BoardTable::find(FirmwareUploader::identifyBoard(path));
    if (board == nullptr || !board->updatePlatform) {
        Logger::log("Detected unsupported device");
        _feedback.failure("Check for updates is not supported for this device type.");
        return nullptr;
    }
    Logger::log("Detected KorbatekDue");
    return board;
}

UpdateOutcome UpdateJob::run(const PortPath& port, const BoardIdentification& board,
                             const std::optional<std::string>& version, const UpdateServerClient& server)
{
    UpdateOutcome outcome = identifyForUpdate(port, board).value_or(UpdateOutcome::Updated);
    if (outcome == UpdateOutcome::Updated) {
        outcome = askServerAndInstall(port, board, version, server);
    }
    if (outcome == UpdateOutcome::UploadFailed) {
        Logger::log("Error: Upload failed");
        _feedback.failure("An error occured during firmware upload.");
    }
    return outcome;
}

std::optional<UpdateOutcome> UpdateJob::identifyForUpdate(const PortPath& port, const BoardIdentification& board)
{
    noteServerProblem(std::nullopt);
    // A board in its boot loader cannot answer and counts as not identified.
    if (!board.inBootloader && _link.getCID(port)) {
        return std::nullopt;
    }
    if (_link.portAccessDenied()) {
        return UpdateOutcome::PortAccessDenied; // told already, with the fix
    }
    if (_link.deviceMessage()) {
        return UpdateOutcome::ControllerMessage; // getCID has shown it
    }
    // Asking makes sense only when there is something to install: without a
    // usable intermediate image the tool would erase the board and fail.
    const auto intermediate = paths::resourceFolder() / ("intermediate_" + std::string(*board.updatePlatform) + ".hex");
    if (const auto problem = firmware::imageFileProblem(intermediate, board)) {
        Logger::log("ERROR, no usable intermediate firmware: " + *problem);
        _feedback.alert("The Controller did not identify itself. It needs the intermediate firmware first, but that "
                        "firmware is not available here (" +
                        *problem + "). Nothing was sent to the Controller. Please contact QUENDRAL Support.");
        return UpdateOutcome::IntermediateUnavailable;
    }
    Logger::log("Going to upload the intermediate firmware");
    if (!_feedback.ask("An intermediate software version will be uploaded to your controller, then it will reboot, "
                       "generate and install the final firmware version. Proceed?")) {
        Logger::log("User declined intermediate firmware");
        return UpdateOutcome::Declined;
    }
    Logger::log("User confirmed intermediate firmware");
    if (_uploader.flashFile(port, intermediate.string()) != UpdateOutcome::Updated) {
        return UpdateOutcome::UploadFailed;
    }
    Logger::log("Finished uploading..");
    if (!_link.getCID(port)) {
        Logger::log("ERROR, could not get controller info after installing intermediate firmware. Port showing up?");
        return UpdateOutcome::NotIdentifiedAfterIntermediate;
    }
    return std::nullopt;
}

UpdateOutcome UpdateJob::askServerAndInstall(const PortPath& port, const BoardIdentification& board,
                                             const std::optional<std::string>& version,
                                             const UpdateServerClient& server)
{
    // The query, the polls and the report share one connection.
    const auto connection = server.keepConnection();
    const std::string platform(*board.updatePlatform);
    std::optional<ServerProblemReport> problem;
    const auto answer = server.queryUpdate(_link.deviceCID(), platform, _link.currentVersion(), version, &problem);
    noteServerProblem(problem);
    if (!answer) {
        Logger::log("Error requesting update");
        return UpdateOutcome::QueryFailed;
    }
    const auto status = answer->stringValue("status");
    const auto description = answer->stringValue("description");
    Logger::log("Requesting update for CID " + orNull(_link.deviceCID()) + " with current version " +
                orNull(_link.currentVersion()) + " andself-> new version " + orNull(version));
    if (!status || !description) {
        noteServerProblem(ServerProblemReport{ServerProblem::NoStatusText, {}});
        return UpdateOutcome::IncompleteAnswer;
    }
    const auto ticket = answer->ticketId();
    if (!ticket) {
        if (*status != "error") {
            noteServerProblem(ServerProblemReport{ServerProblem::NoUsableTicket, {}});
            return UpdateOutcome::UnusableAnswer;
        }
        UpdateOutcome outcome = UpdateOutcome::Refused;
        if (const auto refusal = refusals().find(*description); refusal != refusals().end()) {
            if (refusal->second.logLine) {
                Logger::log(*refusal->second.logLine);
            }
            _feedback.alert(refusalAlert(*description, orNull(_link.deviceCID())));
            outcome = refusal->second.outcome;
        } else if (const auto message = answer->stringValue("msg"); *description == "message" && message) {
            Logger::log("Custom message: " + *message);
            _feedback.alert(*message);
            outcome = UpdateOutcome::ServerMessage;
        } else {
            noteServerProblem(*description == "message"
                                  ? ServerProblemReport{ServerProblem::MessageNotText, {}}
                                  : ServerProblemReport{ServerProblem::UnknownRefusal, *description});
        }
        _feedback.status("");
        return outcome;
    }
    _feedback.status("Firmware upgrade file is being generated on the server. Please wait..");
    Logger::log("Firmware being generated on server..");
    return fetchAndInstall(port, board, ticket, server);
}

UpdateOutcome UpdateJob::fetchAndInstall(const PortPath& port, const BoardIdentification& board,
                                         const std::optional<TicketId>& ticket, const UpdateServerClient& server)
{
    int rejected = 0;
    for (;;) {
        const auto polled = server.queryTicket(ticket, _link.deviceCID());
        if (const auto hexfile = polled ? polled->stringValue("hexfile") : std::nullopt) {
            const auto data = firmware::decodeBase64(*hexfile).value_or(std::vector<std::uint8_t>());
            const std::string digest = firmware::md5Hex(data);
            const auto hash = polled->stringValue("hash");
            if (hash && *hash == digest) {
                // The digest only proves the file arrived as sent; an empty or
                // malformed file is as unfit to flash as a damaged one.
                const auto problem = firmware::imageProblem(data, board);
                if (!problem) {
                    Logger::log("Received firmware!");
                    return installDownloaded(port, data, ticket, server);
                }
                Logger::log("Received firmware fails its check: " + *problem);
            } else {
                Logger::log("Checksum mismatch, got " + orNull(hash) + " expected: " + digest);
            }
            if (++rejected < kMaximumDownloads) {
                _clock.sleepFor(Clock::Seconds(0.5));
                continue;
            }
            Logger::log("Failed checksum, aborting update");
            _feedback.failure("Checksum did not match on received data. Please contact support.");
            return UpdateOutcome::ChecksumFailed;
        }
        const auto pollStatus = polled ? polled->stringValue("status") : std::nullopt;
        const auto pollDescription = polled ? polled->stringValue("description") : std::nullopt;
        if (pollStatus == "error" && pollDescription != "internal") {
            Logger::log("ERROR, firmware generation failed server-side");
            _feedback.statusWithLink("A server error occured. Please go to the support website", 15,
                                     QUENDRAL_SUPPORT_URL);
            return UpdateOutcome::ServerFailed;
        }
        if (pollStatus == "error" && pollDescription == "connection") {
            // Unreachable after the test above ("internal" is the only error
            // left here); kept in the order the job has always tested.
            _feedback.failure("Could not connect to the update server. Please check your internet connection.");
        }
        _clock.sleepFor(Clock::Seconds(1.0));
    }
}

UpdateOutcome UpdateJob::installDownloaded(const PortPath& port, const std::vector<std::uint8_t>& data,
                                           const std::optional<TicketId>& ticket, const UpdateServerClient& server)
{
    UpdateOutcome outcome = UpdateOutcome::FlashLockTimedOut;
    // The file has one path for the whole computer: from its write until it
    // is deleted, no other update may replace or delete it under our tool.
    if (auto lock = waitForFlashLock()) {
        if (firmware::writeAtomically(kDownloadedFirmware, data)) {
            outcome = _uploader.flashFile(port, kDownloadedFirmware) == UpdateOutcome::Updated
                          ? UpdateOutcome::Updated
                          : UpdateOutcome::UploadFailed;
            ::unlink(kDownloadedFirmware);
        } else {
            Logger::log(std::string("ERROR, could not write ") + kDownloadedFirmware + ": " + std::strerror(errno));
            outcome = UpdateOutcome::FirmwareNotWritten;
        }
    }
    // A file that could not be written is reported as a success: so it has
    // always been. Only a failed tool or a board never touched says otherwise.
    const bool success = outcome == UpdateOutcome::Updated || outcome == UpdateOutcome::FirmwareNotWritten;
    (void)server.reportUpdateStatus(ticket, _link.deviceCID(), success);
    return outcome;
}

std::optional<ComputerWideLock> UpdateJob::waitForFlashLock()
{
    auto lock = ComputerWideLock::tryAcquire(kFlashLockName);
    if (lock) {
        return lock;
    }
    Logger::log("Another firmware update on this computer is flashing; waiting for it to finish");
    _feedback.status("Waiting for another firmware update on this computer to finish..");
    const auto start = _clock.now();
    while (_clock.now() - start < kFlashLockPatience) {
        _clock.sleepFor(Clock::Seconds(0.5));
        if ((lock = ComputerWideLock::tryAcquire(kFlashLockName))) {
            return lock;
        }
    }
    Logger::log("ERROR, the other firmware update on this computer did not finish in time; nothing was flashed");
    _feedback.failure("Another firmware update on this computer did not finish in time. Nothing was flashed; please "
                      "try again.");
    return std::nullopt;
}

std::optional<ServerProblemReport> UpdateJob::serverProblem() const
{
    std::lock_guard lock(_problemMutex);
    return _serverProblem;
}

void UpdateJob::noteServerProblem(std::optional<ServerProblemReport> problem)
{
    std::lock_guard lock(_problemMutex);
    _serverProblem = std::move(problem);
}

} // namespace quendral
