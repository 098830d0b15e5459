#pragma once
// Data to send on a port, the response it expects and how long to wait for
// it. A port sends one request at a time and queues the rest (see
// SerialPort::sendRequest).
//
// Requests are immutable once made; identity is the object (UUIDString is a
// new random UUID for each request).
#include "serial/serial_packet_descriptor.h"

#include <any>
#include <memory>
#include <span>
#include <string>

namespace quendral {

class SerialRequest {
public:
    using Ptr = std::shared_ptr<SerialRequest>;

    // The designated form. No response descriptor: no response is expected and
    // the request completes once its data is written. A timeout interval of 0
    // or less: no time limit.
    static Ptr requestWithDataToSend(SerialData dataToSend, std::any userInfo, double timeoutInterval,
                                     SerialPacketDescriptor::Ptr responseDescriptor);
    static Ptr initWithDataToSend(SerialData dataToSend, std::any userInfo, double timeoutInterval,
                                  SerialPacketDescriptor::Ptr responseDescriptor)
    {
        return requestWithDataToSend(std::move(dataToSend), std::move(userInfo), timeoutInterval,
                                     std::move(responseDescriptor));
    }

    // Deprecated: the response as a bare test function. It becomes a response
    // descriptor of unlimited length (so every byte received while the request
    // is pending is kept), without user information.
    [[deprecated("use requestWithDataToSend() with a response descriptor")]] static Ptr
    requestWithDataToSendResponseEvaluator(SerialData dataToSend, std::any userInfo, double timeoutInterval,
                                           SerialPacketDescriptor::ResponseEvaluator responseEvaluator);
    [[deprecated("use initWithDataToSend() with a response descriptor")]] static Ptr
    initWithDataToSendResponseEvaluator(SerialData dataToSend, std::any userInfo, double timeoutInterval,
                                        SerialPacketDescriptor::ResponseEvaluator responseEvaluator);

    SerialRequest() = delete;
    SerialRequest(const SerialRequest&) = delete;
    SerialRequest& operator=(const SerialRequest&) = delete;

    [[nodiscard]] const SerialData& dataToSend() const { return _dataToSend; }
    [[nodiscard]] const std::any& userInfo() const { return _userInfo; }
    [[nodiscard]] double timeoutInterval() const { return _timeoutInterval; }
    [[nodiscard]] const SerialPacketDescriptor::Ptr& responseDescriptor() const { return _responseDescriptor; }
    [[nodiscard]] const std::string& UUIDString() const { return _UUIDString; }

    // True without a response descriptor, otherwise the descriptor's verdict.
    [[nodiscard]] bool dataIsValidResponse(std::span<const std::uint8_t> data) const;

    // "<SerialRequest: 0x...> data: <67657443 49440a> userInfo: ... timeout interval: 1.000000"
    [[nodiscard]] std::string description() const;

    struct Passkey {
    private:
        friend class SerialRequest;
        Passkey() = default;
    };
    SerialRequest(Passkey, SerialData dataToSend, std::any userInfo, double timeoutInterval,
                  SerialPacketDescriptor::Ptr responseDescriptor);

private:
    SerialData _dataToSend;
    std::any _userInfo;
    double _timeoutInterval;
    SerialPacketDescriptor::Ptr _responseDescriptor;
    std::string _UUIDString;
};

// How an object is shown in descriptions: texts as they are, numbers in
// decimal, byte buffers in hex, nothing as "(null)", anything else by type.
[[nodiscard]] std::string describeUserInfo(const std::any& value);
// A byte buffer as "<01020304 0506>": hex, a space after every four bytes.
[[nodiscard]] std::string describeData(std::span<const std::uint8_t> data);

} // namespace quendral
