#include "serial_link.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <termios.h>
#include <unistd.h>

namespace quendral::sim {

SerialLink::SerialLink(int fd, std::string peerPath) : fd_(fd), peerPath_(std::move(peerPath))
{
    // Never block on the device end (a umockdev test bed hands out a blocking one):
    // a board thread stuck in read() or write() would freeze the whole board.
    int flags = fcntl(fd_, F_GETFL);
    if (flags >= 0 && !(flags & O_NONBLOCK)) {
        fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
    }
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (!peerPath_.empty()) {
        inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (inotify_ >= 0 && inotify_add_watch(inotify_, peerPath_.c_str(), IN_OPEN | IN_CLOSE) < 0) {
            close(inotify_);
            inotify_ = -1;
        }
    }
    pollHangup();
    opens_ = 0;
    closes_ = 0;
}

SerialLink::~SerialLink()
{
    if (inotify_ >= 0) {
        close(inotify_);
    }
    if (wakeFd_ >= 0) {
        close(wakeFd_);
    }
}

unsigned SerialLink::baud() const
{
    termios tio{};
    if (tcgetattr(fd_, &tio) != 0) {
        return 0;
    }
    switch (cfgetospeed(&tio)) {
    case B300:
        return 300;
    case B1200:
        return 1200;
    case B2400:
        return 2400;
    case B4800:
        return 4800;
    case B9600:
        return 9600;
    case B19200:
        return 19200;
    case B38400:
        return 38400;
    case B57600:
        return 57600;
    case B115200:
        return 115200;
    case B230400:
        return 230400;
    case B460800:
        return 460800;
    case B921600:
        return 921600;
    default:
        return 0;
    }
}

unsigned SerialLink::takeOpens()
{
    unsigned n = opens_;
    opens_ = 0;
    return n;
}

unsigned SerialLink::takeCloses()
{
    unsigned n = closes_;
    closes_ = 0;
    return n;
}

void SerialLink::wake()
{
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
}

void SerialLink::send(const uint8_t* data, size_t size)
{
    if (!peerOpen_) {
        return; // nobody listens: the bytes are gone, as on a real line
    }
    output_.insert(output_.end(), data, data + size);
    flushOutput();
}

void SerialLink::pollHangup()
{
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 0) < 0) {
        return;
    }
    bool open = (p.revents & POLLHUP) == 0;
    if (open == peerOpen_) {
        return;
    }
    peerOpen_ = open;
    if (!open) {
        output_.clear();
    }
    // With a watched node, inotify counts opens and closes (also those too quick
    // to be seen here); otherwise the state change is the event.
    if (inotify_ < 0) {
        ++(open ? opens_ : closes_);
    }
}

void SerialLink::readInotify()
{
    alignas(inotify_event) char buf[4096];
    for (;;) {
        ssize_t n = read(inotify_, buf, sizeof buf);
        if (n <= 0) {
            return;
        }
        for (ssize_t off = 0; off < n;) {
            auto* ev = reinterpret_cast<inotify_event*>(buf + off);
            if (ev->mask & IN_OPEN) {
                ++opens_;
            }
            if (ev->mask & IN_CLOSE) {
                ++closes_;
            }
            off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
        }
    }
}

void SerialLink::readInput()
{
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = read(fd_, buf, sizeof buf);
        if (n > 0) {
            input_.insert(input_.end(), buf, buf + n);
            continue;
        }
        return; // EAGAIN, or EIO while the peer is away
    }
}

void SerialLink::flushOutput()
{
    while (!output_.empty()) {
        ssize_t n = write(fd_, output_.data(), output_.size());
        if (n > 0) {
            output_.erase(output_.begin(), output_.begin() + n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        return; // full: the rest waits for POLLOUT
    }
}

void SerialLink::pump(int timeoutMs)
{
    pollfd fds[3];
    nfds_t count = 0;
    // While the peer is away the device end reports POLLHUP without pause, so it
    // is only polled with a zero timeout below, not waited on.
    if (peerOpen_) {
        fds[count++] = {fd_, static_cast<short>(POLLIN | (output_.empty() ? 0 : POLLOUT)), 0};
    }
    if (inotify_ >= 0) {
        fds[count++] = {inotify_, POLLIN, 0};
    }
    fds[count++] = {wakeFd_, POLLIN, 0};
    if (poll(fds, count, timeoutMs) > 0) {
        uint64_t v;
        [[maybe_unused]] ssize_t n = read(wakeFd_, &v, sizeof v);
    }
    if (inotify_ >= 0) {
        readInotify();
    }
    pollHangup();
    // What the peer wrote just before it closed is still there to be read (a
    // tool's last command, e.g. bossac's reset): read even after the hang-up.
    readInput();
    if (peerOpen_) {
        flushOutput();
    }
}

} // namespace quendral::sim
