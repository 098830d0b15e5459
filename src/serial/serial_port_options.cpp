// SerialPort: applying the line settings and the output modem lines.
#include "serial/arbitrary_baud_rate.h"
#include "serial/serial_port.h"

#include <cerrno>
#include <sys/ioctl.h>
#include <termios.h>

namespace quendral {

namespace {

// The settings as they stood when the options were applied.
struct LineSettings {
    unsigned long baud = 0;
    bool allowsNonStandard = false;
    std::uint64_t stopBits = 1;
    bool echo = false;
    SerialPortParity parity = SerialPortParity::None;
    bool rtsCts = false;
};

// Raw 8-bit mode with the port's parity, stop bits, echo and flow control.
void describeLine(termios& options, const LineSettings& line)
{
    ::cfmakeraw(&options);
    // A read returns after the first byte, or 0.2 s of silence after a byte.
    options.c_cc[VMIN] = 1;
    options.c_cc[VTIME] = 2;
    options.c_cflag = (options.c_cflag & ~static_cast<tcflag_t>(CSIZE)) | CS8;
    switch (line.parity) {
    case SerialPortParity::None:
        options.c_cflag &= ~static_cast<tcflag_t>(PARENB);
        break;
    case SerialPortParity::Odd:
        options.c_cflag |= PARENB | PARODD;
        break;
    case SerialPortParity::Even:
        options.c_cflag |= PARENB;
        options.c_cflag &= ~static_cast<tcflag_t>(PARODD);
        break;
    }
    if (line.stopBits < 2) {
        options.c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
    } else {
        options.c_cflag |= CSTOPB;
    }
    if (line.echo) {
        options.c_lflag |= ECHO;
    } else {
        options.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    }
    // DTR/DSR and DCD output flow control have no Linux equivalent.
    if (line.rtsCts) {
        options.c_cflag |= CRTSCTS;
    } else {
        options.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    }
    options.c_cflag |= HUPCL | CLOCAL | CREAD;
    options.c_lflag &= ~static_cast<tcflag_t>(ICANON | ISIG);
}

// Sets the options with the line's speed; 0, or -1 with errno set.
int applyWithSpeed(int fd, termios& options, const LineSettings& line)
{
    // The C library knows only the table's speeds: an unknown rate fails
    // here already, where other systems fail it in tcsetattr. Either way it
    // counts as the standard call refusing the rate.
    int speedError = 0;
    if (::cfsetspeed(&options, static_cast<speed_t>(line.baud)) != 0) {
        speedError = errno;
    }
    int result = ::tcsetattr(fd, TCSANOW, &options);
    if (result == 0 && speedError != 0) {
        result = -1;
        errno = speedError;
    }
    if (result != 0 && line.allowsNonStandard) {
        result = setArbitraryBaudRate(fd, line.baud);
    }
    return result;
}

} // namespace

void SerialPort::setPortOptions()
{
    if (_fileDescriptor.load() < 1) {
        return; // applied at the next open
    }
    LineSettings line;
    {
        std::lock_guard lock(_mutex);
        line = {_baudRate, _allowsNonStandardBaudRates, _numberOfStopBits, _shouldEchoReceivedData,
                _parity,   _usesRTSCTSFlowControl};
    }

    // The descriptor must not be closed (and its number reused) while it is set up.
    std::unique_lock descriptorLock(_descriptorMutex);
    const int fd = _fileDescriptor.load();
    if (fd < 1) {
        return;
    }
    termios options{};
    ::tcgetattr(fd, &options);
    describeLine(options, line);
    const int result = applyWithSpeed(fd, options, line);
    const int error = errno;
    descriptorLock.unlock();
    if (result != 0) {
        errno = error;
        notifyDelegateOfPosixError();
    }
}

void SerialPort::updateModemLines()
{
    bool rts = false;
    bool dtr = false;
    {
        std::lock_guard lock(_mutex);
        rts = _rts;
        dtr = _dtr;
    }
    int error = 0;
    {
        // The descriptor must not be closed (and its number reused) under the ioctls.
        std::lock_guard lock(_descriptorMutex);
        const int fd = _fileDescriptor.load();
        if (fd < 1) {
            return;
        }
        int bits = 0;
        ::ioctl(fd, TIOCMGET, &bits);
        bits = rts ? (bits | TIOCM_RTS) : (bits & ~TIOCM_RTS);
        bits = dtr ? (bits | TIOCM_DTR) : (bits & ~TIOCM_DTR);
        if (::ioctl(fd, TIOCMSET, &bits) < 0) {
            error = errno;
        }
    }
    if (error != 0) {
        errno = error;
        notifyDelegateOfPosixError();
    }
}

} // namespace quendral
