#pragma once
// Storing edited network settings on a Controller: the one write of the IP
// configuration window and the command line. The settings count as written
// only when every line of the sequence has left the computer; otherwise the
// caller learns which line failed and says so.
#include "controller/ip_settings.h"
#include "serial/serial_port.h"

#include <cstddef>
#include <memory>
#include <string>

namespace quendral::ipsettings {

struct WriteResult {
    enum class Outcome {
        Written,    // every line left the computer
        NoPort,     // no port on that path (it left the system)
        NotOpened,  // the port did not open
        LineFailed, // a line could not be sent; nothing after it went out
    };
    Outcome outcome = Outcome::NoPort;
    // The port written to, closing by now; none for NoPort.
    SerialPort::Ptr port;
    std::size_t lineCount = 0;  // lines in the sequence
    std::size_t failedLine = 0; // from 1, for LineFailed
    std::string failedText;     // that line, without its line feed

    // For the user, when a line failed: "The IP settings were not written:
    // line 6 of 11 (ipDevice1=192.168.10.60) could not be sent to the Controller."
    [[nodiscard]] std::string failureText() const;
};

// Opens the port on `path` as the Controller protocol does (115200 baud, DTR
// and RTS on; `delegate`, if any, set first), writes writeSequence(settings)
// one line at a time, each line waited for until it has left the computer,
// and closes the port. Logs the opening ("Opening serial port <path>") and a
// failed line.
//
// A line that fails ends the write: what follows it, "store" and "reset"
// above all, is not sent, so a Controller never stores settings it received
// only in part.
WriteResult writeSettings(const std::string& path, const Settings& settings,
                          const std::shared_ptr<SerialPortDelegate>& delegate = nullptr);

} // namespace quendral::ipsettings
