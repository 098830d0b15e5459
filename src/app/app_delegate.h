#pragma once
// Starts the program and owns its three windows: the main window, the serial
// monitor and the IP configuration. Serves the two menu commands (update from
// a file, show the log).
#include "controller/main_view.h"
#include "controller/update_server_client.h"
#include "platform/clock.h"
#include "windows/window_host.h"

#include <QObject>
#include <QSize>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QAction;
class QMainWindow;

namespace quendral {
class MainViewController;
namespace windows {
class SerialMonitor;
class IPConfig;
} // namespace windows
} // namespace quendral

namespace quendral::app {

class HostWindow;
class QtMainView;

class AppDelegate final : public QObject, public ApplicationDelegate, public windows::WindowHost {
    Q_OBJECT
public:
    AppDelegate();
    ~AppDelegate() override;
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    void applicationDidFinishLaunching();
    // The device lab's window talks to its local update server; the
    // application itself keeps the build's server and reads no settings.
    void setUpdateServerConfig(UpdateServerConfig config) { _serverConfig = std::move(config); }
    // Before launch, for tests: the clock of the controller's waiting
    // procedures, and a driver check that can report the FTDI driver missing
    // (the Linux kernel always has it).
    void setClock(Clock& clock) { _clock = &clock; }
    void setFTDIDriverCheck(std::function<bool()> check) { _ftdiDriverCheck = std::move(check); }

    // --- ApplicationDelegate and WindowHost ---
    void openSerialMonitor(const std::string& path) override;
    void closeSerialMonitor() override;
    [[nodiscard]] bool getSerialMonitorState() const override;
    // Callable from any thread: the window work moves to the main queue.
    void openIPConfig(const std::string& path, const std::vector<std::string>& lines) override;
    [[nodiscard]] bool getIPConfigState() const override;
    void setUpdateMenuEnable(bool enabled) override;
    void closeIPConfig() override;

    // --- menu commands ---
    void updateFromFile();
    void showLog();
    void serialMonitorClosing();
    // File > Quit: ends the whole application (every window, every port),
    // after asking while a flashing tool writes a board.
    void quit();

    // The sender of "updateFromConfig": the one address the controller filters on.
    [[nodiscard]] const void* notificationSender() const { return static_cast<const ApplicationDelegate*>(this); }

    [[nodiscard]] QMainWindow* mainWindow() const { return _mainWindow.get(); }
    [[nodiscard]] QtMainView* mainView() const { return _mainView; }
    [[nodiscard]] HostWindow* serialMonitorWindow() const { return _serialMonitorWindow.get(); }
    [[nodiscard]] HostWindow* ipConfigWindow() const { return _ipConfigWindow.get(); }
    [[nodiscard]] windows::SerialMonitor* serialMonitorController() const { return _serialMonitorController; }
    [[nodiscard]] windows::IPConfig* ipConfigController() const { return _ipConfigController; }
    [[nodiscard]] QAction* updateConfigMenuItem() const { return _updateConfigMenuItem; }
    [[nodiscard]] const std::shared_ptr<MainViewController>& mainViewController() const { return _mainViewController; }

protected:
    // The main window's close, which asks as quitting does.
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void buildMenus();
    // Shows a secondary window at `wanted` size (its view's own), placed by
    // window_placement.h and transient for the main window; one that is
    // visible already stays where it is.
    void showBesideMainWindow(HostWindow& window, QSize wanted);
    void connectButtons();
    // True when nothing is being flashed, or the user chose to quit anyway.
    bool mayQuitNow();

    std::unique_ptr<QMainWindow> _mainWindow;
    std::unique_ptr<HostWindow> _serialMonitorWindow;
    std::unique_ptr<HostWindow> _ipConfigWindow;
    QtMainView* _mainView = nullptr; // owned by the main window
    QAction* _updateConfigMenuItem = nullptr;
    std::shared_ptr<MainViewController> _mainViewController;
    std::optional<UpdateServerConfig> _serverConfig;
    Clock* _clock = &systemClock();
    std::function<bool()> _ftdiDriverCheck;
    windows::SerialMonitor* _serialMonitorController = nullptr; // owned by its window
    windows::IPConfig* _ipConfigController = nullptr;           // owned by its window
    bool _quitting = false;
};

} // namespace quendral::app
