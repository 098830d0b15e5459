// SerialPort: open, close, sending, the reader and the modem-line poll.
#include "serial/serial_port.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace quendral {

// The read source of an open port: a thread that waits on the descriptor and
// on an eventfd that close() signals. When it stops, it closes the port for
// real, as a cancelled read source would.
struct SerialPort::ReadSource {
    int cancelFd = -1;
    std::atomic<bool> cancelled{false};

    void cancel()
    {
        if (!cancelled.exchange(true)) {
            const std::uint64_t one = 1;
            [[maybe_unused]] const ssize_t n = ::write(cancelFd, &one, sizeof one);
        }
    }
};

namespace {

constexpr std::size_t kReadChunkSize = 1024;
constexpr auto kPinPollInterval = std::chrono::milliseconds(10);
constexpr auto kPinPollLeeway = std::chrono::milliseconds(5);

bool isVanishedDeviceError(int error)
{
    return error == EIO || error == ENXIO;
}
bool isMissingModemLinesError(int error)
{
    return error == ENOTTY || error == EINVAL;
}

} // namespace

void SerialPort::setFileDescriptor(int fd)
{
    _fileDescriptor.store(fd);
    notifyPropertyObservers(SerialPortProperty::IsOpen);
}

namespace {

// The node opened for this program's exclusive use, blocking from then on:
// the descriptor, or -1 with errno set.
int openExclusively(const std::string& path)
{
    // A port that has left the system fails here with the errno its open
    // would give, without an open: the 1200-baud touch retries without pause
    // until the removal is reported, and umockdev's preload (our device lab)
    // aborts the process after about fifty failed opens of a missing node.
    struct stat node {};
    if (::stat(path.c_str(), &node) != 0) {
        return -1;
    }
    // Non-blocking so that the open does not wait for carrier; close-on-exec
    // so that the flashing tools we start never inherit the port.
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 1) {
        const int error = fd == 0 ? EBADF : errno;
        if (fd == 0) {
            ::close(fd); // 0 marks a closed port and is never accepted
        }
        errno = error;
        return -1;
    }
    // Exclusive use: TIOCEXCL keeps out other openers (root excepted), flock
    // keeps out every cooperating program, root's included.
    ::ioctl(fd, TIOCEXCL);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno == EWOULDBLOCK ? EBUSY : errno;
        ::ioctl(fd, TIOCNXCL);
        ::close(fd);
        errno = error;
        return -1;
    }
    ::fcntl(fd, F_SETFL, 0);
    return fd;
}

} // namespace

void SerialPort::open()
{
    if (isOpen() && !waitForPendingClose()) {
        return;
    }
    if (isOpen()) {
        return;
    }
    const auto failed = [this](int error) {
        errno = error;
        _lastOpenError = error;
        notifyDelegateOfPosixError();
    };
    const int fd = openExclusively(_path);
    if (fd < 0) {
        failed(errno);
        return;
    }

    auto source = std::make_shared<ReadSource>();
    source->cancelFd = ::eventfd(0, EFD_CLOEXEC);
    if (source->cancelFd < 0) {
        const int error = errno;
        ::ioctl(fd, TIOCNXCL);
        ::close(fd);
        failed(error);
        return;
    }

    {
        std::lock_guard lock(_mutex);
        _vanishReported = std::make_shared<std::atomic<bool>>(false);
    }
    _lastOpenError = 0;
    setFileDescriptor(fd);
    {
        termios original{};
        ::tcgetattr(fd, &original);
        std::lock_guard lock(_mutex);
        _originalPortAttributes = original;
    }
    setPortOptions();
    updateModemLines();

    const Ptr self = shared_from_this();
    if (auto target = delegate(); target && target->respondsTo(SerialPortDelegateCallback::WasOpened)) {
        dispatch::mainQueue()->async([self, target] { target->serialPortWasOpened(self); });
    }

    {
        std::lock_guard lock(_mutex);
        _readPollSource = source;
    }
    std::thread([self, source] { self->readLoop(source); }).detach();
    startPinPoll();
}

bool SerialPort::close()
{
    if (!isOpen()) {
        return true;
    }
    std::shared_ptr<ReadSource> source;
    {
        std::lock_guard lock(_mutex);
        source = std::move(_readPollSource);
    }
    if (source) {
        {
            std::lock_guard lock(_closeMutex);
            _closePending = true;
        }
        source->cancel(); // the reader finishes the close (reallyClosePort)
    }
    return true;
}

