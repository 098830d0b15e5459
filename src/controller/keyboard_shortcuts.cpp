// MainViewController: the main window's keyboard shortcuts, the hidden ones
// that ask the server for a particular build among them.
#include "controller/keyboard_shortcuts.h"
#include "controller/main_view_controller.h"

#include "log/logger.h"

namespace quendral {

void MainViewController::handleKeyDown(std::uint64_t modifierFlags, std::uint16_t keyCode)
{
    // Exact comparison: with Caps Lock or Control held as well, nothing fires.
    const std::uint64_t flags = modifierFlags & ~std::uint64_t{0xFFFF};
    if (flags == (keys::Command | keys::Shift)) {
        switch (keyCode) {
        case keys::S:
            setSkipWait(true);
            break;
        case keys::C:
            if (_view.isControlEnabled(Control::ConfigurationButton)) {
                configureController();
            }
            break;
        case keys::U:
            if (_view.isControlEnabled(Control::UpdatesButton)) {
                checkForUpdate();
            }
            break;
        case keys::L:
            // The web configuration's own button too: both are off during every job.
            if (_view.isControlEnabled(Control::LocalConfigurationButton) &&
                _view.isControlEnabled(Control::WebConfigButton)) {
                (void)toggleWebconfig();
            }
            break;
        case keys::M:
            if (_view.isControlEnabled(Control::SerialMonitorButton)) {
                openSerialMonitor();
            }
            break;
        default:
            break;
        }
        return;
    }
    if (flags != (keys::Command | keys::Option | keys::Shift) || !_view.isControlEnabled(Control::UpdatesButton)) {
        return;
    }
    switch (keyCode) {
    case keys::U:
        Logger::log("Master requested");
        checkForUpdate(std::string("master"));
        break;
    case keys::W:
        Logger::log("Master requested, do not delete");
        checkForUpdate(std::string("masternodelete"));
        break;
    case keys::B: {
        Logger::log("Branch requested");
        const auto branch =
            _view.askForText("Branch Selection", "Please enter a branch you want to build from the server");
        if (branch) {
            Logger::log("Selected Branch: " + *branch);
            checkForUpdate("branch_" + *branch);
        } else {
            Logger::log("Canceled Branch Selection");
        }
        break;
    }
    default:
        break;
    }
}

} // namespace quendral
