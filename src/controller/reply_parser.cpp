#include "controller/reply_parser.h"

#include "log/logger.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace quendral {
namespace {

constexpr std::string_view kEndDump = "end_dump";
constexpr std::string_view kStartDump = "start_dump";
constexpr std::string_view kCID = "CID:";
constexpr std::string_view kMessage = "CID:MSG:";
constexpr std::string_view kVersion = "VERSION:";
constexpr std::string_view kIPAddress = "IP address: ";
constexpr std::string_view kWebserverStarted = "Starting webserver for configuration at http:";
constexpr std::string_view kWebserverStopped = "Stopping webserver";
constexpr std::size_t kIdentifierLineLength = 36;  // "CID:" + 32 characters
constexpr std::size_t kWebserverAddressStart = 47; // the prefix and the two slashes after it

bool isSevenBitASCII(std::string_view line)
{
    return std::none_of(line.begin(), line.end(), [](char c) { return (static_cast<unsigned char>(c) & 0x80U) != 0; });
}

std::string from(std::string_view line, std::size_t index)
{
    return index < line.size() ? std::string(line.substr(index)) : std::string();
}

} // namespace

void ControllerReplyParser::receive(std::span<const std::uint8_t> bytes)
{
    _serialInput.insert(_serialInput.end(), bytes.begin(), bytes.end());
    const std::size_t length = _serialInput.size();
    if (length == 0) {
        return;
    }
    // The last byte is never examined in this pass.
    const std::size_t end = length - 1;
    const char* data = reinterpret_cast<const char*>(_serialInput.data());
    std::size_t lineStart = 0;
    std::size_t index = std::min(_scanned, end);
    while (index < end) {
        const void* found = std::memchr(data + index, '\n', end - index);
        if (found == nullptr) {
            break;
        }
        const std::size_t newline = static_cast<std::size_t>(static_cast<const char*>(found) - data);
        std::size_t lineLength = newline - lineStart;
        if (lineLength > kLineLimit) {
            noteLineCut();
            lineLength = kLineLimit;
        }
        classify(std::string_view(data + lineStart, lineLength));
        _cuttingLine = false;
        lineStart = newline + 1;
        index = newline + 1;
    }
    _serialInput.erase(_serialInput.begin(), _serialInput.begin() + static_cast<std::ptrdiff_t>(lineStart));
    // The unfinished line keeps only the head it will count with, and the
    // unexamined last byte that may end it.
    if (_serialInput.size() - 1 > kLineLimit) {
        noteLineCut();
        _serialInput.erase(_serialInput.begin() + static_cast<std::ptrdiff_t>(kLineLimit), _serialInput.end() - 1);
    }
    _scanned = _serialInput.size() - 1;
}

void ControllerReplyParser::noteLineCut()
{
    if (!_cuttingLine) {
        _cuttingLine = true;
        Logger::log("Controller line longer than " + std::to_string(kLineLimit) + " bytes: cut to its first " +
                    std::to_string(kLineLimit));
    }
}

void ControllerReplyParser::classify(std::string_view line)
{
    if (!isSevenBitASCII(line)) {
        return;
    }
    if (_state.dumpingIP() && !line.starts_with(kEndDump)) {
        if (_state.appendToIPDump(std::string(line)) == ControllerState::DumpAppend::Cut) {
            Logger::log("IP dump longer than " + std::to_string(ControllerState::kIPDumpLineLimit) + " lines or " +
                        std::to_string(ControllerState::kIPDumpByteLimit) + " bytes: cut, the rest is dropped");
        }
        return;
    }
    if (line.starts_with(kEndDump)) {
        _state.setDumpingIP(false);
    } else if (line.starts_with(kCID)) {
        // The length test comes first: a 36-character "CID:MSG:" line is an identifier.
        if (line.size() == kIdentifierLineLength) {
            _state.setDeviceCID(std::string(line.substr(kCID.size())));
        } else if (line.starts_with(kMessage)) {
            _state.setDeviceMessage(from(line, kMessage.size()));
        }
    } else if (line.starts_with(kVersion)) {
        _state.setCurrentVersion(from(line, kVersion.size()));
    } else if (line.starts_with(kIPAddress)) {
        _state.setDeviceIP(from(line, kIPAddress.size()));
    } else if (line.starts_with(kWebserverStarted)) {
        // A line too short to carry an address counts as an empty address.
        _state.setDeviceIP(from(line, kWebserverAddressStart));
    } else if (line.starts_with(kWebserverStopped)) {
        _state.setDeviceIP(std::string("off"));
    } else if (line.find(kStartDump) != std::string_view::npos) {
        _state.setDumpingIP(true);
    }
}

} // namespace quendral
