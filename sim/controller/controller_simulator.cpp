#include "controller_simulator.h"

#include "serial/arbitrary_baud_rate.h"
#include "write_all.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace quendral::sim {
namespace {

constexpr auto kHangUpRecheck = std::chrono::milliseconds(5);
// While the port is open the line speed is looked at this often (a touch with
// a delay of a second or more is seen by this alone).
constexpr auto kSpeedSample = std::chrono::milliseconds(5);
// Data sent the instant the port opens can meet the terminal still in its
// cooked, echoing mode; a real board takes longer than this to say anything.
constexpr auto kSettleAfterOpen = std::chrono::milliseconds(50);

} // namespace

ControllerSimulator::ControllerSimulator(int deviceEnd, Clock& clock) : _deviceEnd(deviceEnd), _clock(clock)
{
    _poweredOn = _clock.now();
}

std::unique_ptr<ControllerSimulator> ControllerSimulator::withPseudoTerminal(Clock& clock)
{
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
        if (master >= 0) {
            ::close(master);
        }
        return nullptr;
    }
    char name[128] = {};
    if (::ptsname_r(master, name, sizeof name) != 0) {
        ::close(master);
        return nullptr;
    }
    auto simulator = std::make_unique<ControllerSimulator>(master, clock);
    simulator->_ownsDeviceEnd = true;
    simulator->_portPath = name;
    return simulator;
}

ControllerSimulator::~ControllerSimulator()
{
    stop();
    if (_ownsDeviceEnd && _deviceEnd >= 0) {
        ::close(_deviceEnd);
    }
}

void ControllerSimulator::start()
{
    if (_thread.joinable()) {
        return;
    }
    {
        std::lock_guard lock(_mutex);
        _poweredOn = _clock.now();
    }
    _cancelFd = ::eventfd(0, EFD_CLOEXEC);
    _thread = std::thread([this] { run(); });
}

void ControllerSimulator::stop()
{
    if (!_thread.joinable()) {
        return;
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(_cancelFd, &one, sizeof one);
    _thread.join();
    ::close(_cancelFd);
    _cancelFd = -1;
}

// --- settings ---------------------------------------------------------------------

void ControllerSimulator::setCID(std::string cid)
{
    set(_protocol.cid, std::move(cid));
}

void ControllerSimulator::setVersion(std::string version)
{
    set(_protocol.version, std::move(version));
}

void ControllerSimulator::setMessage(std::optional<std::string> message)
{
    set(_protocol.message, std::move(message));
}

void ControllerSimulator::setAddress(std::string address)
{
    set(_protocol.address, std::move(address));
}

void ControllerSimulator::setIPDumpLines(std::vector<std::string> lines)
{
    set(_protocol.dumpLines, std::move(lines));
}

bool ControllerSimulator::webserverRunning() const
{
    std::lock_guard lock(_mutex);
    return _protocol.webserverRunning();
}

bool ControllerSimulator::inConfigurationMode() const
{
    std::lock_guard lock(_mutex);
    return _protocol.inConfigurationMode();
}

void ControllerSimulator::setBootDelay(Clock::Seconds delay)
{
    set(_bootDelay, std::move(delay));
}

void ControllerSimulator::setSilent(bool silent)
{
    set(_silent, std::move(silent));
}

void ControllerSimulator::setChunking(std::size_t chunkSize, std::chrono::milliseconds gap)
{
    std::lock_guard lock(_mutex);
    _chunkSize = chunkSize;
    _chunkGap = gap;
}

void ControllerSimulator::setTrailer(std::string trailer)
{
    set(_trailer, std::move(trailer));
}

// --- what it heard ------------------------------------------------------------------

std::vector<std::string> ControllerSimulator::receivedLines() const
{
    return get(_received);
}

std::size_t ControllerSimulator::countOf(const std::string& line) const
{
    std::lock_guard lock(_mutex);
    return static_cast<std::size_t>(std::count(_received.begin(), _received.end(), line));
}

bool ControllerSimulator::waitForLine(const std::string& line, std::chrono::milliseconds timeout,
                                      std::size_t count) const
{
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] {
        return static_cast<std::size_t>(std::count(_received.begin(), _received.end(), line)) >= count;
    });
}

void ControllerSimulator::clearReceivedLines()
{
    std::lock_guard lock(_mutex);
    _received.clear();
}

int ControllerSimulator::openCount() const
{
    return get(_openCount);
}

bool ControllerSimulator::isPortOpen() const
{
    return get(_portOpen);
}

bool ControllerSimulator::waitForPortOpen(bool open, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] { return _portOpen == open; });
}

// --- the 1200-baud touch ----------------------------------------------------------------

void ControllerSimulator::setTouchHandler(std::function<void()> handler)
{
    set(_touchHandler, std::move(handler));
}

unsigned long ControllerSimulator::lineSpeed() const
{
    return arbitraryBaudRate(_deviceEnd);
}

void ControllerSimulator::noteLineSpeed()
{
    const unsigned long speed = lineSpeed();
    std::lock_guard lock(_mutex);
    _touch.sawSpeed(speed);
}

