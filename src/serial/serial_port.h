#pragma once
// One serial device of the machine (a USB serial adapter, a board's native USB
// port, a built-in port), opened as a terminal device.
//
// - One live object per device path: serialPortWithPath() hands out the port
//   that already exists for a path while anybody holds it (the class keeps weak
//   references to every live port).
// - Every delegate callback arrives on the main queue (dispatch::mainQueue()).
// - While open, a reader thread turns incoming bytes into
//   serialPortDidReceiveData() callbacks, and a 10 ms timer polls the modem
//   input lines. An open port keeps itself alive until it is closed.
// - close() returns at once; the port counts as open until the reader has
//   wound down and the descriptor is really closed (reallyClosePort()).
// - Exclusive use: TIOCEXCL plus flock(); a port that another process holds
//   fails to open with EBUSY.
// - A vanished device (unplugged adapter) shows on Linux as a hang-up and EIO,
//   seldom as ENXIO; either is reported as an error, then as removal, then the
//   port closes. Devices without modem lines (pseudo-terminals) answer the line
//   poll with ENOTTY/EINVAL: reported once, then that port's poll stops.
//
// Everything here may be called from any thread; the settings are guarded.
#include "platform/dispatch.h"
#include "platform/locked.h"
#include "platform/observer_list.h"
#include "serial/device_registry.h"
#include "serial/serial_port_delegate.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <termios.h>
#include <vector>

namespace quendral {

enum class SerialPortParity : std::uint64_t { None = 0, Odd = 1, Even = 2 };

// Properties whose changes observers hear about (on the thread that changed them).
enum class SerialPortProperty { IsOpen, CTS, DSR, DCD, QueuedRequests, PacketDescriptors };

class SerialPort : public std::enable_shared_from_this<SerialPort> {
public:
    using Ptr = std::shared_ptr<SerialPort>;
    using PropertyObserver = std::function<void(const Ptr& port, SerialPortProperty property)>;

    // --- creation ---------------------------------------------------------
    // The port for a device path (callout or dial-in), or nullptr when the
    // device registry has no such serial device.
    static Ptr serialPortWithPath(const std::string& path);
    // The port for a registry entry; an existing live port for the same path
    // is returned instead of a new object.
    static Ptr serialPortWithDevice(const DeviceHandle& device);

    // --- the registry of live ports ---------------------------------------
    [[nodiscard]] static std::vector<Ptr> allSerialPorts();
    [[nodiscard]] static Ptr existingPortWithPath(const std::string& path);

    // --- device registry look-ups -----------------------------------------
    // nullptr for an empty path or a path no serial device has.
    [[nodiscard]] static DeviceHandle deviceFromBSDPath(const std::string& path);
    [[nodiscard]] static std::optional<std::string> bsdCalloutPathFromDevice(const DeviceHandle& device);
    [[nodiscard]] static std::optional<std::string> bsdDialinPathFromDevice(const DeviceHandle& device);
    [[nodiscard]] static std::optional<std::string> baseNameFromDevice(const DeviceHandle& device);
    [[nodiscard]] static std::optional<std::string> serviceTypeFromDevice(const DeviceHandle& device);
    [[nodiscard]] static std::optional<std::string> modemNameFromDevice(const DeviceHandle& device);
    [[nodiscard]] static std::optional<std::string> suffixFromDevice(const DeviceHandle& device);
    [[nodiscard]] static std::optional<std::string> stringPropertyOf(const DeviceHandle& device, std::string_view key);

    ~SerialPort();
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    // --- identity -----------------------------------------------------------
    [[nodiscard]] const std::string& path() const { return _path; }
    [[nodiscard]] const std::string& name() const { return _name; }
    [[nodiscard]] const std::string& description() const { return _name; }
    [[nodiscard]] bool isEqual(const SerialPort& other) const { return _path == other._path; }
    [[nodiscard]] std::size_t hash() const { return std::hash<std::string>{}(_path); }

    // The registry entry. setIoKitDevice() is the initialiser's setter (only a
    // different entry is stored); setIOKitDevice() simply stores.
    [[nodiscard]] DeviceHandle IOKitDevice() const;
    void setIoKitDevice(const DeviceHandle& device);
    void setIOKitDevice(const DeviceHandle& device);

