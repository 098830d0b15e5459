#pragma once
// The Controller link: talking to one Controller over its serial port with
// the text protocol. It owns what that takes: the opening recipe, the reply
// parser and the state it fills, the port in use, and the waiting procedures
// getCID, getIP, getIPConfig and toggleWebconfig.
//
// Each procedure is given the port it works on and returns what it learnt;
// the owner hears of its progress through OwnerFeedback.
//
// Threading: the waiting procedures block their caller (one-second sleeps on
// the injected Clock) and are meant for a background queue. The reply parser
// runs on the main queue as the port's delegate; ControllerState makes the
// shared fields safe.
//
// Always owned by a std::shared_ptr (create()): ports hold it as a weak delegate.
#include "controller/controller_state.h"
#include "controller/owner_feedback.h"
#include "controller/port_path.h"
#include "controller/reply_parser.h"
#include "platform/clock.h"
#include "serial/serial_port.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral {

class ControllerLink : public SerialPortDelegate, public std::enable_shared_from_this<ControllerLink> {
public:
    // `feedback` outlives the link.
    static std::shared_ptr<ControllerLink> create(OwnerFeedback& feedback, Clock& clock = systemClock());
    ControllerLink(OwnerFeedback& feedback, Clock& clock);
    ControllerLink(const ControllerLink&) = delete;
    ControllerLink& operator=(const ControllerLink&) = delete;

    // Opens the port on `path` if needed and asks for identifier and version.
    // True when the port was open and both requests were written.
    bool requestCID(const std::string& path);
    // Up to about 20 s, plus 1 s: the identifier, or none.
    std::optional<std::string> getCID(const PortPath& port);
    // 2 s, then up to about 20 s: the address announced in configuration mode, or none.
    std::optional<std::string> getIP(const PortPath& port);
    // Up to about 20 s: the lines of the IP dump (possibly empty).
    std::vector<std::string> getIPConfig(const PortPath& port);
    // 3 s: the web server's address, "off", or none.
    std::optional<std::string> toggleWebconfig(const PortPath& port);

    // The skip key: ends every waiting loop at its next test. Cleared only by getCID.
    void setSkipWait(bool skip) { _state.setSkipWait(skip); }
    [[nodiscard]] bool skipWait() const { return _state.skipWait(); }

    [[nodiscard]] std::optional<std::string> deviceCID() const { return _state.deviceCID(); }
    [[nodiscard]] std::optional<std::string> currentVersion() const { return _state.currentVersion(); }
    [[nodiscard]] std::optional<std::string> deviceMessage() const { return _state.deviceMessage(); }
    [[nodiscard]] std::optional<std::string> deviceIP() const { return _state.deviceIP(); }
    [[nodiscard]] std::vector<std::string> ipDump() const { return _state.ipDump(); }
    [[nodiscard]] bool dumpingIP() const { return _state.dumpingIP(); }
    // Main queue only, like the parser that fills it.
    [[nodiscard]] const std::vector<std::uint8_t>& serialInput() const { return _parser.serialInput(); }

    // The port last used with the Controller (by a procedure, the upload's
    // preparation or the boot-loader touch).
    [[nodiscard]] SerialPort::Ptr serial() const;
    void setSerial(const SerialPort::Ptr& port);
    // Closes that port; the close completes later, on the port's reader thread.
    void closeSerial();

    // The current procedure could not open the port because this user may
    // not (EACCES, EPERM). The owner has been told once, with the fix; the
    // waits ended at once, and callers add no failure text of their own.
    [[nodiscard]] bool portAccessDenied() const { return _accessDenied.load(); }
    // A procedure that opens ports begins: nothing refused yet.
    void beginPortUse() { _accessDenied = false; }
    // An open failed: a refusal for lack of permission is told to the owner,
    // once per procedure.
    void noteOpenFailure(const SerialPort& port);

    // --- SerialPortDelegate: the reply parser ---
    [[nodiscard]] bool respondsTo(SerialPortDelegateCallback callback) const override;
    void serialPortDidReceiveData(const std::shared_ptr<SerialPort>& port, const SerialData& data) override;
    // Nothing: removal is noticed through the port list.
    void serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& port) override;

private:
    // Steps 1-2 of opening: close `serial` if it is open on another path.
    // True when it is (still) open afterwards.
    bool bringSerialToPath(const std::string& path);
    // Step 3: a port object for `path`, opened as every Controller port is,
    // with this link as its delegate.
    void openPortForProtocol(const std::string& path, bool logOpening);
    bool sendCommand(const char* command);
    // 20 minus the whole seconds since `start`.
    [[nodiscard]] long remainingCount(Clock::TimePoint start) const;

    OwnerFeedback& _feedback;
    Clock& _clock;
    ControllerState _state;
    ControllerReplyParser _parser{_state};
    mutable std::mutex _serialMutex;
    SerialPort::Ptr _serial;
    std::atomic<bool> _accessDenied{false};
};

} // namespace quendral
