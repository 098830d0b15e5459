// MainViewController: checking for, fetching, verifying, flashing and
// reporting a firmware update.
#include "controller/main_view_controller.h"

#include "controller/firmware_file.h"
#include "log/logger.h"
#include "platform/dispatch.h"
#include "platform/paths.h"

#include <map>
#include <unistd.h>

#ifndef QUENDRAL_SUPPORT_URL
#error "QUENDRAL_SUPPORT_URL must be defined by the build"
#endif

namespace quendral {
namespace {

const char* const kDownloadedFirmware = "/tmp/quendral-hexfile.hex";
constexpr int kMaximumDownloads = 6;

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

void MainViewController::checkForUpdate()
{
    Logger::log("User clicked check for update");
    checkForUpdate(std::nullopt);
}

void MainViewController::checkForUpdate(const std::optional<std::string>& version)
{
    Logger::log("Checking for update");
    if (_appDelegate != nullptr) {
        _appDelegate->closeSerialMonitor();
    }
    _view.setProgress(0.0);
    _view.startProgressAnimation();

    if (!pathOfSelectedPort()) {
        showAlert("Please select a device from the drop-down menu.");
        finishUpload(UpdateOutcome::NoPortSelected);
        return;
    }
    toggleUI(false);
    const CombinedUsbIdentifier code = identifySelectedBoard();
    const BoardIdentification* board = identifyBoard(code);
    if (board == nullptr || !board->updatePlatform) {
        Logger::log("Detected unsupported device");
        _view.setStatusText("Check for updates is not supported for this device type.");
        toggleUI(true);
        finishUpload(UpdateOutcome::UnsupportedDevice);
        return;
    }
    Logger::log("Detected KorbatekDue");
    const std::string platform(*board->updatePlatform);
    const bool inBootloader = board->inBootloader;
    auto self = shared_from_this();
    dispatch::globalQueue()->async([self, platform, version, inBootloader] {
        const UpdateOutcome outcome = self->runUpdateJob(platform, version, inBootloader);
        self->finishUpload(outcome);
    });
}

UpdateOutcome MainViewController::runUpdateJob(const std::string& platform, const std::optional<std::string>& version,
                                               bool inBootloader)
{
    bool uploadFailed = false;
    const UpdateOutcome outcome = updateJobSteps(platform, version, inBootloader, uploadFailed);
    if (uploadFailed) {
        Logger::log("Error: Upload failed");
        dispatch::mainQueue()->sync([this] { _view.setStatusText("An error occured during firmware upload."); });
    }
    toggleUI(true);
    return uploadFailed ? UpdateOutcome::UploadFailed : outcome;
}

UpdateOutcome MainViewController::updateJobSteps(const std::string& platform, const std::optional<std::string>& version,
                                                 bool inBootloader, bool& uploadFailed)
{
    noteServerProblem(std::nullopt);
    // 1.-3. Identify; a Controller that cannot answer gets the intermediate firmware first.
    std::optional<std::string> cid;
    if (!inBootloader) {
        cid = getCID();
    }
    if (!cid) {
        if (deviceMessage()) {
            return UpdateOutcome::ControllerMessage; // getCID has shown it
        }
        Logger::log("Going to upload the intermediate firmware");
        if (!showDialog("An intermediate software version will be uploaded to your controller, then it will reboot, "
                        "generate and install the final firmware version. Proceed?")) {
            Logger::log("User declined intermediate firmware");
            return UpdateOutcome::Declined;
        }
        Logger::log("User confirmed intermediate firmware");
        const auto intermediate = paths::resourceFolder() / ("intermediate_" + platform + ".hex");
        if (!uploadSketch(intermediate.string())) {
            uploadFailed = true;
            return UpdateOutcome::UploadFailed;
        }
        Logger::log("Finished uploading..");
        cid = getCID();
        if (!cid) {
            Logger::log(
                "ERROR, could not get controller info after installing intermediate firmware. Port showing up?");
            return UpdateOutcome::NotIdentifiedAfterIntermediate;
        }
    }

    // 4.-7. Ask the server.
    std::optional<ServerProblemReport> problem;
    const auto answer = _updateServer.queryUpdate(deviceCID(), platform, currentVersion(), version, &problem);
    noteServerProblem(problem);
    if (!answer) {
        Logger::log("Error requesting update");
        return UpdateOutcome::QueryFailed;
    }
    const auto status = answer->stringValue("status");
    const auto description = answer->stringValue("description");
    Logger::log("Requesting update for CID " + orNull(deviceCID()) + " with current version " +
                orNull(currentVersion()) + " andself-> new version " + orNull(version));
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
            showAlert(refusalAlert(*description, orNull(deviceCID())));
            outcome = refusal->second.outcome;
        } else if (const auto message = answer->stringValue("msg"); *description == "message" && message) {
            Logger::log("Custom message: " + *message);
            showAlert(*message);
            outcome = UpdateOutcome::ServerMessage;
        } else {
            noteServerProblem(*description == "message"
                                  ? ServerProblemReport{ServerProblem::MessageNotText, {}}
                                  : ServerProblemReport{ServerProblem::UnknownRefusal, *description});
        }
        postStatusText("");
        return outcome;
    }

