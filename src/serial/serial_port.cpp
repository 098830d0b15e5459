// SerialPort: creation, the registry look-ups, properties and delegate plumbing.
#include "serial/serial_port.h"

#include "log/logger.h"
#include "serial/serial_port_registry.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace quendral {
namespace {

// Programming errors of the serial layer stop the program with a fixed text.
[[noreturn]] void assertionFailure(const char* text)
{
    std::fprintf(stderr, "%s\n", text);
    std::fflush(stderr);
    std::abort();
}

} // namespace

// --- creation ---------------------------------------------------------------

SerialPort::Ptr SerialPort::serialPortWithPath(const std::string& path)
{
    DeviceHandle device = deviceFromBSDPath(path);
    if (!device) {
        return nullptr;
    }
    return initWithDevice(device);
}

SerialPort::Ptr SerialPort::serialPortWithDevice(const DeviceHandle& device)
{
    return initWithDevice(device);
}

SerialPort::Ptr SerialPort::initWithDevice(const DeviceHandle& device)
{
    if (!device) {
        assertionFailure("initWithDevice: requires non-zero device argument.");
    }
    const std::string path = bsdCalloutPathFromDevice(device).value_or("");
    auto guard = serial_port_registry::lock();
    if (Ptr existing = serial_port_registry::existingPortWithPathLocked(path)) {
        if (existing->IOKitDevice() != device) {
            existing->setIOKitDevice(device);
        }
        return existing;
    }
    Ptr port(new SerialPort(device, path, modemNameFromDevice(device).value_or("")));
    serial_port_registry::addSerialPortLocked(port);
    return port;
}

SerialPort::SerialPort(const DeviceHandle& device, std::string path, std::string name)
    : _path(std::move(path)), _name(std::move(name)),
      _requestHandlingQueue(dispatch::makeSerialQueue("com.quendral.firmwareupdater.SerialPort.requestHandlingQueue"))
{
    setIoKitDevice(device);
    // The defaults, in this order: 19200 baud, standard rates only, one stop
    // bit, no parity, no echo, no flow control, RTS and DTR off. They are the
    // member initialisers; nothing is open yet, so nothing reaches a device.
}

SerialPort::~SerialPort()
{
    serial_port_registry::removeSerialPort(this);
    // An open port is kept alive by its reader, so here it is closed already;
    // the line poll may still have a timer object to let go of.
    std::lock_guard lock(_mutex);
    _device = nullptr;
    if (_pinPollTimer) {
        _pinPollTimer->cancel();
    }
}

std::vector<SerialPort::Ptr> SerialPort::allSerialPorts()
{
    return serial_port_registry::allSerialPorts();
}

SerialPort::Ptr SerialPort::existingPortWithPath(const std::string& path)
{
    auto guard = serial_port_registry::lock();
    return serial_port_registry::existingPortWithPathLocked(path);
}

// --- registry look-ups -------------------------------------------------------

DeviceHandle SerialPort::deviceFromBSDPath(const std::string& path)
{
    if (path.empty()) {
        return nullptr;
    }
    const auto matches = [&path](const DeviceHandle& device) {
        return bsdCalloutPathFromDevice(device) == path || bsdDialinPathFromDevice(device) == path;
    };
    // A tty's node carries its device's name: look at that device first, and
    // search every serial device only for a node named otherwise.
    const auto firstMatching = [&matches](const std::vector<DeviceHandle>& candidates) -> DeviceHandle {
        const auto found = std::find_if(candidates.begin(), candidates.end(), matches);
        return found != candidates.end() ? *found : nullptr;
    };
    DeviceRegistry& registry = DeviceRegistry::shared();
    if (DeviceHandle named = firstMatching(registry.serialDevicesNamed(std::filesystem::path(path).filename()))) {
        return named;
    }
    return firstMatching(registry.serialDevices());
}

std::optional<std::string> SerialPort::stringPropertyOf(const DeviceHandle& device, std::string_view key)
{
    return DeviceRegistry::shared().stringProperty(device, key);
}

std::optional<std::string> SerialPort::bsdCalloutPathFromDevice(const DeviceHandle& device)
{
    return stringPropertyOf(device, SerialPropertyKey::CalloutDevice);
}

std::optional<std::string> SerialPort::bsdDialinPathFromDevice(const DeviceHandle& device)
{
    return stringPropertyOf(device, SerialPropertyKey::DialinDevice);
}

std::optional<std::string> SerialPort::baseNameFromDevice(const DeviceHandle& device)
{
    return stringPropertyOf(device, SerialPropertyKey::TTYBaseName);
}

std::optional<std::string> SerialPort::serviceTypeFromDevice(const DeviceHandle& device)
{
    return stringPropertyOf(device, SerialPropertyKey::SerialBSDClientType);
}

std::optional<std::string> SerialPort::modemNameFromDevice(const DeviceHandle& device)
{
    return stringPropertyOf(device, SerialPropertyKey::TTYDevice);
}

std::optional<std::string> SerialPort::suffixFromDevice(const DeviceHandle& device)
{
    return stringPropertyOf(device, SerialPropertyKey::TTYSuffix);
}

// --- the registry entry ------------------------------------------------------

DeviceHandle SerialPort::IOKitDevice() const
{
    std::lock_guard lock(_mutex);
    return _device;
}

void SerialPort::setIoKitDevice(const DeviceHandle& device)
{
    std::lock_guard lock(_mutex);
    if (_device == device) {
        return;
    }
    _device = device;
}

void SerialPort::setIOKitDevice(const DeviceHandle& device)
{
    std::lock_guard lock(_mutex);
    _device = device;
}

// --- line settings -------------------------------------------------------------

