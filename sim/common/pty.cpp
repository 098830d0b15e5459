#include "pty.h"

#include <cstdlib>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace quendral::sim {

Pty openPty()
{
    Pty pty;
    int fd = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return pty;
    }
    if (grantpt(fd) != 0 || unlockpt(fd) != 0) {
        close(fd);
        return pty;
    }
    char name[128];
    if (ptsname_r(fd, name, sizeof name) != 0) {
        close(fd);
        return pty;
    }
    // The line discipline settings live on the pair; raw from the start so that
    // a peer that never sets them (a quick test client) gets no echo or newline mapping.
    makeRaw(fd);
    // A slave that was never opened shows no hang-up on the master; one open and
    // close puts the pair into the state it has after any peer has left.
    int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave >= 0) {
        close(slave);
    }
    pty.master = fd;
    pty.slavePath = name;
    return pty;
}

void makeRaw(int fd)
{
    termios tio{};
    if (tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        cfsetispeed(&tio, B115200);
        cfsetospeed(&tio, B115200);
        tcsetattr(fd, TCSANOW, &tio);
    }
}

} // namespace quendral::sim
