#pragma once
// A simulated Arduino-class AVR board: simavr running a real boot loader, its
// USART0 bridged onto a serial device end (a pty master, or later the device
// end of a umockdev tty), paced to the wall clock.
//
// The board resets into its boot loader when the peer opens the line (there is
// no DTR on a pty) or when resetNow() is called (a DTR handler), with MCUSR.EXTRF
// set as the reset pin would. Flash survives resets for the whole run and can be
// kept in a file, so a later run boots what was flashed before.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quendral::sim {

enum class AvrBoardKind {
    Mega2560,  // stk500v2 boot loader; avrdude -c wiring -b 115200
    Mega1284P, // optiboot; avrdude -c arduino -b 115200
};

struct AvrBoardOptions {
    AvrBoardKind kind = AvrBoardKind::Mega2560;
    std::string bootLoaderHex;              // empty: the one built with this project for the kind
    std::string flashFile;                  // raw flash image: loaded at start if it exists, saved after each session
    std::string programHex;                 // an application put into flash before start
    bool resetOnOpen = true;                // reset into the boot loader when the peer opens the line
    bool bootIntoBootLoader = false;        // the first start behaves like an external reset too
    bool mute = false;                      // failure mode: the board never answers (received bytes are lost)
    std::optional<uint32_t> stuckFlashByte; // failure mode: this flash byte never keeps the value written
    bool verbose = false;
};

class AvrBoard {
public:
    explicit AvrBoard(AvrBoardOptions options);
    ~AvrBoard();
    AvrBoard(const AvrBoard&) = delete;
    AvrBoard& operator=(const AvrBoard&) = delete;

    // Loads the boot loader (and flash file / program), then runs the board on
    // its own thread, talking on `fd` (not owned; must stay open until stop()).
    // peerPath: the peer's node for open detection by inotify (may be empty).
    bool start(int fd, const std::string& peerPath);
    void stop();
    const std::string& error() const { return error_; }

    // External reset (the DTR pulse): the boot loader starts with EXTRF set.
    void resetNow();
    unsigned resetCount() const { return resets_.load(); }
    // True while the core executes outside the boot section (the application,
    // or erased flash on its way to the boot loader).
    bool runningApplication() const { return inApplication_.load(); }

    std::vector<uint8_t> flash() const;
    uint32_t flashSize() const;
    bool saveFlash(const std::string& path) const;

    static const char* mcuName(AvrBoardKind kind);
    static std::string defaultBootLoader(AvrBoardKind kind);

private:
    struct Core;
    void run();

    AvrBoardOptions options_;
    std::unique_ptr<Core> core_;
    mutable std::mutex mutex_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> resetRequested_{false};
    std::atomic<unsigned> resets_{0};
    std::atomic<bool> inApplication_{false};
    uint32_t bootStart_ = 0;
    std::string error_;
};

} // namespace quendral::sim