void SerialPort::setBaudRate(unsigned long baudRate)
{
    {
        std::lock_guard lock(_mutex);
        if (_baudRate == baudRate) {
            return;
        }
        _baudRate = baudRate;
    }
    setPortOptions();
}

void SerialPort::setAllowsNonStandardBaudRates(bool allows)
{
    std::lock_guard lock(_mutex);
    _allowsNonStandardBaudRates = allows;
}

void SerialPort::setNumberOfStopBits(std::uint64_t stopBits)
{
    {
        std::lock_guard lock(_mutex);
        if (_numberOfStopBits == stopBits) {
            return;
        }
        _numberOfStopBits = stopBits;
    }
    setPortOptions();
}

void SerialPort::setShouldEchoReceivedData(bool echo)
{
    {
        std::lock_guard lock(_mutex);
        if (_shouldEchoReceivedData == echo) {
            return;
        }
        _shouldEchoReceivedData = echo;
    }
    setPortOptions();
}

void SerialPort::setParity(std::uint64_t parity)
{
    const SerialPortParity value = parity <= 2 ? static_cast<SerialPortParity>(parity) : SerialPortParity::None;
    {
        std::lock_guard lock(_mutex);
        if (_parity == value) {
            return;
        }
        _parity = value;
    }
    setPortOptions();
}

void SerialPort::setUsesRTSCTSFlowControl(bool uses)
{
    changeFlowControl(_usesRTSCTSFlowControl, uses);
}
void SerialPort::setUsesDTRDSRFlowControl(bool uses)
{
    changeFlowControl(_usesDTRDSRFlowControl, uses);
}
void SerialPort::setUsesDCDOutputFlowControl(bool uses)
{
    changeFlowControl(_usesDCDOutputFlowControl, uses);
}

void SerialPort::changeFlowControl(bool& field, bool value)
{
    {
        std::lock_guard lock(_mutex);
        if (field == value) {
            return;
        }
    }
    // The close completes later, so the reopen below usually finds the port
    // still open and does nothing; that is how this has always behaved.
    const bool wasOpen = isOpen();
    close();
    {
        std::lock_guard lock(_mutex);
        field = value;
    }
    setPortOptions();
    if (wasOpen) {
        open();
    }
}

// --- modem lines ---------------------------------------------------------------

bool SerialPort::RTS() const
{
    std::lock_guard lock(_mutex);
    return _rts;
}

void SerialPort::setRTS(bool on)
{
    {
        std::lock_guard lock(_mutex);
        if (_rts == on) {
            return;
        }
        _rts = on;
    }
    updateModemLines();
}

bool SerialPort::DTR() const
{
    std::lock_guard lock(_mutex);
    return _dtr;
}

void SerialPort::setDTR(bool on)
{
    {
        std::lock_guard lock(_mutex);
        if (_dtr == on) {
            return;
        }
        _dtr = on;
    }
    updateModemLines();
}

void SerialPort::setCTS(bool on)
{
    _cts.store(on);
    notifyPropertyObservers(SerialPortProperty::CTS);
}

void SerialPort::setDSR(bool on)
{
    _dsr.store(on);
    notifyPropertyObservers(SerialPortProperty::DSR);
}

void SerialPort::setDCD(bool on)
{
    _dcd.store(on);
    notifyPropertyObservers(SerialPortProperty::DCD);
}

// --- delegate and observers ----------------------------------------------------

std::shared_ptr<SerialPortDelegate> SerialPort::delegate() const
{
    std::lock_guard lock(_mutex);
    return _delegate.lock();
}

void SerialPort::setDelegate(const std::shared_ptr<SerialPortDelegate>& delegate)
{
    std::lock_guard lock(_mutex);
    _delegate = delegate;
}

std::uint64_t SerialPort::addPropertyObserver(PropertyObserver observer)
{
    return _observers.add(std::move(observer));
}

void SerialPort::removePropertyObserver(std::uint64_t id)
{
    _observers.remove(id);
}

void SerialPort::notifyPropertyObservers(SerialPortProperty property)
{
    const auto observers = _observers.snapshot();
    if (observers.empty()) {
        return;
    }
    const Ptr self = weak_from_this().lock();
    if (!self) {
        return;
    }
    for (const auto& observer : observers) {
        observer(self, property);
    }
}

void SerialPort::notifyDelegateOfPosixError()
{
    notifyDelegateOfPosixErrorWaitingUntilDone(false);
}

void SerialPort::notifyDelegateOfPosixErrorWaitingUntilDone(bool shouldWait)
{
    const int error = errno; // before anything else can change it
    auto target = delegate();
    if (!target || !target->respondsTo(SerialPortDelegateCallback::DidEncounterError)) {
        return;
    }
    const Ptr self = weak_from_this().lock();
    if (!self) {
        return;
    }
    SerialError value = SerialError::fromErrno(error, _path);
    auto report = [self, target, value] { target->serialPortDidEncounterError(self, value); };
    if (dispatch::isMainThread()) {
        report();
    } else if (shouldWait) {
        dispatch::mainQueue()->sync(report);
    } else {
        dispatch::mainQueue()->async(report);
    }
}

void SerialPort::cleanup()
{
    Logger::log("WARNING: Cleanup is deprecated and was never intended to be called publicly. You should update your "
                "code to avoid calling this method.");
    cleanupAfterSystemRemoval();
}

void SerialPort::cleanupAfterSystemRemoval()
{
    auto target = delegate();
    if (target && target->respondsTo(SerialPortDelegateCallback::WasRemovedFromSystem)) {
        const Ptr self = shared_from_this();
        dispatch::mainQueue()->sync([self, target] { target->serialPortWasRemovedFromSystem(self); });
    }
    close();
}

} // namespace quendral
