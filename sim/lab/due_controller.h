#pragma once
// A KorbatekDue Controller in a umockdev USB tree, as an owner's machine sees
// it: running its firmware it is /dev/ttyACM<n> with USB identity 2341:003E
// and speaks the Controller's text protocol (the identity and version carried
// by the image in its flash); after the 1200-baud touch it re-enumerates as
// the SAM-BA boot loader 03EB:6124 on a new node, where the real bossac
// flashes it; after bossac's reset it comes back as 2341:003E with the
// identity of what was flashed.
#include "baud_touch.h"
#include "sam_board.h"
#include "umockdev_testbed.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace quendral::sim {

// Ways a board can be broken, for the paths where an update fails.
struct DueFaults {
    // After the 1200-baud touch the board leaves USB and never comes back.
    bool staysAwayAfterTouch = false;
    // This flash offset never keeps what is written (bossac's verify fails).
    std::optional<uint32_t> stuckFlashByte;
};

class DueController {
public:
    // `initialImage`: what the flash holds at power-on (a .bin or .hex test
    // image); empty: an erased board that sits in its boot loader.
    DueController(UmockdevTestbed& testbed, const std::string& initialImage, DueFaults faults = {});
    ~DueController();
    DueController(const DueController&) = delete;
    DueController& operator=(const DueController&) = delete;

    bool start();
    void stop();

    // The node the board has now ("/dev/ttyACM0", later "/dev/ttyACM1", ...).
    [[nodiscard]] std::string devnode() const;
    [[nodiscard]] SamMode mode() const { return _board.mode(); }
    [[nodiscard]] std::optional<ControllerIdentity> identity() const { return _board.identity(); }
    // How often it re-enumerated (each reset that changed its identity).
    [[nodiscard]] int enumerations() const;
    // Pulls the cable; the board stays unplugged.
    void unplug();
    [[nodiscard]] bool unplugged() const;

    // Moments of an update at which the board pulls its own cable, so that a
    // test meets each of them exactly rather than by timing.
    enum class UnplugMoment {
        Never,
        // The running firmware has been asked "getCID" and has not answered.
        WhenAskedForCID,
        // The host closes the running firmware's port (its TIOCNXCL, the next
        // close after arming): the node is gone before the host can open it
        // again, e.g. for the 1200-baud touch that follows "prepareUpload".
        AtNextClose,
        // The host's 1200-baud touch: the host's call that sets the modem lines
        // at 1200 baud fails, and the board does not reset.
        AtTouch,
        // The USB reset after the touch: the running firmware's node has left,
        // the boot loader's node never comes.
        DuringReset,
    };
    // Arms one moment (once); Never disarms.
    void unplugAt(UnplugMoment moment);
    [[nodiscard]] SamBoard& board() { return _board; }

private:
    void reenumerate();
    std::shared_ptr<UmockdevSerialDevice> plugIn(SamMode mode);
    // True once when `moment` is armed (and disarms it).
    bool takeMoment(UnplugMoment moment);

    UmockdevTestbed& _testbed;
    SamBoard _board;
    const bool _hasFirmware;
    const DueFaults _faults;
    const int _usbPort;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::shared_ptr<UmockdevSerialDevice> _device;
    int _nextNumber = 0;
    int _enumerations = 0;
    int _pendingModeChanges = 0;
    BaudTouchDetector _touch;
    SamMode _currentMode = SamMode::BootLoader;
    bool _stopping = false;
    bool _unplugged = false;
    bool _unplugRequested = false;
    std::atomic<UnplugMoment> _unplugAt{UnplugMoment::Never};
    std::thread _worker;
};

} // namespace quendral::sim
