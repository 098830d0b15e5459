#include "controller/firmware_uploader.h"

#include "controller/bootloader_touch.h"

#include "controller/controller_port.h"
#include "controller/firmware_image_check.h"
#include "flashing/avrdude_wrapper.h"
#include "flashing/bossac_wrapper.h"
#include "log/logger.h"
#include "platform/dispatch.h"
#include "platform/notification_center.h"
#include "serial/serial_port_attributes.h"
#include "serial/serial_port_manager.h"

#include <algorithm>
#include <any>
#include <stop_token>

namespace quendral {
namespace {

constexpr int kIdentificationAttempts = 10;
constexpr long kReappearanceSeconds = 30;

bool listsPath(const SerialPortList& ports, const std::string& path)
{
    return std::any_of(ports.begin(), ports.end(), [&](const SerialPort::Ptr& port) { return port->path() == path; });
}

// The touch retries its open without pause for as long as the open fails. A
// board pulled out before that open leaves nothing to open, ever, and the
// retry would hold the job (and the disabled window) for good: the board's
// departure ends it, and the re-appearance wait then says that the board did
// not come back.
void resetUnlessRemoved(ControllerLink& link, Clock& clock, const std::string& path, int delay)
{
    std::stop_source removed;
    ScopedObserver departure(NotificationCenter::defaultCenter(), SerialPortsWereDisconnectedNotification, nullptr,
                             [removed, path](const Notification& notification) mutable {
                                 const auto found = notification.userInfo.find(DisconnectedSerialPortsKey);
                                 const auto* ports = found == notification.userInfo.end()
                                                         ? nullptr
                                                         : std::any_cast<SerialPortList>(&found->second);
                                 if (ports != nullptr && listsPath(*ports, path)) {
                                     removed.request_stop();
                                 }
                             });
    // Gone before anybody listened.
    if (!listsPath(SerialPortManager::sharedSerialPortManager().availablePorts(), path)) {
        removed.request_stop();
    }
    touchForBootloader(path, delay, removed.get_token(), clock,
                       [&link](const SerialPort::Ptr& port) { link.setSerial(port); });
}

// bossac waiting for a reply when its board vanishes reads the hung-up line
// as "nothing yet" for ever, and the job waits for the tool without limit. A
// tool that still runs a while after its port left the system is ended; one
// that reset the board itself (which takes the port away as well) has exited
// by then.
constexpr auto kToolGraceAfterRemoval = std::chrono::seconds(5);

ScopedObserver endToolIfPortGoes(const std::shared_ptr<BossacWrapper>& tool, const std::string& path)
{
    std::weak_ptr<BossacWrapper> weakTool = tool;
    return ScopedObserver(NotificationCenter::defaultCenter(), SerialPortsWereDisconnectedNotification, nullptr,
                          [weakTool, path](const Notification& notification) {
                              const auto found = notification.userInfo.find(DisconnectedSerialPortsKey);
                              const auto* ports = found == notification.userInfo.end()
                                                      ? nullptr
                                                      : std::any_cast<SerialPortList>(&found->second);
                              if (ports == nullptr || !listsPath(*ports, path)) {
                                  return;
                              }
                              dispatch::after(kToolGraceAfterRemoval, dispatch::globalQueue(), [weakTool] {
                                  if (const auto running = weakTool.lock()) {
                                      running->terminateRun();
                                  }
                              });
                          });
}

} // namespace

FirmwareUploader::FirmwareUploader(ControllerLink& link, OwnerFeedback& feedback, Clock& clock)
    : _link(link), _feedback(feedback), _clock(clock)
{
}

FirmwareUploader::~FirmwareUploader() = default;

CombinedUsbIdentifier FirmwareUploader::identifyBoard(const std::string& path)
{
    CombinedUsbIdentifier code = 0;
    for (int attempt = 0; attempt < kIdentificationAttempts && code == 0; ++attempt) {
        code = usbIdentifierOf(SerialPortManager::sharedSerialPortManager().availablePorts(), path);
    }
    return code;
}

UpdateOutcome FirmwareUploader::flashFile(const PortPath& port, const std::string& hexFile)
{
    Logger::log("Uploading firmware " + hexFile);
    _feedback.uploadBegins();
    _link.beginPortUse();
    const BoardIdentification* board = BoardTable::find(identifyBoard(port.currentOrEmpty()));
    // Before the board hears of an update: both tools erase first and read
    // the file afterwards.
    if (board != nullptr) {
        if (const auto problem = firmware::imageFileProblem(hexFile, *board)) {
            Logger::log("ERROR, firmware file refused: " + *problem);
            _feedback.alert("This firmware cannot be flashed onto the " + std::string(board->chip) + ": " + *problem +
                            ". Nothing was changed on the Controller.");
            return UpdateOutcome::ImageRejected;
        }
    }
    const auto selected = port.current();
    sendPrepareUpload(selected);
    if (_link.portAccessDenied()) {
        return UpdateOutcome::PortAccessDenied; // neither the touch nor the tool could open it either
    }
    _clock.sleepFor(Clock::Seconds(0));

    if (board == nullptr) {
        _feedback.failure("Error: Unable to identify device");
        return UpdateOutcome::UploadFailed;
    }
    // From the touch on the board may be erased (a SAM board's touch erases
    // its flash): quitting now asks first.
    const FlashingToolRun toolRun(_flashingToolRuns);
    bool flashed = false;
    if (!board->waitsForBootloader) {
        const std::string path = port.currentOrEmpty();
        flashed = runAvrdude(hexFile, path,
                             usbIdentifierOf(SerialPortManager::sharedSerialPortManager().availablePorts(), path));
    } else {
        if (board->resetDelaySeconds && selected) {
            resetUnlessRemoved(_link, _clock, *selected, *board->resetDelaySeconds);
        }
        flashed = waitForBootloaderAndFlash(hexFile, BoardTable::bootloaderIdentifiers(board->family), board->tool,
                                            port.usbLocation());
    }
    return flashed ? UpdateOutcome::Updated : UpdateOutcome::UploadFailed;
}

void FirmwareUploader::sendPrepareUpload(const std::optional<std::string>& path)
{
    auto port = path ? SerialPort::serialPortWithPath(*path) : nullptr;
    _link.setSerial(port);
    if (!port) {
        return;
    }
    openControllerPort(*port);
    if (!port->isOpen()) {
        _link.noteOpenFailure(*port);
    }
    port->sendData(std::string_view("prepareUpload\n"));
    port->close();
}

bool FirmwareUploader::runAvrdude(const std::string& hexFile, const std::string& path, CombinedUsbIdentifier code)
{
    auto avrdude = std::make_shared<AvrdudeWrapper>();
    avrdude->setReportHandlers([this](const std::string& text) { _feedback.uploadState(text); },
                               [this](int percent) { _feedback.uploadProgress(percent); });
    {
        std::lock_guard lock(_toolsMutex);
        _avrdude = avrdude;
    }
    return avrdude->startUpload(hexFile, path, code);
}

bool FirmwareUploader::runBossac(const std::string& hexFile, const std::string& path)
{
    auto bossac = std::make_shared<BossacWrapper>(path);
    bossac->setReportHandlers([this](const std::string& text) { _feedback.uploadState(text); },
                              [this](int percent) { _feedback.uploadProgress(percent); });
    {
        std::lock_guard lock(_toolsMutex);
        _bossac = bossac;
    }
    const ScopedObserver departure = endToolIfPortGoes(bossac, path);
    return bossac->startUpload(hexFile);
}

bool FirmwareUploader::waitForBootloaderAndFlash(const std::string& hexFile,
                                                 const std::vector<CombinedUsbIdentifier>& wanted, FlashingTool tool,
                                                 const std::optional<std::string>& usbSocket)
{
    const auto start = _clock.now();
    long remaining = kReappearanceSeconds;
    while (remaining >= 1) {
        _feedback.status("Waiting for device to go into programming mode.. (" + std::to_string(remaining) + ")");
        const SerialPortList ports = SerialPortManager::sharedSerialPortManager().availablePorts();
        for (const auto& port : ports) {
            const CombinedUsbIdentifier code = usbIdentifierOf(ports, port->path());
            if (std::find(wanted.begin(), wanted.end(), code) == wanted.end()) {
                continue;
            }
            // Another board waiting in its boot loader is never flashed in this one's place.
            if (usbSocket && usbLocation(*port) != usbSocket) {
                continue;
            }
            return tool == FlashingTool::Bossac ? runBossac(hexFile, port->path())
                                                : runAvrdude(hexFile, port->path(), code);
        }
        _clock.sleepFor(Clock::Seconds(1.0));
        const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(_clock.now() - start).count();
        remaining = kReappearanceSeconds - elapsed;
    }
    _feedback.failure("Unable to reset device into programming mode!");
    return false;
}

} // namespace quendral
