#pragma once
// What the flashing-tool wrappers tell while a tool runs: the typed handlers
// their owner set (the firmware uploader's), and always two notifications on
// NotificationCenter::defaultCenter(), the wrapper as sender, for the main
// window that observes them.
//
//   "uploadState"     object: std::string, the status line to show
//   "uploadProgress"  object: int, the progress bar value in percent
//
// Observers read them with objectAs<std::string>() and objectAs<int>().
// The progress is passed on as the tools' output gives it, so it is 0..100 in
// practice but is not clamped (bossac's "1234%" yields 234).
#include <functional>
#include <string>

namespace quendral::upload {

inline constexpr const char* kStateNotification = "uploadState";
inline constexpr const char* kProgressNotification = "uploadProgress";

// Status texts, shown to the user exactly as written.
inline constexpr const char* kPreparingUpload = "Preparing upload...";
inline constexpr const char* kWritingFirmware = "Writing firmware...";
inline constexpr const char* kVerifyingFirmware = "Verifying firmware...";
inline constexpr const char* kIdentifyingDeviceType = "Identifying device type...";
inline constexpr const char* kFirmwareUpdated = "Firmware successfully updated!";
inline constexpr const char* kUpdateFailed = "An error occured during the firmware update";

// Both wrappers report a missing or non-executable tool with this one line.
inline constexpr const char* kNotExecutable = "Bossac: Not executable";

void postState(const void* sender, const std::string& text);
void postProgress(const void* sender, int percent);

// One wrapper's reports. The handlers are set before the tool starts and are
// called on the tool's reader thread, before the notification is posted.
class Reporter {
public:
    using StateHandler = std::function<void(const std::string& text)>;
    using ProgressHandler = std::function<void(int percent)>;

    explicit Reporter(const void* sender) : _sender(sender) {}
    void setHandlers(StateHandler state, ProgressHandler progress)
    {
        _onState = std::move(state);
        _onProgress = std::move(progress);
    }
    void state(const std::string& text) const;
    void progress(int percent) const;

private:
    const void* _sender;
    StateHandler _onState;
    ProgressHandler _onProgress;
};

} // namespace quendral::upload
