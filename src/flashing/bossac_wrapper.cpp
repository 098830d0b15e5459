#include "flashing/bossac_wrapper.h"

#include "flashing/upload_status.h"
#include "log/logger.h"
#include "platform/paths.h"

#include <charconv>
#include <filesystem>
#include <regex>

namespace quendral {
namespace {

std::filesystem::path bossacExecutable()
{
    return paths::resourceFolder() / "bossac";
}

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

// bossac draws "[====      ] 40% (5/12 pages)"; the first percentage of a chunk counts.
const std::regex& percentage()
{
    static const std::regex pattern(R"(\d{1,3}%)");
    return pattern;
}

} // namespace

BossacWrapper::BossacWrapper(std::string port) : _port(std::move(port)), _portObj(SerialPort::serialPortWithPath(_port))
{
    _appeared = false;
    _disappeared = false;
    Logger::log("Bossac initiated");
}

BossacWrapper::~BossacWrapper() = default;

std::string BossacWrapper::portName() const
{
    if (_portObj) {
        return _portObj->name();
    }
    const std::filesystem::path path(_port);
    const std::filesystem::path dev("/dev");
    if (const auto relative = path.lexically_relative(dev); !relative.empty() && *relative.begin() != "..") {
        return relative.string();
    }
    // Elsewhere (a link a test or the device lab made): bossac opens a name
    // as given before it tries /dev/, so the whole path does.
    return _port;
}

std::vector<std::string> BossacWrapper::uploadArguments(const std::string& portName, const std::string& hexFile)
{
    // Information, port, native USB, erase, write, verify, boot from flash,
    // reset afterwards. bossac 1.9 takes native USB as "--usb-port=1": it
    // refuses a separate "true" and reads "-Utrue" as false.
    return {"-i", "--port=" + portName, "--usb-port=1", "-e", "-w", "-v", "-b", hexFile, "-R"};
}

void BossacWrapper::serialPortDidReceiveData(const std::shared_ptr<SerialPort>& /*port*/, const SerialData& data)
{
    // Bytes in groups of four, as a data object describes itself: <48656c6c 6f>.
    std::string description = "<";
    static const char* const digits = "0123456789abcdef";
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (i > 0 && i % 4 == 0) {
            description += ' ';
        }
        description += digits[data[i] >> 4U];
        description += digits[data[i] & 0x0FU];
    }
    Logger::log("Bossac: Serialportdata: " + description + ">");
}

void BossacWrapper::resetRunState(ChildProcess::HandleId standardOutput, ChildProcess::HandleId standardError)
{
    _stdout = standardOutput;
    _stderr = standardError;
}

bool BossacWrapper::startUpload(const std::string& hexFile)
{
    _hasUploaded = false;
    _hexFile = hexFile;
    bossac.reset();
    bossac = std::make_unique<ChildProcess>();
    const auto executable = bossacExecutable();
    bossac->setExecutablePath(executable);
    bossac->setArguments(uploadArguments(portName(), _hexFile));

    _reporter.state(upload::kPreparingUpload);
    _reporter.progress(0);
    resetRunState(bossac->handle(ChildProcess::Stream::StandardOutput),
                  bossac->handle(ChildProcess::Stream::StandardError));

    if (!ChildProcess::isExecutableFile(executable)) {
        Logger::log(upload::kNotExecutable);
        return false;
    }
    bossac->setDataHandler(
        [this](ChildProcess::HandleId handle, ChildProcess::Stream, std::string_view data) { readData(handle, data); });
    bossac->setTerminationHandler([this](const ChildProcess::Termination& termination) { terminated(termination); });
    std::string error;
    if (!bossac->launch(&error)) {
        Logger::log("ERROR: Bossac could not be started: " + error);
        return false;
    }
    return bossac->waitUntilExit().succeeded();
}

void BossacWrapper::terminateRun()
{
    if (bossac && bossac->isRunning()) {
        Logger::log("Bossac: the board's port is gone, ending the tool");
        bossac->terminate();
    }
}

void BossacWrapper::readData(ChildProcess::HandleId handle, std::string_view data)
{
    if (handle == 0 || (handle != _stderr && handle != _stdout)) {
        return;
    }
    const std::string text(data);
    Logger::logBuffered("Bossac: " + text);

    std::smatch match;
    const bool hasPercentage = std::regex_search(text, match, percentage());
    if (contains(text, "Write")) {
        _reporter.state(upload::kWritingFirmware);
    }
    if (contains(text, "Verify")) {
        _reporter.state(upload::kVerifyingFirmware);
    }
    if (hasPercentage) {
        // bossac runs 0..100 while writing and again while verifying; passed on as it comes.
        const std::string digits = match.str().substr(0, match.length() - 1);
        int percent = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), percent);
        _reporter.progress(percent);
    }
}

void BossacWrapper::terminated(const ChildProcess::Termination& termination)
{
    _stdout = 0;
    _stderr = 0;
    if (!termination.succeeded()) {
        Logger::log("ERROR: Bossac terminated with an error");
        Logger::logCurrentBuffer();
        _reporter.state(upload::kUpdateFailed);
        return;
    }
    Logger::log("Bossac terminated successfully");
    Logger::clearCurrentBuffer();
    _reporter.state(upload::kFirmwareUpdated);
    _reporter.progress(100);
}

} // namespace quendral
