#pragma once
// The main window's presenter: it keeps the window's operations under their
// own names and hands each piece of work to the core class that does it,
// with the port selected in the port menu:
//
//   ControllerLink     the text protocol (controller_link.*)
//   FirmwareUploader   a firmware file onto a board (firmware_uploader.*)
//   UpdateJob          the whole update (update_job.*)
//   PortList           the port menu (port_list.*)
//
// Its own files: main_view_controller.cpp (construction, the delegate side,
// the procedures' faces), configuration_actions.cpp (the buttons),
// update_actions.cpp (the update button and the firmware file).
//
// Threading: the work runs on a background queue; what it tells the owner
// reaches the view through ViewFeedback, one hop to the main queue.
//
// Always owned by a std::shared_ptr (create()): background work keeps it alive.
#include "controller/browser_configuration.h"
#include "controller/controller_link.h"
#include "controller/firmware_uploader.h"
#include "controller/main_view.h"
#include "controller/port_list.h"
#include "controller/update_job.h"
#include "controller/update_outcome.h"
#include "controller/update_server_client.h"
#include "controller/view_feedback.h"
#include "flashing/board_table.h"
#include "platform/clock.h"
#include "platform/notification_center.h"
#include "serial/serial_port.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral {

class MainViewController : public SerialPortDelegate, public std::enable_shared_from_this<MainViewController> {
public:
    static std::shared_ptr<MainViewController> create(MainView& view, ApplicationDelegate* appDelegate,
                                                      Clock& clock = systemClock());
    MainViewController(MainView& view, ApplicationDelegate* appDelegate, Clock& clock);
    ~MainViewController() override;
    MainViewController(const MainViewController&) = delete;
    MainViewController& operator=(const MainViewController&) = delete;

    // The window has loaded: the port menu is built, the notifications of the
    // port manager, the flashing tools and the "update from file" menu command
    // are observed, and a missing FTDI driver is reported.
    void viewDidLoad();

    // --- the Controller text protocol, on the selected port (ControllerLink) ---
    bool requestCID(const std::string& path) { return _link->requestCID(path); }
    std::optional<std::string> getCID() { return _link->getCID(selectedPort()); }
    std::optional<std::string> getIP() { return _link->getIP(selectedPort()); }
    std::vector<std::string> getIPConfig() { return _link->getIPConfig(selectedPort()); }
    std::optional<std::string> toggleWebconfig() { return _link->toggleWebconfig(selectedPort()); }

    // The skip key: ends every waiting loop at its next test. Cleared only by getCID.
    void setSkipWait(bool skip) { _link->setSkipWait(skip); }
    [[nodiscard]] bool skipWait() const { return _link->skipWait(); }

    // --- controller state ---------------------------------------------------
    [[nodiscard]] std::optional<std::string> deviceCID() const { return _link->deviceCID(); }
    [[nodiscard]] std::optional<std::string> currentVersion() const { return _link->currentVersion(); }
    [[nodiscard]] std::optional<std::string> deviceMessage() const { return _link->deviceMessage(); }
    [[nodiscard]] std::optional<std::string> deviceIP() const { return _link->deviceIP(); }
    [[nodiscard]] std::vector<std::string> ipDump() const { return _link->ipDump(); }
    [[nodiscard]] bool dumpingIP() const { return _link->dumpingIP(); }
    // Main queue only, like the parser that fills it.
    [[nodiscard]] const std::vector<std::uint8_t>& serialInput() const { return _link->serialInput(); }
    // The port currently used for the protocol.
    [[nodiscard]] SerialPort::Ptr serial() const { return _link->serial(); }
    [[nodiscard]] bool portAccessDenied() const { return _link->portAccessDenied(); }
    [[nodiscard]] ControllerLink& link() { return *_link; }

    // --- port list (port_list.cpp) ----------------------------------------------
    // The device path of the port selected in the port menu, looked up afresh
    // on every call (from background threads too).
    [[nodiscard]] std::optional<std::string> pathOfSelectedPort() const { return _portList.pathOfSelectedPort(); }
    [[nodiscard]] std::optional<std::string> pathOfSerialPortWithName(const std::string& name) const
    {
        return _portList.pathOfSerialPortWithName(name);
    }
    [[nodiscard]] CombinedUsbIdentifier getPIDVID(const std::string& path) const { return _portList.getPIDVID(path); }
    // Rebuilds the port menu on the main queue.
    void updateSerialPorts() { _portList.updateSerialPorts(); }
    // The 1200-baud touch; blocks (background only). The port becomes `serial`.
    void resetDevice(const std::string& path, int delay) { _portList.resetDevice(path, delay); }
    [[nodiscard]] static bool isFTDIInstalled() { return PortList::isFTDIInstalled(); }
    void alertDidClose(int returnCode) { _portList.alertDidClose(returnCode); }
    // The view's loading: the port manager's notifications rebuild the menu;
    // the driver check warns when the FTDI driver is missing.
    void observePortChanges() { _portList.observePortChanges(); }
    void warnIfFTDIDriverMissing()
    {
        _portList.warnIfFTDIDriverMissing(_ftdiDriverCheck ? _ftdiDriverCheck() : isFTDIInstalled());
    }
    // Replaces the driver check viewDidLoad runs. Linux always has the FTDI
    // driver, so only a test can show the warning path through the window.
    void setFTDIDriverCheck(std::function<bool()> check) { _ftdiDriverCheck = std::move(check); }
    [[nodiscard]] PortList& portList() { return _portList; }

