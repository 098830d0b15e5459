#include "controller/controller_link.h"

#include "controller/controller_port.h"
#include "controller/port_access.h"
#include "log/logger.h"
#include "platform/dispatch.h"

#include <cmath>
#include <string>

namespace quendral {
namespace {

constexpr long kWaitCount = 20;

std::string withCount(const char* text, long count)
{
    return std::string(text) + " (" + std::to_string(count) + ")";
}

} // namespace

std::shared_ptr<ControllerLink> ControllerLink::create(OwnerFeedback& feedback, Clock& clock)
{
    return std::make_shared<ControllerLink>(feedback, clock);
}

ControllerLink::ControllerLink(OwnerFeedback& feedback, Clock& clock) : _feedback(feedback), _clock(clock) {}

SerialPort::Ptr ControllerLink::serial() const
{
    std::lock_guard lock(_serialMutex);
    return _serial;
}

void ControllerLink::setSerial(const SerialPort::Ptr& port)
{
    std::lock_guard lock(_serialMutex);
    _serial = port;
}

long ControllerLink::remainingCount(Clock::TimePoint start) const
{
    // 20 plus the (negative) time since the start, truncated toward zero: the
    // count follows the clock, so a slow pass skips numbers.
    const double sinceStart = std::chrono::duration<double>(start - _clock.now()).count();
    return kWaitCount + static_cast<long>(std::trunc(sinceStart));
}

bool ControllerLink::bringSerialToPath(const std::string& path)
{
    const SerialPort::Ptr port = serial();
    if (port && port->path() != path && port->isOpen()) {
        port->close();
    }
    // The close completes later: a port still closing counts as open here.
    return port && port->isOpen();
}

void ControllerLink::openPortForProtocol(const std::string& path, bool logOpening)
{
    if (logOpening) {
        Logger::log("Opening port..");
    }
    SerialPort::Ptr port = SerialPort::serialPortWithPath(path);
    {
        std::lock_guard lock(_serialMutex);
        _serial = port;
    }
    if (!port) {
        return; // nothing to open; the caller's writes fail and it times out
    }
    // The delegate comes after the open.
    openControllerPort(*port);
    if (!port->isOpen()) {
        noteOpenFailure(*port);
    }
    // A new session: whatever the previous one left unparsed (an old
    // "VERSION:" line waiting for the byte after it, another board's reply)
    // must not answer for this one. The open has waited for the last close,
    // so every delivery of the old session is queued by now.
    dispatch::mainQueue()->sync([this] { _parser.discardPending(); });
    port->setDelegate(shared_from_this());
}

void ControllerLink::noteOpenFailure(const SerialPort& port)
{
    if (!port.openWasDenied() || _accessDenied.exchange(true)) {
        return;
    }
    Logger::log("ERROR, permission denied on " + port.path());
    _feedback.alert(portAccessDeniedText(port.path()));
}

bool ControllerLink::sendCommand(const char* command)
{
    const SerialPort::Ptr port = serial();
    return port && port->sendData(std::string_view(command));
}

void ControllerLink::closeSerial()
{
    if (const SerialPort::Ptr port = serial()) {
        port->close();
    }
}

bool ControllerLink::requestCID(const std::string& path)
{
    if (!bringSerialToPath(path)) {
        openPortForProtocol(path, true);
    }
    const SerialPort::Ptr port = serial();
    if (!port || !port->isOpen()) {
        return false;
    }
    port->sendData(std::string_view("getCID\n"));
    port->sendData(std::string_view("getVersion\n"));
    return true;
}

std::optional<std::string> ControllerLink::getCID(const PortPath& selected)
{
    _state.setDeviceCID(std::nullopt);
    _state.setCurrentVersion(std::nullopt);
    _state.setDeviceMessage(std::nullopt);
    beginPortUse();
    const Clock::TimePoint start = _clock.now();
    long count = kWaitCount;
    _state.setSkipWait(false);

    while (count > 0 && !_state.skipWait() && !_accessDenied) {
        _feedback.status(withCount("Waiting for device to boot..", count));
        if (!requestCID(selected.currentOrEmpty()) && _accessDenied) {
            break;
        }
        _clock.sleepFor(Clock::Seconds(1.0));
        const auto message = _state.deviceMessage();
        if ((_state.deviceCID() && _state.currentVersion()) || message) {
            if (message) {
                _feedback.alert(*message);
            }
            break;
        }
        count = remainingCount(start);
    }

    _feedback.status("Please wait...");
    closeSerial();
    _clock.sleepFor(Clock::Seconds(1.0));
    _feedback.status("");
    return _state.deviceCID();
}

std::optional<std::string> ControllerLink::getIP(const PortPath& selected)
{
    _state.setDeviceIP(std::nullopt);
    beginPortUse();
    const Clock::TimePoint start = _clock.now();
    long count = kWaitCount;

    const std::string path = selected.currentOrEmpty();
    if (bringSerialToPath(path)) {
        return _state.deviceIP();
    }
    // The Controller enters configuration mode and announces its address to
    // whoever opens the port next.
    openPortForProtocol(path, false);
    sendCommand("config\n");
    closeSerial();
    if (_accessDenied) {
        return std::nullopt;
    }
    _clock.sleepFor(Clock::Seconds(2.0));
    openPortForProtocol(path, false);

    while (count > 0 && !_state.skipWait() && !_accessDenied) {
        _feedback.status(withCount("Waiting for device to enter configuration mode..", count));
        _clock.sleepFor(Clock::Seconds(1.0));
        if (_state.deviceIP()) {
            break;
        }
        count = remainingCount(start);
    }

    _feedback.status("Please wait...");
    closeSerial();
    _feedback.status("");
    return _state.deviceIP();
}

std::vector<std::string> ControllerLink::getIPConfig(const PortPath& selected)
{
    const Clock::TimePoint start = _clock.now();
    long count = kWaitCount;
    _state.resetIPDump();
    _state.setDumpingIP(false);
    beginPortUse();

    const std::string path = selected.currentOrEmpty();
    if (bringSerialToPath(path)) {
        return _state.ipDump();
    }
    openPortForProtocol(path, false);
    sendCommand("dumpIP\n");

    while (count > 0 && !_state.skipWait() && !_accessDenied) {
        _feedback.status(withCount("Waiting for controller to send IP configuration..", count));
        _clock.sleepFor(Clock::Seconds(1.0));
        if (_state.ipDumpCount() > 0 && !_state.dumpingIP()) {
            break;
        }
        count = remainingCount(start);
    }

    _feedback.status("Please wait...");
    closeSerial();
    _feedback.status("");
    // As far as it came: a dump cut off by the time-out still counts.
    return _state.ipDump();
}

std::optional<std::string> ControllerLink::toggleWebconfig(const PortPath& selected)
{
    _state.setDeviceIP(std::nullopt);
    beginPortUse();
    const long count = kWaitCount; // shown, never counted down

    const std::string path = selected.currentOrEmpty();
    if (!bringSerialToPath(path)) {
        openPortForProtocol(path, false);
        sendCommand("webconfig\n");
    }
    if (_accessDenied) {
        closeSerial();
        return std::nullopt;
    }
    _feedback.status(withCount("Waiting for device ..", count));
    _clock.sleepFor(Clock::Seconds(3.0));
    closeSerial();
    return _state.deviceIP();
}

} // namespace quendral

namespace quendral {

bool ControllerLink::respondsTo(SerialPortDelegateCallback callback) const
{
    return callback == SerialPortDelegateCallback::DidReceiveData ||
           callback == SerialPortDelegateCallback::WasRemovedFromSystem;
}

void ControllerLink::serialPortDidReceiveData(const std::shared_ptr<SerialPort>& /*port*/, const SerialData& data)
{
    _parser.receive(data);
}

void ControllerLink::serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& /*port*/) {}

} // namespace quendral
