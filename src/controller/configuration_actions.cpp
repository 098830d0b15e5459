// MainViewController: the configuration buttons and the services every action uses.
#include "controller/main_view_controller.h"

#include "controller/browser_configuration.h"
#include "log/logger.h"
#include "platform/dispatch.h"

namespace quendral {
namespace {

const char* const kNoPortMessage = "Please select a device from the drop-down menu.";

} // namespace

std::optional<std::string> MainViewController::selectedPortOrAlert()
{
    auto path = pathOfSelectedPort();
    if (!path) {
        Logger::log("Error: No selected port");
        showAlert(kNoPortMessage);
    }
    return path;
}

std::optional<std::string> MainViewController::beginPortAction(const std::string& logLine)
{
    Logger::log(logLine);
    // The monitor would hold the port.
    if (_appDelegate != nullptr) {
        _appDelegate->closeSerialMonitor();
    }
    return selectedPortOrAlert();
}

void MainViewController::runActionInBackground(std::function<void(const std::string& path)> work, std::string path)
{
    toggleUI(false);
    auto self = shared_from_this();
    dispatch::globalQueue()->async([self, work = std::move(work), path = std::move(path)] {
        work(path);
        self->toggleUI(true);
    });
}

void MainViewController::openSerialMonitor()
{
    Logger::log("User clicked open serial monitor");
    if (!selectedPortOrAlert()) {
        return;
    }
    if (_appDelegate != nullptr && !_appDelegate->getSerialMonitorState()) {
        if (const auto path = pathOfSelectedPort()) {
            _appDelegate->openSerialMonitor(*path);
        }
    }
}

void MainViewController::ipConfig()
{
    const auto path = beginPortAction("User clicked IP Configuration");
    if (!path) {
        return;
    }
    if (_appDelegate != nullptr && _appDelegate->getIPConfigState()) {
        return; // the IP window is open already
    }
    runActionInBackground(
        [this](const std::string& port) {
            const auto lines = getIPConfig();
            if (!lines.empty()) {
                if (_appDelegate != nullptr) {
                    _appDelegate->openIPConfig(port, lines);
                }
                return;
            }
            if (portAccessDenied()) {
                return; // the owner has been told why, with the fix
            }
            Logger::log("Error Could not get IP configuration from controller");
            showAlert("Could not get device IP configuration");
        },
        *path);
}

void MainViewController::configureController()
{
    if (const auto path = beginPortAction("User clicked online configuration")) {
        runActionInBackground(
            [this](const std::string&) { openOnlineConfiguration(*_link, _feedback, selectedPort()); }, *path);
    }
}

void MainViewController::localConfig()
{
    if (const auto path = beginPortAction("User clicked local configuration (legacy)")) {
        runActionInBackground([this](const std::string&) { openLocalConfiguration(*_link, _feedback, selectedPort()); },
                              *path);
    }
}

void MainViewController::webConfig()
{
    if (const auto path = beginPortAction("User clicked local configuration (webconfig)")) {
        runActionInBackground([this](const std::string&) { toggleWebConfiguration(*_link, _feedback, selectedPort()); },
                              *path);
    }
}

void MainViewController::toggleUI(bool enabled)
{
    std::weak_ptr<MainViewController> weakSelf = weak_from_this();
    dispatch::mainQueue()->async([weakSelf, enabled] {
        auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        for (const Control control :
             {Control::SerialMonitorButton, Control::LoadFirmwareButton, Control::PortMenu, Control::UpdatesButton,
              Control::ConfigurationButton, Control::LocalConfigurationButton}) {
            self->_view.setControlEnabled(control, enabled);
        }
        if (self->_appDelegate != nullptr) {
            self->_appDelegate->setUpdateMenuEnable(enabled);
        }
        self->_view.setControlEnabled(Control::IpConfigButton, enabled);
        // Not in the controls' historical list, but pressed during a flash it
        // stops the tool and leaves the board without firmware.
        self->_view.setControlEnabled(Control::WebConfigButton, enabled);
    });
}

bool MainViewController::showDialog(const std::string& message)
{
    return _feedback.ask(message);
}

void MainViewController::showAlert(const std::string& message)
{
    _feedback.alert(message);
}

void MainViewController::progressChanged(const Notification& notification)
{
    // The tools post an int; a number posted as a double is taken as well.
    double percent = 0;
    if (const auto* whole = notification.objectAs<int>()) {
        percent = *whole;
    } else if (const auto* fraction = notification.objectAs<double>()) {
        percent = *fraction;
    } else {
        return; // not a number: nothing to show
    }
    std::weak_ptr<MainViewController> weakSelf = weak_from_this();
    dispatch::mainQueue()->async([weakSelf, percent] {
        if (auto self = weakSelf.lock()) {
            self->_view.setProgress(percent);
        }
    });
}

void MainViewController::uploadState(const Notification& notification)
{
    const auto* text = notification.objectAs<std::string>();
    if (text == nullptr) {
        return;
    }
    std::weak_ptr<MainViewController> weakSelf = weak_from_this();
    dispatch::mainQueue()->async([weakSelf, state = *text] {
        if (auto self = weakSelf.lock()) {
            self->_view.setStatusText(state);
        }
    });
}

} // namespace quendral