    // --- configuration actions (configuration_actions.cpp) ----------------------
    // The main window's buttons besides the update. Each logs, checks that a
    // port is selected, disables the controls and does its work on the global
    // queue; the controls are enabled again when the work ends.
    void openSerialMonitor();
    void ipConfig();
    void configureController();
    void localConfig();
    void webConfig();
    // Enables or disables the window's controls (on the main queue, in order).
    void toggleUI(bool enabled);
    // A modal question with "Ok" and "Cancel"; true for "Ok". Blocks a background caller.
    bool showDialog(const std::string& message);
    // A modal message with one "Ok" button; blocks a background caller until answered.
    void showAlert(const std::string& message);
    // Observers of the flashing tools' "uploadProgress" and "uploadState".
    void progressChanged(const Notification& notification);
    void uploadState(const Notification& notification);
    // The online configuration page of a Controller.
    [[nodiscard]] static std::string onlineConfigurationURL(const std::string& cid)
    {
        return quendral::onlineConfigurationURL(cid);
    }

    // --- the firmware file (update_actions.cpp, FirmwareUploader) ------------------
    // Puts a HEX file onto the selected board. True when the tool reported
    // success. Blocks: background only.
    bool uploadSketch(const std::string& hexFile) { return flashFile(hexFile) == UpdateOutcome::Updated; }
    // uploadSketch with the outcome: also says whether the file was refused
    // by its check or the port by its permissions (nothing touched then).
    UpdateOutcome flashFile(const std::string& hexFile) { return _uploader.flashFile(selectedPort(), hexFile); }
    // The user's "load firmware file": a file chosen in the view, flashed in the background.
    void loadFirmwareFile();
    // True from the boot-loader reset until avrdude or bossac has finished
    // writing a board for this controller; asked from any thread (the window
    // asks before it lets the user quit).
    [[nodiscard]] bool flashingToolRunning() const { return _uploader.flashingToolRunning(); }
    // The application delegate's "update from file" menu command.
    void updateFromConfig(const Notification& notification);

    // --- the update (update_actions.cpp, UpdateJob) ---------------------------------
    // The update button: checkForUpdate with no requested version.
    void checkForUpdate();
    // Checks for, fetches, verifies, flashes and reports an update; the work
    // runs on the global queue. `version`: "master", "masternodelete",
    // "branch_<name>" or none (the server decides).
    void checkForUpdate(const std::optional<std::string>& version);
    // A key-down event of the main window (see keyboard_shortcuts.h); the event
    // always goes on to the window unchanged.
    void handleKeyDown(std::uint64_t modifierFlags, std::uint16_t keyCode);
    // Where the update server is (the window keeps the build's default).
    void setUpdateServerConfig(UpdateServerConfig config);
    // Called with the outcome when an update check or an upload from a file
    // has ended (on the thread that ran it). The window needs none; the
    // command line turns it into its exit code.
    void setUpdateFinishedHandler(std::function<void(UpdateOutcome)> handler);
    // Why the last update check could not use the server's answer to its
    // query (see ServerProblem); none when it could, or when it asked nothing.
    [[nodiscard]] std::optional<ServerProblemReport> serverProblem() const;

    // --- SerialPortDelegate: the link's reply parser ---------------------------
    [[nodiscard]] bool respondsTo(SerialPortDelegateCallback callback) const override
    {
        return _link->respondsTo(callback);
    }
    void serialPortDidReceiveData(const std::shared_ptr<SerialPort>& port, const SerialData& data) override
    {
        _link->serialPortDidReceiveData(port, data);
    }
    void serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& port) override
    {
        _link->serialPortWasRemovedFromSystem(port);
    }

protected:
    MainView& _view;
    ApplicationDelegate* _appDelegate;
    Clock& _clock;

private:
    // The selected port, looked up afresh at every step of the work.
    [[nodiscard]] PortPath selectedPort() const;
    // The common opening of the port actions: the selected path, or none after
    // telling the user that nothing is selected.
    std::optional<std::string> selectedPortOrAlert();
    // The opening of the four port actions: their log line, the serial monitor
    // closed, then the selected path (or none, after telling the user).
    std::optional<std::string> beginPortAction(const std::string& logLine);
    // Runs an action's work on the global queue with the controls disabled.
    void runActionInBackground(std::function<void(const std::string& path)> work, std::string path);
    void finishUpload(UpdateOutcome outcome);

    ViewFeedback _feedback;
    std::shared_ptr<ControllerLink> _link;
    FirmwareUploader _uploader;
    UpdateJob _job;
    PortList _portList;
    UpdateServerClient _updateServer;
    mutable std::mutex _handlerMutex;
    std::function<void(UpdateOutcome)> _onUpdateFinished;
    std::function<bool()> _ftdiDriverCheck;
    std::vector<ScopedObserver> _observers;
};

} // namespace quendral