    // 8.-9. Wait while the server builds the file, then fetch and check it.
    postStatusText("Firmware upgrade file is being generated on the server. Please wait..");
    Logger::log("Firmware being generated on server..");
    int mismatches = 0;
    for (;;) {
        const auto polled = _updateServer.queryTicket(ticket, deviceCID());
        const auto hexfile = polled ? polled->stringValue("hexfile") : std::nullopt;
        if (hexfile) {
            const auto data = firmware::decodeBase64(*hexfile).value_or(std::vector<std::uint8_t>());
            const std::string digest = firmware::md5Hex(data);
            const auto hash = polled->stringValue("hash");
            if (hash && *hash == digest) {
                Logger::log("Received firmware!");
                if (firmware::writeAtomically(kDownloadedFirmware, data)) {
                    uploadFailed = !uploadSketch(kDownloadedFirmware);
                    ::unlink(kDownloadedFirmware);
                }
                // A file that could not be written is reported as a success: so it has always been.
                (void)_updateServer.reportUpdateStatus(ticket, deviceCID(), !uploadFailed);
                return uploadFailed ? UpdateOutcome::UploadFailed : UpdateOutcome::Updated;
            }
            Logger::log("Checksum mismatch, got " + orNull(hash) + " expected: " + digest);
            if (++mismatches < kMaximumDownloads) {
                _clock.sleepFor(Clock::Seconds(0.5));
                continue;
            }
            Logger::log("Failed checksum, aborting update");
            postStatusText("Checksum did not match on received data. Please contact support.");
            return UpdateOutcome::ChecksumFailed;
        }
        const auto pollStatus = polled ? polled->stringValue("status") : std::nullopt;
        const auto pollDescription = polled ? polled->stringValue("description") : std::nullopt;
        if (pollStatus == "error" && pollDescription != "internal") {
            Logger::log("ERROR, firmware generation failed server-side");
            dispatch::mainQueue()->sync([this] {
                _view.setStatusTextWithLink("A server error occured. Please go to the support website", 15,
                                            QUENDRAL_SUPPORT_URL);
            });
            return UpdateOutcome::ServerFailed;
        }
        if (pollStatus == "error" && pollDescription == "connection") {
            // Unreachable after the test above ("internal" is the only error
            // left here); kept in the order the job has always tested.
            dispatch::mainQueue()->sync([this] {
                _view.setStatusText("Could not connect to the update server. Please check your internet connection.");
            });
        }
        _clock.sleepFor(Clock::Seconds(1.0));
    }
}

void MainViewController::finishUpload(UpdateOutcome outcome)
{
    std::function<void(UpdateOutcome)> handler;
    {
        std::lock_guard lock(_serialMutex);
        handler = _onUpdateFinished;
    }
    if (handler) {
        handler(outcome);
    }
}

void MainViewController::setUpdateFinishedHandler(std::function<void(UpdateOutcome)> handler)
{
    std::lock_guard lock(_serialMutex);
    _onUpdateFinished = std::move(handler);
}

} // namespace quendral
