#pragma once
// How a firmware update or an upload from a file ended. The window shows the
// outcome through its texts and alerts; the command line turns it into an
// exit code.
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
    Refused, // an error answer without a description the application knows
    ChecksumFailed,
    ServerFailed, // generation failed on the server, or the server could not be reached while polling
    // The Controller was not flashed although the road went on:
    FirmwareNotWritten,      // the downloaded file could not be written (reported to the server as a success)
    FlashLockTimedOut,       // another update on this computer held the firmware file for too long
    IntermediateUnavailable, // no usable intermediate firmware for a Controller that cannot identify itself
    ImageRejected,           // the file to flash failed its check; nothing was touched
    PortAccessDenied,        // this user may not open the Controller's port
};

} // namespace quendral