bool SerialPort::waitForPendingClose()
{
    // Bounded: a reader stuck on a dead line must not freeze the caller.
    constexpr auto kLongestClose = std::chrono::seconds(3);
    std::unique_lock lock(_closeMutex);
    return _closeFinished.wait_for(lock, kLongestClose, [this] { return !_closePending; });
}

void SerialPort::markCloseFinished()
{
    {
        std::lock_guard lock(_closeMutex);
        _closePending = false;
    }
    _closeFinished.notify_all();
}

bool SerialPort::sendData(std::string_view text)
{
    return sendData(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

bool SerialPort::sendData(std::span<const std::uint8_t> data)
{
    if (!isOpen()) {
        return false;
    }
    if (data.empty()) {
        return true;
    }
    const SerialData copy(data.begin(), data.end());
    std::size_t offset = 0;
    while (offset < copy.size()) {
        const ssize_t written = ::write(_fileDescriptor.load(), copy.data() + offset, copy.size() - offset);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            notifyDelegateOfPosixError();
            return false;
        }
        offset += static_cast<std::size_t>(written);
    }
    return true;
}

bool SerialPort::waitUntilSent(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (isOpen()) {
        int queued = 0;
        if (::ioctl(_fileDescriptor.load(), TIOCOUTQ, &queued) != 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == ENOTTY || errno == EINVAL) {
                return true; // a device without an output queue: nothing can wait in it
            }
            notifyDelegateOfPosixError();
            return false;
        }
        if (queued == 0) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

void SerialPort::receiveData(SerialData data)
{
    const Ptr self = shared_from_this();
    // One copy of the bytes for both queues.
    auto chunk = std::make_shared<const SerialData>(std::move(data));
    if (auto target = delegate(); target && target->respondsTo(SerialPortDelegateCallback::DidReceiveData)) {
        dispatch::mainQueue()->async([self, target, chunk] { target->serialPortDidReceiveData(self, *chunk); });
    }
    // Packets and responses are looked for after the data callback was
    // posted. When nothing listens and the request queue has nothing running
    // or waiting, that look would find nothing to do: the chunk skips the
    // hop (a thread hand-over per chunk on a flooded port). Whatever is
    // queued there first (a descriptor being added, a request being sent)
    // keeps the chunk behind it.
    _requestHandlingQueue->asyncUnlessIdleAnd([this] { return receivedBytesHaveNowhereToGo(); },
                                              [self, chunk] { self->handleReceivedChunk(*chunk); });
}

void SerialPort::readLoop(const std::shared_ptr<ReadSource>& source)
{
    const int fd = _fileDescriptor.load();
    bool vanished = false;
    while (!source->cancelled.load()) {
        pollfd fds[2] = {{fd, static_cast<short>(vanished ? 0 : POLLIN), 0}, {source->cancelFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if ((fds[1].revents & POLLIN) != 0 || source->cancelled.load()) {
            break;
        }
        if (vanished) {
            continue;
        }
        if ((fds[0].revents & POLLIN) != 0 && isOpen()) {
            std::uint8_t buffer[kReadChunkSize];
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n > 0) {
                receiveData(SerialData(buffer, buffer + n));
                continue;
            }
            // A terminal in blocking mode reads 0 bytes only once hung up.
            if (n == 0 || isVanishedDeviceError(errno)) {
                vanished = true;
                handleDeviceVanished(n == 0 ? EIO : errno);
            }
            continue;
        }
        if ((fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            vanished = true;
            handleDeviceVanished(EIO);
        }
    }
    ::close(source->cancelFd);
    reallyClosePort();
}

void SerialPort::handleDeviceVanished(int error)
{
    std::shared_ptr<std::atomic<bool>> reported;
    {
        std::lock_guard lock(_mutex);
        reported = _vanishReported;
    }
    if (!reported || reported->exchange(true)) {
        return;
    }
    stopPinPoll();
    errno = error;
    notifyDelegateOfPosixErrorWaitingUntilDone(true);
    cleanupAfterSystemRemoval();
}

void SerialPort::reallyClosePort()
{
    stopPinPoll();
    const int fd = _fileDescriptor.load();
    if (fd < 1) {
        markCloseFinished();
        return;
    }
    // Drop hardware handshake first so that a pending write cannot hang the
    // close on a dead line, then restore what we found at open.
    termios options{};
    ::tcgetattr(fd, &options);
    options.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    ::tcsetattr(fd, TCSANOW, &options);
    const termios original = originalPortAttributes();
    ::tcsetattr(fd, TCSADRAIN, &original);
    ::ioctl(fd, TIOCNXCL);
    {
        std::unique_lock lock(_descriptorMutex);
        if (::close(fd) != 0) {
            const int error = errno;
            lock.unlock();
            markCloseFinished();
            errno = error;
            notifyDelegateOfPosixError();
            return;
        }
        _fileDescriptor.store(0);
    }
    const Ptr self = shared_from_this();
    auto target = delegate();
    const bool tellDelegate = target && target->respondsTo(SerialPortDelegateCallback::WasClosed);
    if (tellDelegate) {
        // Queued before a waiting open() can queue requests of the next session.
        _requestHandlingQueue->async([self] { self->resetRequestsAfterClose(); });
    }
    // Before the delegate hears of it on the main queue: an open() waiting
    // there must not hold up the very queue the close is reported on.
    markCloseFinished();
    notifyPropertyObservers(SerialPortProperty::IsOpen);
    if (tellDelegate) {
        dispatch::mainQueue()->sync([self, target] { target->serialPortWasClosed(self); });
    }
}

// --- the modem-line poll -------------------------------------------------------

void SerialPort::startPinPoll()
{
    // Firings must not pile up behind a busy main queue: one at a time.
    auto busy = std::make_shared<std::atomic<bool>>(false);
    std::weak_ptr<SerialPort> weakSelf = weak_from_this();
    auto timer = dispatch::Timer::create(dispatch::globalQueue(), dispatch::Duration::zero(), kPinPollInterval,
                                         kPinPollLeeway, [weakSelf, busy] {
                                             const Ptr self = weakSelf.lock();
                                             if (!self || busy->exchange(true)) {
                                                 return;
                                             }
                                             self->pollModemLines();
                                             busy->store(false);
                                         });
    dispatch::TimerPtr previous;
    {
        std::lock_guard lock(_mutex);
        previous = std::exchange(_pinPollTimer, timer);
    }
    if (previous) {
        previous->cancel();
    }
    timer->resume();
}

void SerialPort::stopPinPoll()
{
    dispatch::TimerPtr timer;
    {
        std::lock_guard lock(_mutex);
        timer = std::move(_pinPollTimer);
    }
    if (timer) {
        timer->cancel();
    }
}

void SerialPort::pollModemLines()
{
    int bits = 0;
    int result = 0;
    {
        // Keeps reallyClosePort from closing (and the number from being reused) under the ioctl.
        std::lock_guard lock(_descriptorMutex);
        if (!isOpen()) {
            result = 1;
        } else if (::ioctl(_fileDescriptor.load(), TIOCMGET, &bits) != 0) {
            result = -1;
        }
    }
    if (result > 0) {
        stopPinPoll();
        return;
    }
    if (result < 0) {
        const int error = errno;
        if (isVanishedDeviceError(error)) {
            handleDeviceVanished(error);
        } else if (isMissingModemLinesError(error)) {
            // A device without modem lines: say so once, then leave its lines alone.
            stopPinPoll();
            notifyDelegateOfPosixError();
        } else {
            notifyDelegateOfPosixError();
        }
        return;
    }
    const bool cts = (bits & TIOCM_CTS) != 0;
    const bool dsr = (bits & TIOCM_DSR) != 0;
    const bool dcd = (bits & TIOCM_CAR) != 0;
    const Ptr self = shared_from_this();
    if (cts != CTS()) {
        dispatch::mainQueue()->sync([self, cts] { self->setCTS(cts); });
    }
    if (dsr != DSR()) {
        dispatch::mainQueue()->sync([self, dsr] { self->setDSR(dsr); });
    }
    if (dcd != DCD()) {
        dispatch::mainQueue()->sync([self, dcd] { self->setDCD(dcd); });
    }
}

} // namespace quendral
