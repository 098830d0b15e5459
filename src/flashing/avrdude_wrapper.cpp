#include "flashing/avrdude_wrapper.h"

#include "flashing/avrdude_boards.h"
#include "flashing/upload_status.h"
#include "log/logger.h"
#include "platform/paths.h"

#include <algorithm>
#include <climits>
#include <filesystem>

namespace quendral {
namespace {

// Three full bars of 50 marks: the signature read, the write and the verifying read.
constexpr std::uint64_t kMarksOfASuccessfulRun = 150;
// avrdude 7 (the one Debian ships) draws no bar for the signature read: a good
// run is then one write bar and one verifying bar, both full.
constexpr std::uint64_t kMarksOfASuccessfulRunWithoutSignatureBar = 100;
constexpr std::size_t kSignatureBlockSize = 64;
constexpr std::size_t kVerificationPhraseLength = std::string_view("verification mismatch").size();
constexpr std::string_view kSignatureKey = "Device signature = ";
// avrdude 7 starts the line in lower case.
constexpr std::string_view kSignatureKeyLowerCase = "device signature = ";
constexpr std::size_t kSignatureLength = 8;

std::filesystem::path avrdudeExecutable()
{
    return paths::resourceFolder() / "avrdude";
}
std::filesystem::path avrdudeConfig()
{
    return paths::resourceFolder() / "avrdude.conf";
}

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

std::size_t findSignatureKey(std::string_view block)
{
    const auto at = block.find(kSignatureKey);
    return at != std::string_view::npos ? at : block.find(kSignatureKeyLowerCase);
}

} // namespace

AvrdudeWrapper::AvrdudeWrapper()
{
    Logger::log("Avrdude initiated");
}

AvrdudeWrapper::~AvrdudeWrapper() = default;

void AvrdudeWrapper::resetRunState(ChildProcess::HandleId standardOutput, ChildProcess::HandleId standardError)
{
    _verificationError = false;
    _isWriting = false;
    _isReading = false;
    _countHash = 0;
    _totalHash = 0;
    _bars.clear();
    _previousTail.clear();
    _stdout = standardOutput;
    _stderr = standardError;
}

bool AvrdudeWrapper::startUpload(const std::string& hexFile, const std::string& serialPort, std::uint32_t idx)
{
    // A new process for every run; the previous one (and its threads) goes first.
    avrdude.reset();
    avrdude = std::make_unique<ChildProcess>();
    resetRunState(avrdude->handle(ChildProcess::Stream::StandardOutput),
                  avrdude->handle(ChildProcess::Stream::StandardError));

    const auto executable = avrdudeExecutable();
    const AvrdudeBoard* board = avrdudeBoardFor(idx);
    if (board == nullptr) {
        Logger::log("ERROR: Could not identify device type");
        return false;
    }
    Logger::log(board->logLine);
    avrdude->setExecutablePath(executable);
    avrdude->setArguments(avrdudeFlashArguments(*board, avrdudeConfig(), serialPort, hexFile));

    if (!ChildProcess::isExecutableFile(executable)) {
        Logger::log(upload::kNotExecutable);
        return false;
    }

    avrdude->setDataHandler(
        [this](ChildProcess::HandleId handle, ChildProcess::Stream, std::string_view data) { readData(handle, data); });
    avrdude->setTerminationHandler([this](const ChildProcess::Termination&) { terminated(); });
    // Posted before the launch so that it precedes every state the output brings.
    _reporter.state(upload::kPreparingUpload);
    std::string error;
    if (!avrdude->launch(&error)) {
        Logger::log("ERROR: Avrdude could not be started: " + error);
        return false;
    }
    return avrdude->waitUntilExit().succeeded();
}

void AvrdudeWrapper::readData(ChildProcess::HandleId handle, std::string_view data)
{
    if (handle == 0 || (handle != _stderr && handle != _stdout)) {
        return;
    }
    Logger::logBuffered("Avrdude: " + std::string(data));

    // The signature read at the start of every run draws a "Reading | " bar too,
    // so "Verifying firmware..." shows up once before the write begins.
    if (contains(data, "Writing | ")) {
        _isWriting = true;
        _countHash = 0;
        _bars.push_back(Bar::Write);
        _reporter.state(upload::kWritingFirmware);
    } else if (contains(data, "Reading | ")) {
        _reporter.state(upload::kVerifyingFirmware);
        _isReading = true;
        _countHash = 0;
        _bars.push_back(Bar::Read);
    }
    // avrdude 7 words a failed comparison "verification mismatch", and writes
    // the first letter of a message on its own: look across the chunk border.
    const std::string window = _previousTail + std::string(data);
    if (contains(window, "verification error") || contains(window, "verification mismatch")) {
        _verificationError = true;
    }
    _previousTail = window.substr(window.size() - std::min(window.size(), kVerificationPhraseLength - 1));
    const auto marks = static_cast<std::uint64_t>(std::count(data.begin(), data.end(), '#'));
    _countHash += marks;
    _totalHash += marks;
    _reporter.progress(static_cast<int>(std::min<std::uint64_t>(_countHash * 2, INT_MAX)));
}

bool AvrdudeWrapper::allBarsComplete() const
{
    if (_totalHash == kMarksOfASuccessfulRun) {
        return true;
    }
    return _totalHash == kMarksOfASuccessfulRunWithoutSignatureBar && _bars == std::vector<Bar>{Bar::Write, Bar::Read};
}

void AvrdudeWrapper::terminated()
{
    Logger::log(std::to_string(_totalHash));
    if (allBarsComplete() && !_verificationError) {
        Logger::log("Avrdude terminated successfully");
        Logger::clearCurrentBuffer();
        _reporter.state(upload::kFirmwareUpdated);
    } else {
        Logger::log("ERROR: Avrdude terminated with an error");
        Logger::logCurrentBuffer();
        _reporter.state(upload::kUpdateFailed);
    }
    // The pipes are done with: nothing more from them counts.
    _stderr = 0;
    _stdout = 0;
}

std::optional<std::string> AvrdudeWrapper::getDeviceSignature(const std::string& serialPort)
{
    _reporter.state(upload::kIdentifyingDeviceType);
    const std::string config = "-C" + avrdudeConfig().string();
    const std::string port = "-P" + serialPort;
    const std::vector<std::string> arduino{config, "-patmega1284p", "-carduino", port};
    const std::vector<std::string> wiring{config, "-patmega1284p", "-cwiring", port};

    auto signature = getSignature(arduino);
    if (!signature) {
        Logger::log("Timeout using arduino type");
        signature = getSignature(wiring);
        if (!signature) {
            Logger::log("Timeout using wiring type");
        }
    }
    return signature;
}

std::optional<std::string> AvrdudeWrapper::getSignature(const std::vector<std::string>& arguments)
{
    avrdude.reset();
    avrdude = std::make_unique<ChildProcess>();
    const auto executable = avrdudeExecutable();
    avrdude->setExecutablePath(executable);
    avrdude->setArguments(arguments);
    avrdude->setReadsManually(ChildProcess::Stream::StandardError);
    if (!ChildProcess::isExecutableFile(executable)) {
        Logger::log(upload::kNotExecutable);
        return std::nullopt;
    }
    std::string error;
    if (!avrdude->launch(&error)) {
        Logger::log("ERROR: Avrdude could not be started: " + error);
        return std::nullopt;
    }

    // Each block is looked at on its own: a key phrase split across two reads
    // goes unseen, and the probe then reports no signature.
    std::optional<std::string> signature;
    for (;;) {
        const std::string block = avrdude->readAvailable(ChildProcess::Stream::StandardError, kSignatureBlockSize);
        if (block.empty()) {
            break;
        }
        Logger::log("Avrdude: " + block);
        if (const auto at = findSignatureKey(block); at != std::string::npos) {
            // avrdude 7 writes the signature's bytes one by one, so they may
            // come in the next blocks.
            std::string text = block.substr(at + kSignatureKey.size());
            while (text.size() < kSignatureLength) {
                const std::string more =
                    avrdude->readAvailable(ChildProcess::Stream::StandardError, kSignatureBlockSize);
                if (more.empty()) {
                    break;
                }
                Logger::log("Avrdude: " + more);
                text += more;
            }
            signature = text.substr(0, kSignatureLength);
            Logger::log("Signature: " + *signature);
            break;
        }
        if (contains(block, "timeout") || contains(block, "programmer is not responding")) {
            break;
        }
    }
    avrdude->interrupt();
    // Read on to the end so that avrdude never blocks on a full pipe while it goes.
    while (!avrdude->readAvailable(ChildProcess::Stream::StandardError, 4096).empty()) {
    }
    avrdude->waitUntilExit();
    return signature;
}

std::string AvrdudeWrapper::hexFile() const
{
    std::lock_guard lock(_hexFileMutex);
    return _hexFile;
}

void AvrdudeWrapper::setHexFile(std::string hexFile)
{
    std::lock_guard lock(_hexFileMutex);
    _hexFile = std::move(hexFile);
}

} // namespace quendral
