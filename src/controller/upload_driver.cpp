// MainViewController: putting a firmware file onto the selected board.
#include "controller/main_view_controller.h"

#include "controller/controller_port.h"
#include "controller/firmware_image_check.h"
#include "flashing/avrdude_wrapper.h"
#include "flashing/bossac_wrapper.h"
#include "log/logger.h"
#include "platform/dispatch.h"
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
void resetUnlessRemoved(PortList& portList, const std::string& path, int delay)
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
    portList.resetDevice(path, delay, removed.get_token());
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

CombinedUsbIdentifier MainViewController::identifySelectedBoard() const
{
    // A port can be between two states of the registry; ask a few times.
    CombinedUsbIdentifier code = 0;
    for (int attempt = 0; attempt < kIdentificationAttempts && code == 0; ++attempt) {
        code = getPIDVID(pathOfSelectedPort().value_or(std::string()));
    }
    return code;
}

bool MainViewController::uploadSketch(const std::string& hexFile)
{
    return flashFile(hexFile) == UpdateOutcome::Updated;
}

UpdateOutcome MainViewController::flashFile(const std::string& hexFile)
{
    Logger::log("Uploading firmware " + hexFile);
    dispatch::mainQueue()->sync([this] {
        if (_appDelegate != nullptr) {
            _appDelegate->closeSerialMonitor();
        }
        _view.setProgress(0.0);
        _view.startProgressAnimation();
    });
    beginPortUse();
    const CombinedUsbIdentifier code = identifySelectedBoard();
    const BoardIdentification* board = BoardTable::find(code);
    // Before the board hears of an update: both tools erase first and read
    // the file afterwards.
    if (board != nullptr) {
        if (const auto problem = firmware::imageFileProblem(hexFile, *board)) {
            Logger::log("ERROR, firmware file refused: " + *problem);
            showAlert("This firmware cannot be flashed onto the " + std::string(board->chip) + ": " + *problem +
                      ". Nothing was changed on the Controller.");
            return UpdateOutcome::ImageRejected;
        }
    }

    // Tell the firmware that an update follows; no answer is read.
    const auto selected = pathOfSelectedPort();
    auto port = selected ? SerialPort::serialPortWithPath(*selected) : nullptr;
    setSerial(port);
    if (port) {
        openControllerPort(*port);
        if (!port->isOpen()) {
            noteOpenFailure(*port);
        }
        port->sendData(std::string_view("prepareUpload\n"));
        port->close();
    }
    if (portAccessDenied()) {
        return UpdateOutcome::PortAccessDenied; // neither the touch nor the tool could open it either
    }
    _clock.sleepFor(Clock::Seconds(0));

    if (board == nullptr) {
        _view.setStatusText("Error: Unable to identify device");
        return UpdateOutcome::UploadFailed;
    }
    // From the touch on the board may be erased (a SAM board's touch erases
    // its flash): quitting now asks first.
    const auto toolRun = flashingToolRun();
    bool flashed = false;
    if (!board->waitsForBootloader) {
        _avrdude = std::make_shared<AvrdudeWrapper>();
        const std::string path = pathOfSelectedPort().value_or(std::string());
        flashed = _avrdude->startUpload(hexFile, path, getPIDVID(path));
    } else {
        if (board->resetDelaySeconds && selected) {
            resetUnlessRemoved(_portList, *selected, *board->resetDelaySeconds);
        }
        const auto wanted = BoardTable::bootloaderIdentifiers(board->family);
        flashed = waitForBootloaderAndFlash(hexFile, wanted, board->tool);
    }
    return flashed ? UpdateOutcome::Updated : UpdateOutcome::UploadFailed;
}

bool MainViewController::waitForBootloaderAndFlash(const std::string& hexFile,
                                                   const std::vector<CombinedUsbIdentifier>& wanted, FlashingTool tool)
{
    const auto start = _clock.now();
    long remaining = kReappearanceSeconds;
    while (remaining >= 1) {
        postStatusText("Waiting for device to go into programming mode.. (" + std::to_string(remaining) + ")");
        for (const auto& port : SerialPortManager::sharedSerialPortManager().availablePorts()) {
            const CombinedUsbIdentifier code = getPIDVID(port->path());
            if (std::find(wanted.begin(), wanted.end(), code) == wanted.end()) {
                continue;
            }
            if (tool == FlashingTool::Bossac) {
                auto bossac = std::make_shared<BossacWrapper>(port->path());
                _bossac = bossac;
                const ScopedObserver departure = endToolIfPortGoes(bossac, port->path());
                return bossac->startUpload(hexFile);
            }
            _avrdude = std::make_shared<AvrdudeWrapper>();
            return _avrdude->startUpload(hexFile, port->path(), code);
        }
        _clock.sleepFor(Clock::Seconds(1.0));
        const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(_clock.now() - start).count();
        remaining = kReappearanceSeconds - elapsed;
    }
    postStatusText("Unable to reset device into programming mode!");
    return false;
}

void MainViewController::loadFirmwareFile()
{
    if (!pathOfSelectedPort()) {
        showAlert("Please select a device from the drop-down menu.");
        return;
    }
    const auto file = _view.chooseFirmwareFile();
    if (!file) {
        return;
    }
    [[maybe_unused]] const auto title = _view.selectedPortTitle();
    auto self = shared_from_this();
    dispatch::globalQueue()->async([self, file = *file] {
        self->toggleUI(false);
        const UpdateOutcome outcome = self->flashFile(file);
        self->toggleUI(true);
        self->finishUpload(outcome);
    });
}

void MainViewController::updateFromConfig(const Notification& /*notification*/)
{
    loadFirmwareFile();
}

} // namespace quendral
