#pragma once
// The main window's controller: the hub that talks to Controllers over their
// serial port and drives the window through MainView.
//
// Its concerns live in files of their own:
//   text_protocol.cpp         opening a port for the protocol, requestCID and
//                             the waiting procedures getCID, getIP,
//                             getIPConfig, toggleWebconfig
//   main_view_controller.cpp  construction, the delegate side (reply parser),
//                             small services shared by the concerns
//   reply_parser.*            turning received bytes into ControllerState
//   port_list.*               the port menu, paths, USB identities, the
//                             1200-baud touch (PortList, which this owns)
//
// Threading: the waiting procedures block their caller (one-second sleeps on
// the injected Clock) and are meant for a background queue; they post their
// status texts to the main queue. The reply parser runs on the main queue as
// the port's delegate. ControllerState makes the shared fields safe.
//
// Always owned by a std::shared_ptr (create()): ports hold it as a weak delegate.
#include "controller/controller_state.h"
#include "controller/main_view.h"
#include "controller/port_list.h"
#include "controller/reply_parser.h"
#include "controller/update_outcome.h"
#include "controller/update_server_client.h"
#include "flashing/board_table.h"
#include "platform/clock.h"
#include "platform/computer_wide_lock.h"
#include "platform/notification_center.h"
#include "serial/serial_port.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral {

class AvrdudeWrapper;
class BossacWrapper;

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

    // --- Controller text protocol (text_protocol.cpp) -------------------------
    // Opens the port on `path` if needed and asks for identifier and version.
    // True when the port was open and both requests were written.
    bool requestCID(const std::string& path);
    // Up to about 20 s, plus 1 s: the identifier, or none.
    std::optional<std::string> getCID();
    // 2 s, then up to about 20 s: the address announced in configuration mode, or none.
    std::optional<std::string> getIP();
    // Up to about 20 s: the lines of the IP dump (possibly empty).
    std::vector<std::string> getIPConfig();
    // 3 s: the web server's address, "off", or none.
    std::optional<std::string> toggleWebconfig();

    // The skip key: ends every waiting loop at its next test. Cleared only by getCID.
    void setSkipWait(bool skip) { _state.setSkipWait(skip); }
    [[nodiscard]] bool skipWait() const { return _state.skipWait(); }

    // --- controller state ---------------------------------------------------
    [[nodiscard]] std::optional<std::string> deviceCID() const { return _state.deviceCID(); }
    [[nodiscard]] std::optional<std::string> currentVersion() const { return _state.currentVersion(); }
    [[nodiscard]] std::optional<std::string> deviceMessage() const { return _state.deviceMessage(); }
    [[nodiscard]] std::optional<std::string> deviceIP() const { return _state.deviceIP(); }
    [[nodiscard]] std::vector<std::string> ipDump() const { return _state.ipDump(); }
    [[nodiscard]] bool dumpingIP() const { return _state.dumpingIP(); }
    // Main queue only, like the parser that fills it.
    [[nodiscard]] const std::vector<std::uint8_t>& serialInput() const { return _parser.serialInput(); }
    // The port currently used for the protocol.
    [[nodiscard]] SerialPort::Ptr serial() const;
    // The current procedure could not open the port because this user may
    // not (EACCES, EPERM). The owner has been told once, with the fix; the
    // waits ended at once, and callers add no failure text of their own.
    [[nodiscard]] bool portAccessDenied() const { return _accessDenied.load(); }

    // --- port list (port_list.cpp) ----------------------------------------------
    // The device path of the port selected in the port menu, looked up afresh
    // on every call (from background threads too).
    [[nodiscard]] virtual std::optional<std::string> pathOfSelectedPort() const;
    [[nodiscard]] std::optional<std::string> pathOfSerialPortWithName(const std::string& name) const;
    [[nodiscard]] CombinedUsbIdentifier getPIDVID(const std::string& path) const;
    // Rebuilds the port menu on the main queue.
    void updateSerialPorts();
    // The 1200-baud touch; blocks (background only). The port becomes `serial`.
    void resetDevice(const std::string& path, int delay);
    [[nodiscard]] static bool isFTDIInstalled() { return PortList::isFTDIInstalled(); }
    void alertDidClose(int returnCode);
    // The view's loading: the port manager's notifications rebuild the menu;
    // the driver check warns when the FTDI driver is missing.
    void observePortChanges();
    void warnIfFTDIDriverMissing();
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
    [[nodiscard]] static std::string onlineConfigurationURL(const std::string& cid);

    // --- upload driver (upload_driver.cpp) --------------------------------------
    // Puts a HEX file onto the selected board: "prepareUpload", the boot loader
    // (a reset and a wait for its port where the board needs it), the flashing
    // tool. True when the tool reported success. Blocks: background only.
    bool uploadSketch(const std::string& hexFile);
    // uploadSketch with the outcome: also says whether the file was refused
    // by its check or the port by its permissions (nothing touched then).
    UpdateOutcome flashFile(const std::string& hexFile);
    // The user's "load firmware file": a file chosen in the view, flashed in the background.
    void loadFirmwareFile();
    // True from the boot-loader reset until avrdude or bossac has finished
    // writing a board for this controller; asked
    // from any thread (the window asks before it lets the user quit).
    [[nodiscard]] bool flashingToolRunning() const { return _flashingToolRuns.load() > 0; }
    // The application delegate's "update from file" menu command.
    void updateFromConfig(const Notification& notification);

    // --- update workflow (update_workflow.cpp) ----------------------------------
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

    // --- SerialPortDelegate -----------------------------------------------------
    [[nodiscard]] bool respondsTo(SerialPortDelegateCallback callback) const override;
    // The reply parser.
    void serialPortDidReceiveData(const std::shared_ptr<SerialPort>& port, const SerialData& data) override;
    // Nothing: removal is noticed through the port list.
    void serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& port) override;

