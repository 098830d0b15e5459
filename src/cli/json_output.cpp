#include "json_output.h"

#include <iostream>

namespace quendral::cli {

std::string outcomeKey(UpdateOutcome outcome)
{
    switch (outcome) {
    case UpdateOutcome::Updated:
        return "updated";
    case UpdateOutcome::UploadFailed:
        return "upload-failed";
    case UpdateOutcome::NoPortSelected:
        return "no-port";
    case UpdateOutcome::UnsupportedDevice:
        return "unsupported-device";
    case UpdateOutcome::ControllerMessage:
        return "controller-message";
    case UpdateOutcome::Declined:
        return "declined";
    case UpdateOutcome::NotIdentifiedAfterIntermediate:
        return "not-identified-after-intermediate";
    case UpdateOutcome::QueryFailed:
        return "query-failed";
    case UpdateOutcome::IncompleteAnswer:
        return "incomplete-answer";
    case UpdateOutcome::NoUpdateNeeded:
        return "no-update-needed";
    case UpdateOutcome::NotAuthorized:
        return "not-authorized";
    case UpdateOutcome::NoConnection:
        return "no-connection";
    case UpdateOutcome::ServerMessage:
        return "server-message";
    case UpdateOutcome::Refused:
        return "refused";
    case UpdateOutcome::UnusableAnswer:
        return "unusable-answer";
    case UpdateOutcome::ChecksumFailed:
        return "checksum-failed";
    case UpdateOutcome::ServerFailed:
        return "server-failed";
    case UpdateOutcome::FirmwareNotWritten:
        return "firmware-not-written";
    case UpdateOutcome::FlashLockTimedOut:
        return "flash-lock-timed-out";
    case UpdateOutcome::IntermediateUnavailable:
        return "intermediate-unavailable";
    case UpdateOutcome::ImageRejected:
        return "image-rejected";
    case UpdateOutcome::PortAccessDenied:
        return "port-access-denied";
    }
    return "unknown";
}

void printJson(const nlohmann::json& object)
{
    std::cout << object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n' << std::flush;
}

nlohmann::json textOrNull(const std::optional<std::string>& text)
{
    return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

} // namespace quendral::cli
