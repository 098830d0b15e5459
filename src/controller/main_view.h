#pragma once
// What the main window controller needs from its window. The Qt window, the
// terminal front end and the tests each implement it; the controller never
// touches a widget.
//
// Threading: every method is called on the main queue (the controller's work
// reaches the view through ViewFeedback, which makes that hop), except the
// two reads of the port menu that say otherwise.
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace quendral {

// The main window's controls that toggleUI enables and disables, in its order.
enum class Control {
    SerialMonitorButton,
    LoadFirmwareButton,
    PortMenu,
    UpdatesButton,
    ConfigurationButton,
    LocalConfigurationButton,
    IpConfigButton,
    // Last: switching the web server mid-flash takes the port from the tool.
    WebConfigButton,
};
inline constexpr std::size_t kControlCount = static_cast<std::size_t>(Control::WebConfigButton) + 1;

class MainView {
public:
    virtual ~MainView() = default;

    // --- status line ("uploadState") and progress bar ("uploadProgress") ---
    virtual void setStatusText(const std::string& text) = 0;
    // The server-error text whose last `linkLength` characters link to `url`.
    virtual void setStatusTextWithLink(const std::string& text, std::size_t linkLength, const std::string& url) = 0;
    virtual void setProgress(double percent) = 0;
    virtual void startProgressAnimation() = 0;

    // --- controls ---
    virtual void setControlEnabled(Control control, bool enabled) = 0;
    [[nodiscard]] virtual bool isControlEnabled(Control control) const = 0;

    // --- port menu: titles only; paths are looked up again each time ---
    // Safe to call from any thread (background work reads the selection).
    [[nodiscard]] virtual std::vector<std::string> portMenuTitles() const = 0;
    [[nodiscard]] virtual std::optional<std::string> selectedPortTitle() const = 0;
    virtual void removeAllPortMenuItems() = 0;
    virtual void addPortMenuItem(const std::string& title) = 0;
    virtual void selectPortMenuItem(const std::string& title) = 0;

    // --- modal messages; block until answered ---
    virtual void showAlert(const std::string& message) = 0;
    // "Ok"/"Cancel"; true for "Ok".
    virtual bool showDialog(const std::string& message) = 0;
    // The branch selection: message, informative text, "Ok"/"Cancel" and a text
    // field. The entered text, or none when cancelled.
    virtual std::optional<std::string> askForText(const std::string& message, const std::string& informativeText) = 0;
    // The FTDI driver alert: true when its first button was chosen.
    virtual bool showDriverAlert(const std::string& message, const std::string& informativeText,
                                 const std::string& defaultButton, const std::string& alternateButton) = 0;
    // The file-open panel for a ".hex" firmware file; none when cancelled.
    virtual std::optional<std::string> chooseFirmwareFile() = 0;

    // --- the desktop ---
    virtual void openURL(const std::string& url) = 0;
};

// What the main window controller needs from the application delegate (the
// secondary windows and the update-from-file menu item).
class ApplicationDelegate {
public:
    virtual ~ApplicationDelegate() = default;
    virtual void openSerialMonitor(const std::string& path) = 0;
    virtual void closeSerialMonitor() = 0;
    // True only when the monitor window is visible and its port is not open.
    [[nodiscard]] virtual bool getSerialMonitorState() const = 0;
    virtual void openIPConfig(const std::string& path, const std::vector<std::string>& lines) = 0;
    [[nodiscard]] virtual bool getIPConfigState() const = 0;
    virtual void setUpdateMenuEnable(bool enabled) = 0;
};

} // namespace quendral