int ControllerSimulator::touchCount() const
{
    std::lock_guard lock(_mutex);
    return _touch.touches();
}

bool ControllerSimulator::endSession()
{
    {
        std::lock_guard lock(_mutex);
        if (!_portOpen && !_touch.inSession()) {
            return false; // nobody has had it open: the hang-up of an unused pty
        }
    }
    // A hang-up seen just before an open must not end the session that open began.
    pollfd check{_deviceEnd, 0, 0};
    if (::poll(&check, 1, 0) < 0 || (check.revents & POLLHUP) == 0) {
        return false;
    }
    std::lock_guard lock(_mutex);
    const bool touched = _touch.hostClosed();
    if (touched) {
        _changed.notify_all();
    }
    return touched;
}

// --- serving the line -----------------------------------------------------------------

bool ControllerSimulator::hasBooted() const
{
    return _clock.now() - _poweredOn >= _bootDelay;
}

void ControllerSimulator::writeAll(std::string_view bytes)
{
    std::lock_guard writing(_writeMutex);
    // Fails with nobody listening (port closed): the bytes are lost, as on a wire.
    sim::writeAll(_deviceEnd, bytes);
}

void ControllerSimulator::sendRaw(std::string_view bytes)
{
    writeAll(bytes);
}

void ControllerSimulator::reply(const std::string& text)
{
    std::size_t chunkSize = 0;
    std::chrono::milliseconds gap{0};
    std::string bytes;
    {
        std::lock_guard lock(_mutex);
        chunkSize = _chunkSize;
        gap = _chunkGap;
        bytes = text + _trailer;
    }
    if (chunkSize == 0) {
        writeAll(bytes);
        return;
    }
    for (std::size_t offset = 0; offset < bytes.size(); offset += chunkSize) {
        if (offset > 0 && gap.count() > 0) {
            std::this_thread::sleep_for(gap);
        }
        writeAll(std::string_view(bytes).substr(offset, chunkSize));
    }
}

void ControllerSimulator::handleLine(const std::string& received)
{
    std::string line = received;
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    std::string answer;
    {
        std::lock_guard lock(_mutex);
        _received.push_back(line);
        _changed.notify_all();
        if (_silent || !hasBooted()) {
            return;
        }
        answer = _protocol.answer(line);
        if (line == "reset") {
            _poweredOn = _clock.now();
        }
    }
    if (!answer.empty()) {
        reply(answer);
    }
}

void ControllerSimulator::portOpened()
{
    std::string greeting;
    {
        std::lock_guard lock(_mutex);
        _portOpen = true;
        ++_openCount;
        _changed.notify_all();
        greeting = _protocol.portOpened();
        if (_silent) {
            greeting.clear();
        }
    }
    if (!greeting.empty()) {
        std::this_thread::sleep_for(kSettleAfterOpen);
        reply(greeting);
    }
}

void ControllerSimulator::run()
{
    std::string pending;
    for (;;) {
        bool open = false;
        {
            std::lock_guard lock(_mutex);
            open = _portOpen;
        }
        pollfd fds[2] = {{_deviceEnd, POLLIN, 0}, {_cancelFd, POLLIN, 0}};
        // While nobody has the port open the device end reports a hang-up
        // without pause, so look again every few milliseconds instead.
        const int ready = ::poll(fds, 2, static_cast<int>(open ? kSpeedSample.count() : kHangUpRecheck.count()));
        if (ready < 0 && errno != EINTR) {
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return;
        }
        if (open && (fds[0].revents & POLLHUP) == 0) {
            noteLineSpeed();
        }
        if ((fds[0].revents & POLLIN) != 0) {
            char buffer[1024];
            const ssize_t n = ::read(_deviceEnd, buffer, sizeof buffer);
            if (n > 0) {
                if (!open) {
                    portOpened(); // data comes only from an open port
                }
                pending.append(buffer, static_cast<std::size_t>(n));
                std::size_t newline = 0;
                while ((newline = pending.find('\n')) != std::string::npos) {
                    const std::string line = pending.substr(0, newline);
                    pending.erase(0, newline + 1);
                    handleLine(line);
                }
                continue;
            }
        }
        const bool hungUp = (fds[0].revents & POLLHUP) != 0;
        if (hungUp) {
            const bool touched = endSession();
            std::function<void()> touchHandler;
            {
                std::lock_guard lock(_mutex);
                if (_portOpen) {
                    _portOpen = false;
                    _changed.notify_all();
                }
                if (touched) {
                    touchHandler = _touchHandler;
                }
            }
            pending.clear();
            if (touchHandler) {
                touchHandler();
            }
            pollfd cancel = {_cancelFd, POLLIN, 0};
            if (::poll(&cancel, 1, static_cast<int>(kHangUpRecheck.count())) > 0) {
                return;
            }
            continue;
        }
        if (!open && ready == 0) {
            portOpened();
        }
    }
}

} // namespace quendral::sim
