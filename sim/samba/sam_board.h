#pragma once
// A simulated SAM3X8E Controller board (an Arduino Due on its native USB port)
// on a serial device end: in its boot loader it is the SAM-BA monitor that
// bossac drives (USB 03EB:6124); after a reset with boot-from-flash set it runs
// what was flashed (USB 2341:003E): if that carries a Controller identity, it
// is a Controller with that identity and answers the whole text protocol
// (controller_protocol.h, the serial monitor's service commands included),
// otherwise it stays silent.
//
// The 1200-baud touch (the peer sets 1200 baud, then closes the line) while the
// application runs clears boot-from-flash and resets the chip into SAM-BA, as the
// Arduino core does. A device lab that has to change the USB identity watches the
// mode with setModeObserver() and moves the board to a new device end with attach().

#include "controller_image.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quendral::sim {

enum class SamMode {
    BootLoader,  // SAM-BA in ROM
    Application, // running the flash
};

struct SamBoardOptions {
    std::string flashFile;    // raw 512 KiB flash: loaded at start if it exists, written after every reset and at stop
    std::string initialImage; // a .bin (or .hex, as bossac would write it) put at the start of flash
    bool bootFromFlash = false;             // GPNVM1 at power-on: start in the application
    bool mute = false;                      // failure mode: never answers, in either mode
    std::optional<uint32_t> stuckFlashByte; // failure mode: this flash offset never keeps what is written
    bool verbose = false;
};

class SamBoard {
public:
    using ModeObserver = std::function<void(SamMode)>;
    // Sees each line the running application receives before it is answered;
    // false keeps the application silent on it. Called on the board's thread
    // with the board locked: it must not call back into the board.
    using LineFilter = std::function<bool(const std::string& line)>;

    explicit SamBoard(SamBoardOptions options);
    ~SamBoard();
    SamBoard(const SamBoard&) = delete;
    SamBoard& operator=(const SamBoard&) = delete;

    // Runs on its own thread on `fd` (not owned). peerPath: the peer's node for
    // open/close detection by inotify (may be empty: hang-up polling).
    bool start(int fd, const std::string& peerPath);
    void stop();
    const std::string& error() const { return error_; }

    // Moves the board to another device end (the new node after re-enumeration).
    void attach(int fd, const std::string& peerPath);
    // Called on the board's thread after every reset, with the mode it came up in.
    void setModeObserver(ModeObserver observer);
    void setLineFilter(LineFilter filter);
    // From now on the board answers nothing, in either mode (as `mute`): a
    // peer waiting for a reply keeps waiting.
    void silence() { silenced_ = true; }

    void resetNow();  // the reset button: boots by GPNVM1
    void touch1200(); // what the 1200-baud touch does (also detected on the line)

    SamMode mode() const { return mode_.load(); }
    uint16_t usbVendorId() const { return mode() == SamMode::BootLoader ? 0x03EB : 0x2341; }
    uint16_t usbProductId() const { return mode() == SamMode::BootLoader ? 0x6124 : 0x003E; }
    std::optional<ControllerIdentity> identity() const;
    unsigned resetCount() const { return resets_.load(); }
    bool bootFromFlash() const;

    std::vector<uint8_t> flash() const;
    bool saveFlash(const std::string& path) const;

private:
    struct State;
    void run();
    void wake();
    void reboot();
    void serveApplication();

    SamBoardOptions options_;
    std::unique_ptr<State> state_;
    mutable std::mutex mutex_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> resetRequested_{false};
    std::atomic<bool> touchRequested_{false};
    std::atomic<bool> silenced_{false};
    std::atomic<SamMode> mode_{SamMode::BootLoader};
    std::atomic<unsigned> resets_{0};
    std::string error_;
};

} // namespace quendral::sim
