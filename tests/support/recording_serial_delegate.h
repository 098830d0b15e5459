#pragma once
// A serial port delegate that writes down every callback, in order, with the
// thread it arrived on. Callbacks listed in `declined` count as not implemented.
#include "platform/dispatch.h"
#include "serial/serial_port.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace quendral::test {

class RecordingSerialDelegate : public SerialPortDelegate {
public:
    struct Event {
        std::string kind; // "opened", "closed", "removed", "data", "error", "packet", "response", "timeout"
        SerialData data;  // the chunk, packet or response
        std::optional<SerialError> error;
        bool onMainThread = false;
        bool portOpenDuringCall = false;
        std::shared_ptr<SerialPacketDescriptor> descriptor; // "packet"
        std::shared_ptr<SerialRequest> request;             // "response", "timeout"
        std::chrono::steady_clock::time_point at = std::chrono::steady_clock::now();
    };

    explicit RecordingSerialDelegate(std::set<SerialPortDelegateCallback> declined = {})
        : _declined(std::move(declined))
    {
    }

    [[nodiscard]] bool respondsTo(SerialPortDelegateCallback callback) const override
    {
        return !_declined.contains(callback);
    }

    void serialPortWasOpened(const std::shared_ptr<SerialPort>& port) override { record("opened", *port); }
    void serialPortWasClosed(const std::shared_ptr<SerialPort>& port) override { record("closed", *port); }
    void serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& port) override { record("removed", *port); }
    void serialPortDidReceiveData(const std::shared_ptr<SerialPort>& port, const SerialData& data) override
    {
        record("data", *port, data);
    }
    void serialPortDidEncounterError(const std::shared_ptr<SerialPort>& port, const SerialError& error) override
    {
        record("error", *port, {}, error);
    }
    void serialPortDidReceivePacket(const std::shared_ptr<SerialPort>& port, const SerialData& packet,
                                    const std::shared_ptr<SerialPacketDescriptor>& descriptor) override
    {
        record("packet", *port, packet, std::nullopt, descriptor);
    }
    void serialPortDidReceiveResponse(const std::shared_ptr<SerialPort>& port, const SerialData& response,
                                      const std::shared_ptr<SerialRequest>& request) override
    {
        record("response", *port, response, std::nullopt, nullptr, request);
    }
    void serialPortRequestDidTimeout(const std::shared_ptr<SerialPort>& port,
                                     const std::shared_ptr<SerialRequest>& request) override
    {
        record("timeout", *port, {}, std::nullopt, nullptr, request);
    }

    [[nodiscard]] std::vector<Event> events() const
    {
        std::lock_guard lock(_mutex);
        return _events;
    }
    [[nodiscard]] std::vector<std::string> kinds() const
    {
        std::lock_guard lock(_mutex);
        std::vector<std::string> result;
        for (const auto& event : _events) {
            result.push_back(event.kind);
        }
        return result;
    }
    [[nodiscard]] std::size_t count(const std::string& kind) const
    {
        std::lock_guard lock(_mutex);
        return static_cast<std::size_t>(
            std::count_if(_events.begin(), _events.end(), [&](const Event& e) { return e.kind == kind; }));
    }
    [[nodiscard]] std::string receivedText() const
    {
        std::lock_guard lock(_mutex);
        std::string text;
        for (const auto& event : _events) {
            if (event.kind == "data") {
                text.append(event.data.begin(), event.data.end());
            }
        }
        return text;
    }
    // The events of one kind, in order.
    [[nodiscard]] std::vector<Event> eventsOfKind(const std::string& kind) const
    {
        std::lock_guard lock(_mutex);
        std::vector<Event> result;
        std::copy_if(_events.begin(), _events.end(), std::back_inserter(result),
                     [&](const Event& e) { return e.kind == kind; });
        return result;
    }
    [[nodiscard]] std::vector<SerialError> errors() const
    {
        std::lock_guard lock(_mutex);
        std::vector<SerialError> result;
        for (const auto& event : _events) {
            if (event.error) {
                result.push_back(*event.error);
            }
        }
        return result;
    }

private:
    void record(std::string kind, const SerialPort& port, SerialData data = {},
                std::optional<SerialError> error = std::nullopt,
                std::shared_ptr<SerialPacketDescriptor> descriptor = nullptr,
                std::shared_ptr<SerialRequest> request = nullptr)
    {
        std::lock_guard lock(_mutex);
        _events.push_back({std::move(kind), std::move(data), std::move(error), dispatch::isMainThread(), port.isOpen(),
                           std::move(descriptor), std::move(request), std::chrono::steady_clock::now()});
    }

    std::set<SerialPortDelegateCallback> _declined;
    mutable std::mutex _mutex;
    std::vector<Event> _events;
};

} // namespace quendral::test
