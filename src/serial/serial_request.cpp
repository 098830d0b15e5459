// SerialRequest: creation, the response test, the description.
#include "serial/serial_request.h"

#include "serial/serial_uuid.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <limits>

namespace quendral {

SerialRequest::SerialRequest(Passkey, SerialData dataToSend, std::any userInfo, double timeoutInterval,
                             SerialPacketDescriptor::Ptr responseDescriptor)
    : _dataToSend(std::move(dataToSend)), _userInfo(std::move(userInfo)), _timeoutInterval(timeoutInterval),
      _responseDescriptor(std::move(responseDescriptor)), _UUIDString(SerialUUID::make().UUIDString())
{
}

SerialRequest::Ptr SerialRequest::requestWithDataToSend(SerialData dataToSend, std::any userInfo,
                                                        double timeoutInterval,
                                                        SerialPacketDescriptor::Ptr responseDescriptor)
{
    return std::make_shared<SerialRequest>(Passkey{}, std::move(dataToSend), std::move(userInfo), timeoutInterval,
                                           std::move(responseDescriptor));
}

SerialRequest::Ptr
SerialRequest::requestWithDataToSendResponseEvaluator(SerialData dataToSend, std::any userInfo, double timeoutInterval,
                                                      SerialPacketDescriptor::ResponseEvaluator responseEvaluator)
{
    auto descriptor = SerialPacketDescriptor::initWithMaximumPacketLength(
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()), std::any(), std::move(responseEvaluator));
    return requestWithDataToSend(std::move(dataToSend), std::move(userInfo), timeoutInterval, std::move(descriptor));
}

SerialRequest::Ptr
SerialRequest::initWithDataToSendResponseEvaluator(SerialData dataToSend, std::any userInfo, double timeoutInterval,
                                                   SerialPacketDescriptor::ResponseEvaluator responseEvaluator)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return requestWithDataToSendResponseEvaluator(std::move(dataToSend), std::move(userInfo), timeoutInterval,
                                                  std::move(responseEvaluator));
#pragma GCC diagnostic pop
}

bool SerialRequest::dataIsValidResponse(std::span<const std::uint8_t> data) const
{
    if (!_responseDescriptor) {
        return true;
    }
    return _responseDescriptor->dataIsValidPacket(data);
}

std::string SerialRequest::description() const
{
    char self[64];
    std::snprintf(self, sizeof self, "<SerialRequest: %p>", static_cast<const void*>(this));
    char interval[64];
    std::snprintf(interval, sizeof interval, "%f", _timeoutInterval);
    return std::string(self) + " data: " + describeData(_dataToSend) + " userInfo: " + describeUserInfo(_userInfo) +
           " timeout interval: " + interval;
}

std::string describeData(std::span<const std::uint8_t> data)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text = "<";
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (i > 0 && i % 4 == 0) {
            text.push_back(' ');
        }
        text.push_back(digits[data[i] >> 4]);
        text.push_back(digits[data[i] & 0x0F]);
    }
    text.push_back('>');
    return text;
}

std::string describeUserInfo(const std::any& value)
{
    if (!value.has_value()) {
        return "(null)";
    }
    if (const auto* text = std::any_cast<std::string>(&value)) {
        return *text;
    }
    if (const auto* text = std::any_cast<const char*>(&value)) {
        return *text != nullptr ? std::string(*text) : std::string("(null)");
    }
    if (const auto* number = std::any_cast<int>(&value)) {
        return std::to_string(*number);
    }
    if (const auto* number = std::any_cast<long>(&value)) {
        return std::to_string(*number);
    }
    if (const auto* number = std::any_cast<long long>(&value)) {
        return std::to_string(*number);
    }
    if (const auto* number = std::any_cast<unsigned>(&value)) {
        return std::to_string(*number);
    }
    if (const auto* number = std::any_cast<unsigned long>(&value)) {
        return std::to_string(*number);
    }
    if (const auto* number = std::any_cast<double>(&value)) {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%g", *number);
        return buffer;
    }
    if (const auto* flag = std::any_cast<bool>(&value)) {
        return *flag ? "1" : "0";
    }
    if (const auto* data = std::any_cast<SerialData>(&value)) {
        return describeData(*data);
    }
    return std::string("<") + value.type().name() + ">";
}

} // namespace quendral
