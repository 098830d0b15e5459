#include "baud_touch.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace quendral::sim {

void BaudTouchDetector::sawSpeed(unsigned long baud)
{
    _inSession = true;
    if (baud == kTouchBaudRate) {
        _sawTouchSpeed = true;
    }
}

bool BaudTouchDetector::modemLinesSet(unsigned long baud)
{
    if (baud != kTouchBaudRate) {
        return false;
    }
    ++_touches;
    return true;
}

bool BaudTouchDetector::hostClosed(std::optional<unsigned long> baudNow)
{
    const bool touched = _sawTouchSpeed || baudNow == kTouchBaudRate;
    _inSession = false;
    _sawTouchSpeed = false;
    if (touched) {
        ++_touches;
    }
    return touched;
}

bool touchAt1200Baud(const std::string& port)
{
    const int fd = ::open(port.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    termios tio{};
    ::tcgetattr(fd, &tio);
    ::cfsetispeed(&tio, B1200);
    ::cfsetospeed(&tio, B1200);
    ::tcsetattr(fd, TCSANOW, &tio);
    ::close(fd);
    return true;
}

} // namespace quendral::sim
