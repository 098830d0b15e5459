#include "controller/ip_settings_writer.h"

#include "controller/controller_port.h"
#include "log/logger.h"

#include <chrono>

namespace quendral::ipsettings {
namespace {

// A line of the sequence is a few dozen bytes: at the protocol's speed it
// leaves in a few milliseconds. A line still queued after this long is not
// being taken by the Controller.
constexpr std::chrono::milliseconds kLineLeaves{2000};

std::string withoutLineFeed(const std::string& line)
{
    return !line.empty() && line.back() == '\n' ? line.substr(0, line.size() - 1) : line;
}

} // namespace

std::string WriteResult::failureText() const
{
    return "The IP settings were not written: line " + std::to_string(failedLine) + " of " + std::to_string(lineCount) +
           " (" + failedText + ") could not be sent to the Controller.";
}

WriteResult writeSettings(const std::string& path, const Settings& settings,
                          const std::shared_ptr<SerialPortDelegate>& delegate)
{
    WriteResult result;
    const std::vector<std::string> sequence = writeSequence(settings);
    result.lineCount = sequence.size();

    Logger::log("Opening serial port " + path);
    result.port = SerialPort::serialPortWithPath(path);
    if (!result.port) {
        result.outcome = WriteResult::Outcome::NoPort;
        return result;
    }
    SerialPort& port = *result.port;
    if (delegate) {
        port.setDelegate(delegate);
    }
    openControllerPort(port);
    if (!port.isOpen()) {
        result.outcome = WriteResult::Outcome::NotOpened;
        return result;
    }

    result.outcome = WriteResult::Outcome::Written;
    for (std::size_t i = 0; i < sequence.size(); ++i) {
        if (!port.sendData(sequence[i]) || !port.waitUntilSent(kLineLeaves)) {
            result.outcome = WriteResult::Outcome::LineFailed;
            result.failedLine = i + 1;
            result.failedText = withoutLineFeed(sequence[i]);
            Logger::log("IP settings not written: line " + std::to_string(result.failedLine) + " of " +
                        std::to_string(result.lineCount) + " (" + result.failedText + ") failed");
            break;
        }
    }
    port.close();
    return result;
}

} // namespace quendral::ipsettings
