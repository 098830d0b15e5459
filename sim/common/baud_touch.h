#pragma once
// The 1200-baud touch, the host's way of asking a native-USB board to restart
// into its boot loader: the host sets the line to 1200 baud and drops DTR,
// by closing the port or by a modem-line call at that speed. Boards see it
// from their end of the line in different ways (speed samples and the
// hang-up of a pseudo-terminal, the close a serial link notices, or the
// modem-line calls a umockdev ioctl handler sees); this is the one place
// that tells a touch from any other use of the port, and counts them.
//
// Not thread-safe: its owner guards it.
#include <optional>
#include <string>

namespace quendral::sim {

class BaudTouchDetector {
public:
    static constexpr unsigned long kTouchBaudRate = 1200;

    // The host's line speed, seen while it has the port open: a session has begun.
    void sawSpeed(unsigned long baud);
    // Whether the host has used the port since the last session ended.
    [[nodiscard]] bool inSession() const { return _inSession; }
    // The host set the modem lines with the line at `baud`: true (and
    // counted) when that is the touch.
    bool modemLinesSet(unsigned long baud);
    // The host closed the port, the line then at `baudNow` where the board
    // can tell: true (and counted) when the session it ends was the touch,
    // i.e. the line stood at 1200 baud in it. Ends the session.
    bool hostClosed(std::optional<unsigned long> baudNow = std::nullopt);

    [[nodiscard]] int touches() const { return _touches; }

private:
    bool _inSession = false;
    bool _sawTouchSpeed = false;
    int _touches = 0;
};

// The host's side, for tests: opens `port`, sets it to 1200 baud and closes
// it, as the application does. False if the port would not open.
bool touchAt1200Baud(const std::string& port);

} // namespace quendral::sim
