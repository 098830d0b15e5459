// MainViewController: the update button and the firmware file.
#include "controller/main_view_controller.h"

#include "log/logger.h"
#include "platform/dispatch.h"

namespace quendral {

void MainViewController::checkForUpdate()
{
    Logger::log("User clicked check for update");
    checkForUpdate(std::nullopt);
}

void MainViewController::checkForUpdate(const std::optional<std::string>& version)
{
    Logger::log("Checking for update");
    if (_appDelegate != nullptr) {
        _appDelegate->closeSerialMonitor();
    }
    _view.setProgress(0.0);
    _view.startProgressAnimation();

    const auto path = pathOfSelectedPort();
    if (!path) {
        showAlert("Please select a device from the drop-down menu.");
        finishUpload(UpdateOutcome::NoPortSelected);
        return;
    }
    toggleUI(false);
    const BoardIdentification* board = _job.boardToUpdate(*path);
    if (board == nullptr) {
        toggleUI(true);
        finishUpload(UpdateOutcome::UnsupportedDevice);
        return;
    }
    auto self = shared_from_this();
    dispatch::globalQueue()->async([self, board, version] {
        const UpdateOutcome outcome = self->_job.run(self->selectedPort(), *board, version, self->_updateServer);
        self->toggleUI(true);
        self->finishUpload(outcome);
    });
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

void MainViewController::finishUpload(UpdateOutcome outcome)
{
    std::function<void(UpdateOutcome)> handler;
    {
        std::lock_guard lock(_handlerMutex);
        handler = _onUpdateFinished;
    }
    if (handler) {
        handler(outcome);
    }
}

void MainViewController::setUpdateFinishedHandler(std::function<void(UpdateOutcome)> handler)
{
    std::lock_guard lock(_handlerMutex);
    _onUpdateFinished = std::move(handler);
}

} // namespace quendral
