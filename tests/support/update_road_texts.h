#pragma once
// The texts an update shows its user on the way, exactly as the window's
// status line and quendral-cli show them, in the order the road meets them;
// the flashing tool's own are in flashing_expectations.h.
#include "flashing_expectations.h"

#include <string>

namespace quendral::test {

// Identifying the Controller: the count-down while it boots (from 20), and
// the end when it never says who it is.
inline std::string bootCountdown(int secondsLeft)
{
    return "Waiting for device to boot.. (" + std::to_string(secondsLeft) + ")";
}
inline const std::string kUnidentified = "Error: Unable to identify device";

// A board that answers nothing may sit in its boot loader: the owner is asked.
inline const std::string kIntermediateQuestion =
    "An intermediate software version will be uploaded to your controller, then it will reboot, generate and "
    "install the final firmware version. Proceed?";

// The update server makes the file.
inline const std::string kGenerating = "Firmware upgrade file is being generated on the server. Please wait..";

// The 1200-baud touch: the count-down while the boot loader is awaited (from
// 30), and the end when it never comes.
inline std::string bootLoaderCountdown(int secondsLeft)
{
    return "Waiting for device to go into programming mode.. (" + std::to_string(secondsLeft) + ")";
}
inline const std::string kNoBootLoader = "Unable to reset device into programming mode!";

// The last word of every upload that failed on the way.
inline const std::string kUploadError = "An error occured during firmware upload.";

} // namespace quendral::test