protected:
    MainView& _view;
    ApplicationDelegate* _appDelegate;
    Clock& _clock;

private:
    // Steps 1-2 of opening: close `serial` if it is open on another path.
    // True when it is (still) open afterwards.
    bool bringSerialToPath(const std::string& path);
    // Step 3: a port object for `path` at 115200 baud, DTR and RTS on, open,
    // with this controller as its delegate.
    void openPortForProtocol(const std::string& path, bool logOpening);
    bool sendCommand(const char* command);
    // A procedure that opens ports begins: nothing refused yet.
    void beginPortUse();
    // An open failed: a refusal for lack of permission is told to the owner,
    // once per procedure.
    void noteOpenFailure(const SerialPort& port);
    // The common opening of the port actions: the selected path, or none after
    // telling the user that nothing is selected.
    std::optional<std::string> selectedPortOrAlert();
    // The opening of the four port actions: their log line, the serial monitor
    // closed, then the selected path (or none, after telling the user).
    std::optional<std::string> beginPortAction(const std::string& logLine);
    // Runs an action's work on the global queue with the controls disabled.
    void runActionInBackground(std::function<void(const std::string& path)> work, std::string path);
    void closeSerial();
    void postStatusText(std::string text);
    // 20 minus the whole seconds since `start`.
    [[nodiscard]] long remainingCount(Clock::TimePoint start) const;

    // The combined USB identifier of the selected port, asked for up to ten times.
    [[nodiscard]] CombinedUsbIdentifier identifySelectedBoard() const;
    // The re-appearance wait: up to 30 s for a port with one of the wanted
    // identifiers, which is then flashed with the tool.
    bool waitForBootloaderAndFlash(const std::string& hexFile, const std::vector<CombinedUsbIdentifier>& wanted,
                                   FlashingTool tool);
    void setSerial(const SerialPort::Ptr& port);
    // The background update job and its steps (update_workflow.cpp).
    UpdateOutcome runUpdateJob(const BoardIdentification& board, const std::optional<std::string>& version);
    // Reads the identifier, installing the intermediate firmware first where
    // the Controller cannot answer; an outcome when the job ends there.
    std::optional<UpdateOutcome> identifyForUpdate(const BoardIdentification& board);
    UpdateOutcome askServerAndInstall(const BoardIdentification& board, const std::optional<std::string>& version);
    // Polls the ticket until a file arrives that passes digest and image checks.
    UpdateOutcome fetchAndInstall(const BoardIdentification& board, const std::optional<TicketId>& ticket);
    // Writes, flashes and deletes the file under the flash lock; reports to the server.
    UpdateOutcome installDownloaded(const std::vector<std::uint8_t>& data, const std::optional<TicketId>& ticket);
    // The computer-wide lock on the downloaded file, waited for with a limit.
    std::optional<ComputerWideLock> waitForFlashLock();
    void finishUpload(UpdateOutcome outcome);
    void noteServerProblem(std::optional<ServerProblemReport> problem);

    // Counts a flashing tool's run for as long as it lives.
    class FlashingToolRun {
    public:
        explicit FlashingToolRun(std::atomic<int>& runs) : _runs(runs) { ++_runs; }
        ~FlashingToolRun() { --_runs; }
        FlashingToolRun(const FlashingToolRun&) = delete;
        FlashingToolRun& operator=(const FlashingToolRun&) = delete;
        FlashingToolRun(FlashingToolRun&&) = delete;
        FlashingToolRun& operator=(FlashingToolRun&&) = delete;

    private:
        std::atomic<int>& _runs;
    };
    [[nodiscard]] FlashingToolRun flashingToolRun() { return FlashingToolRun(_flashingToolRuns); }

    PortList _portList;
    UpdateServerClient _updateServer;
    std::shared_ptr<AvrdudeWrapper> _avrdude;
    std::shared_ptr<BossacWrapper> _bossac;
    std::function<void(UpdateOutcome)> _onUpdateFinished;
    std::optional<ServerProblemReport> _serverProblem; // under _serialMutex
    std::function<bool()> _ftdiDriverCheck;
    std::vector<ScopedObserver> _observers;
    ControllerState _state;
    ControllerReplyParser _parser{_state};
    mutable std::mutex _serialMutex;
    SerialPort::Ptr _serial;
    std::atomic<int> _flashingToolRuns{0};
    std::atomic<bool> _accessDenied{false};
};

} // namespace quendral
