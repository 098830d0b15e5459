#pragma once
// An AVR Controller in a umockdev USB tree: a simavr board running its real
// boot loader (the ATmega2560's stk500v2, the ATmega1284P's optiboot) and a
// program in flash, behind a tty with the USB identity the board has on an
// owner's machine. As on the real board, raising DTR resets the processor
// into its boot loader (the auto-reset capacitor); the boot loader waits a
// moment for avrdude, then starts the program in flash.
#include "avr_board.h"
#include "umockdev_testbed.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace quendral::sim {

struct AvrControllerOptions {
    AvrBoardKind kind = AvrBoardKind::Mega2560;
    std::string programHex; // what the flash holds at power-on; empty: nothing
    std::string ttyName = "ttyACM0";
    std::uint16_t vendorId = 0x26BA;
    std::uint16_t productId = 0x0003;
    std::string product = "QUENDRAL Controller";
};

class AvrController {
public:
    AvrController(UmockdevTestbed& testbed, AvrControllerOptions options);
    ~AvrController();
    AvrController(const AvrController&) = delete;
    AvrController& operator=(const AvrController&) = delete;

    bool start();
    void stop();

    [[nodiscard]] std::string devnode() const;
    [[nodiscard]] AvrBoard& board() { return *_board; }
    [[nodiscard]] unsigned resets() const { return _board->resetCount(); }
    // What the program in flash answers to "getCID\n" and "getVersion\n"
    // ("CID:... VERSION:..."), asked from a terminal that leaves DTR alone so
    // that the board is not reset; none when it does not answer. Ends the
    // auto-reset: ask last.
    [[nodiscard]] std::optional<std::string> askIdentity();

private:
    UmockdevTestbed& _testbed;
    AvrControllerOptions _options;
    std::unique_ptr<AvrBoard> _board;
    std::shared_ptr<UmockdevSerialDevice> _device;
    std::atomic<bool> _dtr{false};
    bool _started = false;
};

} // namespace quendral::sim
