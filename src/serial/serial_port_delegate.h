#pragma once
// What a serial port tells its user. Every callback is optional and arrives on
// the main queue. The port asks respondsTo() before each call: a few of the
// port's own steps depend on whether a callback is implemented (the close
// waits for serialPortWasClosed and only then resets the request list; a
// request time-out waits for the delegate before the next request goes out).
// A delegate that does not override respondsTo() counts as implementing all.
#include "serial/serial_error.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace quendral {

class SerialPort;
class SerialPacketDescriptor;
class SerialRequest;

using SerialData = std::vector<std::uint8_t>;

enum class SerialPortDelegateCallback {
    WasOpened,
    WasClosed,
    WasRemovedFromSystem,
    DidReceiveData,
    DidEncounterError,
    DidReceivePacket,
    DidReceiveResponse,
    RequestDidTimeout,
};

class SerialPortDelegate {
public:
    virtual ~SerialPortDelegate() = default;

    [[nodiscard]] virtual bool respondsTo(SerialPortDelegateCallback /*callback*/) const { return true; }

    virtual void serialPortWasOpened(const std::shared_ptr<SerialPort>& /*port*/) {}
    virtual void serialPortWasClosed(const std::shared_ptr<SerialPort>& /*port*/) {}
    virtual void serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& /*port*/) {}
    virtual void serialPortDidReceiveData(const std::shared_ptr<SerialPort>& /*port*/, const SerialData& /*data*/) {}
    virtual void serialPortDidEncounterError(const std::shared_ptr<SerialPort>& /*port*/, const SerialError& /*error*/)
    {
    }
    // Packets and requests: their senders live with SerialPacketDescriptor and SerialRequest.
    virtual void serialPortDidReceivePacket(const std::shared_ptr<SerialPort>& /*port*/, const SerialData& /*packet*/,
                                            const std::shared_ptr<SerialPacketDescriptor>& /*descriptor*/)
    {
    }
    virtual void serialPortDidReceiveResponse(const std::shared_ptr<SerialPort>& /*port*/,
                                              const SerialData& /*response*/,
                                              const std::shared_ptr<SerialRequest>& /*request*/)
    {
    }
    // The request is null when its time limit passed after a close had already
    // dropped it (closing does not stop the timer).
    virtual void serialPortRequestDidTimeout(const std::shared_ptr<SerialPort>& /*port*/,
                                             const std::shared_ptr<SerialRequest>& /*request*/)
    {
    }
};

} // namespace quendral
