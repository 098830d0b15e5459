#include "controller_update.h"

#include "cli_session.h"
#include "json_output.h"

namespace quendral::cli {

UpdateReport updateController(ControllerLink& link, FirmwareUploader& uploader, OwnerFeedback& feedback,
                              const PortPath& port, const BoardIdentification& board,
                              const std::optional<std::string>& build, const UpdateServerClient& server)
{
    UpdateJob job(link, uploader, feedback);
    UpdateReport report;
    report.outcome = job.run(port, board, build, server);
    report.problem = job.serverProblem();
    report.previousVersion = link.currentVersion();
    if (report.outcome == UpdateOutcome::Updated) {
        // The Controller restarts on its new firmware: ask which version it runs now.
        // A reply line is read only once the next byte arrives, so the first
        // answer can still carry the old firmware's last line: ask twice.
        report.reidentified = link.getCID(port) && link.getCID(port);
    }
    return report;
}

std::optional<std::string> updateErrorText(const UpdateReport& report)
{
    if (report.problem) {
        return serverProblemText(*report.problem);
    }
    if (const char* why = notFlashedReason(report.outcome)) {
        return std::string("The Controller was not flashed: ") + why;
    }
    return std::nullopt;
}

nlohmann::json resultObject(const PortPath& port, const ControllerLink& link, const std::string& outcome,
                            const std::optional<std::string>& error)
{
    const std::string path = port.currentOrEmpty();
    return {{"port", path.substr(path.rfind('/') + 1)},     {"path", path},       {"cid", textOrNull(link.deviceCID())},
            {"version", textOrNull(link.currentVersion())}, {"outcome", outcome}, {"error", textOrNull(error)}};
}

nlohmann::json updateResultObject(const PortPath& port, const ControllerLink& link, const UpdateReport& report)
{
    nlohmann::json object = resultObject(port, link, outcomeKey(report.outcome), updateErrorText(report));
    object["previousVersion"] = textOrNull(report.previousVersion);
    if (report.outcome != UpdateOutcome::Updated || !report.reidentified) {
        object["version"] = nullptr; // not known to run anything yet
    }
    return object;
}

} // namespace quendral::cli
