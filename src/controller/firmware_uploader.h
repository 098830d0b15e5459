#pragma once
// The firmware uploader: puts a firmware file onto the board on a port. The
// file is checked against the board first; then the firmware hears
// "prepareUpload", the board goes into its boot loader where it needs to (the
// 1200-baud touch and a wait for its boot-loader port), and avrdude or bossac
// writes it. The tools' status texts and progress reach the owner as they run.
//
// Threading: flashFile blocks its caller (background only).
// flashingToolRunning() may be asked from any thread.
#include "controller/controller_link.h"
#include "controller/owner_feedback.h"
#include "controller/port_path.h"
#include "controller/update_outcome.h"
#include "flashing/board_table.h"
#include "platform/clock.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quendral {

class AvrdudeWrapper;
class BossacWrapper;

class FirmwareUploader {
public:
    // `link` keeps the port the preparation and the touch use, and hears of a
    // port this user may not open; both it and `feedback` outlive the uploader.
    FirmwareUploader(ControllerLink& link, OwnerFeedback& feedback, Clock& clock = systemClock());
    ~FirmwareUploader();
    FirmwareUploader(const FirmwareUploader&) = delete;
    FirmwareUploader& operator=(const FirmwareUploader&) = delete;

    // Updated when the tool reported success; ImageRejected when the file
    // failed its check and PortAccessDenied when the port may not be opened
    // (nothing touched then); UploadFailed otherwise.
    UpdateOutcome flashFile(const PortPath& port, const std::string& hexFile);

    // True from the boot-loader reset until the tool has finished writing.
    [[nodiscard]] bool flashingToolRunning() const { return _flashingToolRuns.load() > 0; }

    // The combined USB identifier of the board on `path`, asked for up to ten
    // times (a port can be between two states of the registry).
    [[nodiscard]] static CombinedUsbIdentifier identifyBoard(const std::string& path);

private:
    // The re-appearance wait: up to 30 s for a port with one of the wanted
    // identifiers (on `usbSocket` alone when it is known), which is then
    // flashed with the tool.
    bool waitForBootloaderAndFlash(const std::string& hexFile, const std::vector<CombinedUsbIdentifier>& wanted,
                                   FlashingTool tool, const std::optional<std::string>& usbSocket);
    bool runAvrdude(const std::string& hexFile, const std::string& path, CombinedUsbIdentifier code);
    bool runBossac(const std::string& hexFile, const std::string& path);
    // Tells the firmware on `path` that an update follows; no answer is read.
    void sendPrepareUpload(const std::optional<std::string>& path);

    // Counts a flashing tool's run for as long as it lives.
    class FlashingToolRun {
    public:
        explicit FlashingToolRun(std::atomic<int>& runs) : _runs(runs) { ++_runs; }
        ~FlashingToolRun() { --_runs; }
        FlashingToolRun(const FlashingToolRun&) = delete;
        FlashingToolRun& operator=(const FlashingToolRun&) = delete;
        FlashingToolRun(FlashingToolRun&&) = delete;
        FlashingToolRun& operator=(FlashingToolRun&&) = delete;

    private:
        std::atomic<int>& _runs;
    };

    ControllerLink& _link;
    OwnerFeedback& _feedback;
    Clock& _clock;
    // The wrappers of the current run, kept until the next (as the tools' last
    // reports may still arrive).
    std::mutex _toolsMutex;
    std::shared_ptr<AvrdudeWrapper> _avrdude;
    std::shared_ptr<BossacWrapper> _bossac;
    std::atomic<int> _flashingToolRuns{0};
};

} // namespace quendral
