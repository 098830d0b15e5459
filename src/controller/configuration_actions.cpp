// MainViewController: the configuration buttons and the services every action uses.
#include "controller/main_view_controller.h"

#include "log/logger.h"
#include "platform/dispatch.h"

#include <cctype>
#include <cstdio>

#ifndef QUENDRAL_ONLINE_CONFIG_HOST
#error "QUENDRAL_ONLINE_CONFIG_HOST must be defined by the build"
#endif

namespace quendral {
namespace {

const char* const kNoPortMessage = "Please select a device from the drop-down menu.";

std::string percentEncoded(const std::string& text)
{
    std::string encoded;
    for (const unsigned char c : text) {
        if (std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~') {
            encoded += static_cast<char>(c);
        } else {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", c);
            encoded += escape;
        }
    }
    return encoded;
}

} // namespace

std::string MainViewController::onlineConfigurationURL(const std::string& cid)
{
    return std::string("https://") + QUENDRAL_ONLINE_CONFIG_HOST + "/?CID=" + percentEncoded(cid);
}

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
    const auto path = beginPortAction("User clicked online configuration");
    if (!path) {
        return;
    }
    runActionInBackground(
        [this](const std::string& /*port*/) {
            if (const auto cid = getCID()) {
                _view.openURL(onlineConfigurationURL(*cid));
                return;
            }
            // A Controller that answered with a message has had it shown already.
            if (!deviceMessage() && !portAccessDenied()) {
                showAlert("Could not get device identification. Please contact support.");
            }
        },
        *path);
}

void MainViewController::localConfig()
{
    const auto path = beginPortAction("User clicked local configuration (legacy)");
    if (!path) {
        return;
    }
    runActionInBackground(
        [this](const std::string& /*port*/) {
            if (const auto address = getIP()) {
                _view.openURL("http://" + *address);
                return;
            }
            if (portAccessDenied()) {
                return;
            }
            Logger::log("Error Could not get Ip for local config");
            showAlert("Could not get device IP. Please contact support.");
        },
        *path);
}

void MainViewController::webConfig()
{
    const auto path = beginPortAction("User clicked local configuration (webconfig)");
    if (!path) {
        return;
    }
    runActionInBackground(
        [this](const std::string& /*port*/) {
            const auto result = toggleWebconfig();
            _view.setStatusText("");
            if (!result && portAccessDenied()) {
                return;
            }
            if (!result) {
                Logger::log("Error toggling Webconfig.");
                showAlert("Error toggling Webconfig.");
                return;
            }
            if (*result == "off") {
                Logger::log("Webconfig is now off");
                showAlert("Webconfig sucessfully disabeled");
                return;
            }
            Logger::log("Webconfig is now on!");
            _view.openURL("http://" + *result);
        },
        *path);
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
    return _view.showDialog(message);
}

void MainViewController::showAlert(const std::string& message)
{
    _view.showAlert(message);
}

void MainViewController::progressChanged(const Notification& notification)
{
    double percent = 0;
    if (const auto* d = notification.objectAs<double>()) {
        percent = *d;
    } else if (const auto* i = notification.objectAs<int>()) {
        percent = *i;
    } else if (const auto* l = notification.objectAs<long>()) {
        percent = static_cast<double>(*l);
    } else if (const auto* u = notification.objectAs<unsigned long>()) {
        percent = static_cast<double>(*u);
    } else if (const auto* ll = notification.objectAs<long long>()) {
        percent = static_cast<double>(*ll);
    } else if (const auto* ull = notification.objectAs<unsigned long long>()) {
        percent = static_cast<double>(*ull);
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
