#pragma once
// How a firmware update or an upload from a file ended. The window shows the
// outcome through its texts and alerts; the command line turns it into an
// exit code.
#include <string>

namespace quendral {

enum class UpdateOutcome {
    Updated,      // flashed and reported to the server as a success
    UploadFailed, // the flashing (intermediate or final) failed
    NoPortSelected,
    UnsupportedDevice, // updates are not offered for this board
    ControllerMessage, // the Controller answered with a message instead of its identifier
    Declined,          // the user declined the intermediate firmware
    NotIdentifiedAfterIntermediate,
    QueryFailed,      // the update query could not be made or gave no answer
    IncompleteAnswer, // the server's answer lacked "status" or "description"
    NoUpdateNeeded,
    NotAuthorized,
    NoConnection,
    ServerMessage,
    Refused,        // an error answer without a description the application knows
    UnusableAnswer, // an answer that is no error and carries no usable ticket
    ChecksumFailed,
    ServerFailed, // generation failed on the server, or the server could not be reached while polling
    // The Controller was not flashed although the road went on:
    FirmwareNotWritten,      // the downloaded file could not be written (reported to the server as a success)
    FlashLockTimedOut,       // another update on this computer held the firmware file for too long
    IntermediateUnavailable, // no usable intermediate firmware for a Controller that cannot identify itself
    ImageRejected,           // the file to flash failed its check; nothing was touched
    PortAccessDenied,        // this user may not open the Controller's port
};

// Why an update server's answer could not be used. The window shows only its
// own texts for these (a failed transfer reads as a missing connection); the
// command line names the reason.
enum class ServerProblem {
    Unreachable,    // no connection, a TLS failure, a time-out (detail: libcurl's words)
    AnswerTooLarge, // the answer passed the size limit (detail: the limit in bytes)
    NotJsonObject,  // the body was no JSON object
    NoStatusText,   // "status" or "description" missing or not text
    NoUsableTicket, // no error, yet no ticket that is a string or a number
    MessageNotText, // a "message" refusal whose "msg" is missing or not text
    UnknownRefusal, // an error whose description the application does not know (detail: it)
    QueryNotMade,   // the request could not be made (a value missing or not UTF-8)
};

struct ServerProblemReport {
    ServerProblem problem;
    std::string detail;
};

} // namespace quendral