    // --- opening and closing --------------------------------------------------
    void open();
    // Always true; the port closes asynchronously.
    bool close();
    [[nodiscard]] bool isOpen() const { return _fileDescriptor.load() != 0; }
    [[nodiscard]] int fileDescriptor() const { return _fileDescriptor.load(); }
    // The errno of the last open() that failed, 0 once an open succeeded.
    // Lets a caller tell a port it may not use (EACCES) from one still busy.
    [[nodiscard]] int lastOpenError() const { return _lastOpenError.load(); }
    // The last open failed because this user may not use the device.
    [[nodiscard]] bool openWasDenied() const
    {
        const int error = lastOpenError();
        return error == EACCES || error == EPERM;
    }
    // Blocks until every byte was written. False when closed or on a write error.
    bool sendData(std::span<const std::uint8_t> data);
    bool sendData(std::string_view text);
    // A written byte may still wait in the driver's queue, and is lost if the
    // device goes now. Waits until that queue is empty, at most `timeout`.
    // False when closed, when the device failed (the delegate hears of it) or
    // when the bytes did not leave in time (a device that takes nothing more).
    bool waitUntilSent(std::chrono::milliseconds timeout);

    // The device is gone: tells the delegate (waiting for it), then closes.
    void cleanupAfterSystemRemoval();
    // Deprecated: logs a warning, then cleanupAfterSystemRemoval().
    void cleanup();

    // --- line settings (stored while closed, applied at the next open) -----
    [[nodiscard]] unsigned long baudRate() const { return lockedCopy(_mutex, _baudRate); }
    void setBaudRate(unsigned long baudRate);
    [[nodiscard]] bool allowsNonStandardBaudRates() const { return lockedCopy(_mutex, _allowsNonStandardBaudRates); }
    void setAllowsNonStandardBaudRates(bool allows);
    [[nodiscard]] std::uint64_t numberOfStopBits() const { return lockedCopy(_mutex, _numberOfStopBits); }
    void setNumberOfStopBits(std::uint64_t stopBits);
    [[nodiscard]] bool shouldEchoReceivedData() const { return lockedCopy(_mutex, _shouldEchoReceivedData); }
    void setShouldEchoReceivedData(bool echo);
    [[nodiscard]] SerialPortParity parity() const { return lockedCopy(_mutex, _parity); }
    // Anything but none, odd or even is stored as none.
    void setParity(std::uint64_t parity);
    void setParity(SerialPortParity parity) { setParity(static_cast<std::uint64_t>(parity)); }
    [[nodiscard]] bool usesRTSCTSFlowControl() const { return lockedCopy(_mutex, _usesRTSCTSFlowControl); }
    void setUsesRTSCTSFlowControl(bool uses);
    // No Linux equivalent: stored without effect.
    [[nodiscard]] bool usesDTRDSRFlowControl() const { return lockedCopy(_mutex, _usesDTRDSRFlowControl); }
    void setUsesDTRDSRFlowControl(bool uses);
    [[nodiscard]] bool usesDCDOutputFlowControl() const { return lockedCopy(_mutex, _usesDCDOutputFlowControl); }
    void setUsesDCDOutputFlowControl(bool uses);

    // --- modem lines ----------------------------------------------------------
    [[nodiscard]] bool RTS() const;
    void setRTS(bool on);
    [[nodiscard]] bool DTR() const;
    void setDTR(bool on);
    // Input lines, set by the line poll only.
    [[nodiscard]] bool CTS() const { return _cts.load(); }
    [[nodiscard]] bool DSR() const { return _dsr.load(); }
    [[nodiscard]] bool DCD() const { return _dcd.load(); }
    void setCTS(bool on);
    void setDSR(bool on);
    void setDCD(bool on);

    // --- delegate and observers -------------------------------------------
    [[nodiscard]] std::shared_ptr<SerialPortDelegate> delegate() const;
    void setDelegate(const std::shared_ptr<SerialPortDelegate>& delegate);
    std::uint64_t addPropertyObserver(PropertyObserver observer);
    void removePropertyObserver(std::uint64_t id);

    // --- the machinery, public as the rest of the serial layer uses it -----
    void setPortOptions();
    void updateModemLines();
    // Report errno to the delegate, if it wants errors. Read errno first thing.
    void notifyDelegateOfPosixError();
    void notifyDelegateOfPosixErrorWaitingUntilDone(bool shouldWait);
    // The serial queue on which packet and request work runs.
    [[nodiscard]] const dispatch::QueuePtr& requestHandlingQueue() const { return _requestHandlingQueue; }
    // The termios record found at open (restored on close).
    [[nodiscard]] termios originalPortAttributes() const { return lockedCopy(_mutex, _originalPortAttributes); }

    // --- packets (serial_port_packets.cpp) --------------------------------
    // Listening changes the descriptor list on requestHandlingQueue and waits
    // for it: never call these from that queue (they then do nothing). A
    // descriptor listened for twice keeps its one buffer.
    void startListeningForPacketsMatchingDescriptor(const std::shared_ptr<SerialPacketDescriptor>& descriptor);
    void stopListeningForPacketsMatchingDescriptor(const std::shared_ptr<SerialPacketDescriptor>& descriptor);
    // In the order listening began.
    [[nodiscard]] std::vector<std::shared_ptr<SerialPacketDescriptor>> packetDescriptors() const;

