#include "serial/arbitrary_baud_rate.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>

// <sys/ioctl.h> drags in the C library's termios structures; the prototype is all we need.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept;

namespace quendral {

int setArbitraryBaudRate(int fd, unsigned long baudRate)
{
    struct termios2 settings {};
    if (ioctl(fd, TCGETS2, &settings) != 0) {
        return -1;
    }
    settings.c_cflag &= ~static_cast<tcflag_t>(CBAUD | (CBAUD << IBSHIFT));
    settings.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
    settings.c_ispeed = static_cast<speed_t>(baudRate);
    settings.c_ospeed = static_cast<speed_t>(baudRate);
    return ioctl(fd, TCSETS2, &settings);
}

unsigned long arbitraryBaudRate(int fd)
{
    struct termios2 settings {};
    if (ioctl(fd, TCGETS2, &settings) != 0) {
        return 0;
    }
    return settings.c_ospeed;
}

} // namespace quendral