    // --- requests (serial_port_requests.cpp) ------------------------------
    // Sends now when no request is pending (waiting for the write), else
    // queues. False when the immediate send failed, and when called from
    // requestHandlingQueue (refused: it would wait for itself).
    bool sendRequest(const std::shared_ptr<SerialRequest>& request);
    // Both return at once. The pending request cannot be cancelled.
    void cancelQueuedRequest(const std::shared_ptr<SerialRequest>& request);
    void cancelAllQueuedRequests();
    // The waiting requests, oldest first (not the pending one).
    [[nodiscard]] std::vector<std::shared_ptr<SerialRequest>> queuedRequests() const;
    [[nodiscard]] std::shared_ptr<SerialRequest> pendingRequest() const;

    struct ReadSource;
    struct PacketsAndRequests;

private:
    SerialPort(const DeviceHandle& device, std::string path, std::string name);

    static Ptr initWithDevice(const DeviceHandle& device);

    void receiveData(SerialData data);
    void reallyClosePort();
    // close() leaves the closing to the reader thread; an open() that comes
    // before it is through waits for it instead of using a dying descriptor.
    void markCloseFinished();
    [[nodiscard]] bool waitForPendingClose();
    void readLoop(const std::shared_ptr<ReadSource>& source);
    void pollModemLines();
    // The device vanished (EIO/ENXIO/hang-up): error, removal, close; once per open.
    void handleDeviceVanished(int error);
    void startPinPoll();
    void stopPinPoll();
    void notifyPropertyObservers(SerialPortProperty property);
    void setFileDescriptor(int fd);
    // A flow-control setter's dance: close, store, apply, reopen.
    void changeFlowControl(bool& field, bool value);

    // --- extension points of packets and requests -------------------------
    // Runs on requestHandlingQueue for every chunk read, after the delegate's
    // data callback was posted: packet detection, then the pending request's
    // response check, byte by byte.
    void handleReceivedChunk(const SerialData& chunk);
    // No packet is listened for and no request waits for a response: a chunk
    // received now has nowhere to go. Read on requestHandlingQueue, or under
    // its lock while it is idle (nothing else changes the answer then).
    [[nodiscard]] bool receivedBytesHaveNowhereToGo() const;
    // Runs on requestHandlingQueue after a close that the delegate heard of:
    // drop the queued requests and the pending one.
    void resetRequestsAfterClose();

    // Packets and requests (serial_port_packets.cpp, serial_port_requests.cpp).
    static std::shared_ptr<PacketsAndRequests> makePacketsAndRequests();
    void detectPackets(std::uint8_t byte);
    bool reallySendRequest(const std::shared_ptr<SerialRequest>& request);
    void sendNextRequest();
    void checkResponseToPendingRequestAndContinueIfValidWithReceivedByte(std::optional<std::uint8_t> byte);
    void pendingRequestDidTimeout();

    const std::string _path;
    const std::string _name;
    dispatch::QueuePtr _requestHandlingQueue;
    // Lives on requestHandlingQueue; lists that other threads read are guarded inside.
    std::shared_ptr<PacketsAndRequests> _packetsAndRequests = makePacketsAndRequests();

    std::atomic<int> _fileDescriptor{0};
    std::mutex _descriptorMutex; // held while the line poll uses the descriptor and while it is closed
    std::mutex _closeMutex;
    std::condition_variable _closeFinished;
    bool _closePending = false; // guarded by _closeMutex
    std::atomic<int> _lastOpenError{0};
    std::atomic<bool> _cts{false};
    std::atomic<bool> _dsr{false};
    std::atomic<bool> _dcd{false};

    mutable std::mutex _mutex; // guards everything below
    DeviceHandle _device;
    unsigned long _baudRate = 19200;
    bool _allowsNonStandardBaudRates = false;
    std::uint64_t _numberOfStopBits = 1;
    bool _shouldEchoReceivedData = false;
    SerialPortParity _parity = SerialPortParity::None;
    bool _usesRTSCTSFlowControl = false;
    bool _usesDTRDSRFlowControl = false;
    bool _usesDCDOutputFlowControl = false;
    bool _rts = false;
    bool _dtr = false;
    std::weak_ptr<SerialPortDelegate> _delegate;
    termios _originalPortAttributes{};
    std::shared_ptr<ReadSource> _readPollSource;
    dispatch::TimerPtr _pinPollTimer;
    ObserverList<PropertyObserver> _observers;
    // Set once the vanished device was reported for the current open.
    std::shared_ptr<std::atomic<bool>> _vanishReported;
};

// Ports stand for device paths: equal when their paths are.
inline bool operator==(const SerialPort& a, const SerialPort& b)
{
    return a.isEqual(b);
}

} // namespace quendral
