#include "cli_session.h"

#include "controller/bootloader_touch.h"
#include "controller/browser_configuration.h"
#include "controller/controller_port.h"
#include "controller/ip_settings.h"
#include "controller/ip_settings_writer.h"
#include "controller/port_access.h"
#include "controller/port_list.h"
#include "controller/update_job.h"
#include "controller_update.h"
#include "doctor.h"
#include "flashing/board_table.h"
#include "ip_assignments.h"
#include "json_output.h"
#include "log/logger.h"
#include "log/visible_text.h"
#include "platform/dispatch.h"
#include "platform/paths.h"
#include "serial/serial_port_attributes.h"
#include "serial/serial_port_manager.h"
#include "several_controllers.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace quendral::cli {
namespace {

using namespace std::chrono_literals;

bool hasDesktop()
{
    const char* display = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (display != nullptr && display[0] != '\0') || (wayland != nullptr && wayland[0] != '\0');
}

// Hands a URL to the desktop's browser through xdg-open, without a shell.
bool openOnDesktop(const std::string& url)
{
    const char* argv[] = {"xdg-open", url.c_str(), nullptr};
    pid_t pid = 0;
    if (::posix_spawnp(&pid, "xdg-open", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) {
        return false;
    }
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string hex4(std::uint16_t value)
{
    char text[5];
    std::snprintf(text, sizeof text, "%04x", value);
    return text;
}

} // namespace

const char* notFlashedReason(UpdateOutcome outcome)
{
    switch (outcome) {
    case UpdateOutcome::FirmwareNotWritten:
        return "the downloaded firmware could not be written to its file (see the log).";
    case UpdateOutcome::FlashLockTimedOut:
        return "another firmware update on this computer did not finish in time.";
    case UpdateOutcome::IntermediateUnavailable:
        return "the intermediate firmware it needs is not available.";
    case UpdateOutcome::ImageRejected:
        return "the firmware file failed its check.";
    case UpdateOutcome::PortAccessDenied:
        return "this user may not open its port.";
    default:
        return nullptr;
    }
}

int exitCodeFor(UpdateOutcome outcome, const std::optional<ServerProblemReport>& problem)
{
    if (problem && problem->problem == ServerProblem::AnswerTooLarge) {
        return kFailure;
    }
    switch (outcome) {
    case UpdateOutcome::Updated:
        return kSuccess;
    case UpdateOutcome::NoUpdateNeeded:
        return kNoUpdateNeeded;
    case UpdateOutcome::NotAuthorized:
    case UpdateOutcome::ServerMessage:
    case UpdateOutcome::Refused:
        return kRefused;
    case UpdateOutcome::NoConnection:
        return kNoConnection;
    case UpdateOutcome::Declined:
        return kDeclined;
    default:
        return kFailure;
    }
}

std::string serverProblemText(const ServerProblemReport& problem)
{
    switch (problem.problem) {
    case ServerProblem::Unreachable:
        return "the update server could not be reached: " + problem.detail;
    case ServerProblem::AnswerTooLarge: {
        constexpr std::uint64_t kMiB = 1024 * 1024;
        std::uint64_t limit = 0;
        std::from_chars(problem.detail.data(), problem.detail.data() + problem.detail.size(), limit);
        return "the update server's answer exceeded " +
               (limit % kMiB == 0 ? std::to_string(limit / kMiB) + " MiB" : std::to_string(limit) + " bytes");
    }
    case ServerProblem::NotJsonObject:
        return "the update server's answer was not a valid JSON object";
    case ServerProblem::NoStatusText:
        return "the update server's answer had no text \"status\" and \"description\"";
    case ServerProblem::NoUsableTicket:
        return "the update server's answer carried no usable ticket";
    case ServerProblem::MessageNotText:
        return "the update server refused with a message that was not text";
    case ServerProblem::UnknownRefusal:
        return "the update server refused: \"" + problem.detail + "\"";
    case ServerProblem::QueryNotMade:
        return "the update query could not be made: " + problem.detail;
    }
    return "the update server's answer could not be used";
}

CliSession::CliSession(const Invocation& invocation) : _invocation(invocation)
{
    TerminalFeedback::Options options;
    options.interactive = ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
    options.progressBar = ::isatty(STDERR_FILENO) != 0;
    options.answer = invocation.answer == Answer::Yes  ? TerminalFeedback::Answer::Yes
                     : invocation.answer == Answer::No ? TerminalFeedback::Answer::No
                                                       : TerminalFeedback::Answer::Ask;
    options.quiet = invocation.quiet;
    if (invocation.json) {
        options.out = &std::cerr; // standard output carries the JSON lines only
    }
    options.desktop = hasDesktop();
    options.openOnDesktop = openOnDesktop;
    _feedbackOptions = options;
    _feedback = std::make_unique<TerminalFeedback>(std::move(options));
    _link = ControllerLink::create(*_feedback);
    _uploader = std::make_unique<FirmwareUploader>(*_link, *_feedback);
}

CliSession::~CliSession()
{
    if (auto port = _link->serial(); port && port->isOpen()) {
        port->close();
        runUntil([&] { return !port->isOpen(); });
    }
}

void serveMainQueueUntil(const std::function<bool()>& done)
{
    while (!dispatch::RunLoop::main().runUntil(done, 3600s)) {
    }
}

void CliSession::runInBackground(const std::function<void()>& work)
{
    auto finished = std::make_shared<std::atomic<bool>>(false);
    dispatch::globalQueue()->async([work, finished] {
        work();
        *finished = true;
    });
    runUntil([&] { return finished->load(); });
    dispatch::RunLoop::main().drain();
}

int CliSession::run()
{
    // The log file is the same as the window's; its console echo stays off the terminal.
    Logger::setConsole(nullptr);
    Logger::initLogPath();

    if (_invocation.resources) {
        paths::setResourceFolder(std::filesystem::path(*_invocation.resources));
    }
    if (_invocation.command == Command::Update || _invocation.command == Command::Flash) {
        // Which avrdude and bossac a run takes is the first question when a flash fails.
        Logger::log("Flashing tools from " + paths::resourceFolder().string());
    }
    if (_invocation.command == Command::Ports) {
        return ports();
    }
    if (_invocation.command == Command::Doctor) {
        return doctor();
    }
    if (_invocation.all) {
        SeveralControllers every(_invocation, _feedbackOptions);
        return _invocation.command == Command::Update ? every.updateAll(serverConfig()) : every.identifyAll();
    }
    _port = choosePort();
    if (!_port) {
        return kFailure;
    }
    switch (_invocation.command) {
    case Command::Identify:
        return identify();
    case Command::Update:
        return update();
    case Command::Flash:
        return flash();
    case Command::Ip:
        return _invocation.assignments.empty() ? ip() : writeIp();
    case Command::WebConfig:
        return webConfig();
    case Command::OnlineConfig:
        return onlineConfig();
    case Command::Monitor:
        return monitor();
    default:
        return kUsage;
    }
}

std::optional<PortPath> CliSession::choosePort()
{
    auto& manager = SerialPortManager::sharedSerialPortManager();
    const SerialPortList listed = listedControllerPorts(manager);
    if (_invocation.port) {
        const std::string& wanted = *_invocation.port;
        for (const SerialPort::Ptr& port : listed) {
            if (port->name() == wanted || port->path() == wanted) {
                return followBoard(port->path(), manager);
            }
        }
        std::cerr << "quendral-cli: no Controller port '" << visibleText(wanted) << "' (see 'quendral-cli ports')\n";
        return std::nullopt;
    }
    if (listed.empty()) {
        std::cerr << "quendral-cli: no Controller is connected\n";
        return std::nullopt;
    }
    return followBoard(listed.front()->path(), manager);
}

int CliSession::ports()
{
    const SerialPortList listed = listedControllerPorts(SerialPortManager::sharedSerialPortManager());
    for (const SerialPort::Ptr& port : listed) {
        const CombinedUsbIdentifier code = usbIdentifierOf(listed, port->path());
        const BoardIdentification* board = BoardTable::find(code);
        if (_invocation.json) {
            printJson({{"port", port->name()},
                       {"path", port->path()},
                       {"vendor", hex4(static_cast<std::uint16_t>(code >> 16))},
                       {"product", hex4(static_cast<std::uint16_t>(code & 0xFFFF))},
                       {"board", board != nullptr ? nlohmann::json(board->board) : nlohmann::json(nullptr)}});
            continue;
        }
        std::cout << port->name() << '\t' << port->path() << '\t' << hex4(static_cast<std::uint16_t>(code >> 16)) << ':'
                  << hex4(static_cast<std::uint16_t>(code & 0xFFFF)) << '\t'
                  << (board != nullptr ? std::string(board->board) : std::string("unknown")) << '\n';
    }
    return kSuccess;
}

nlohmann::json CliSession::resultObject(const std::string& outcome, const std::optional<std::string>& error) const
{
    return cli::resultObject(*_port, *_link, outcome, error);
}

int CliSession::doctor()
{
    std::optional<UpdateServerConfig> server;
    if (_invocation.serverURL) {
        server = serverConfig();
    }
    const Doctor examiner(Doctor::Places{paths::resourceFolder()});
    const auto findings = examiner.examine(listedControllerPorts(SerialPortManager::sharedSerialPortManager()), server);
    bool clean = true;
    for (const auto& finding : findings) {
        clean = clean && finding.ok;
        if (_invocation.json) {
            printJson({{"check", finding.check},
                       {"ok", finding.ok},
                       {"text", finding.text},
                       {"fix", finding.ok ? nlohmann::json(nullptr) : nlohmann::json(finding.fix)}});
        } else {
            std::cout << visibleText(findingLine(finding)) << '\n';
        }
    }
    return clean ? kSuccess : kFailure;
}

int CliSession::identify()
{
    std::optional<std::string> cid;
    runInBackground([&] { cid = _link->getCID(*_port); });
    if (_invocation.json) {
        const auto message = _link->deviceMessage();
        const char* outcome = cid                         ? "identified"
                              : _link->portAccessDenied() ? "port-access-denied"
                              : message                   ? "controller-message"
                                                          : "not-identified";
        printJson(resultObject(
            outcome, cid ? std::nullopt
                         : std::optional<std::string>(message.value_or("The Controller did not identify itself."))));
        return cid ? kSuccess : kFailure;
    }
    if (!cid) {
        if (!_link->deviceMessage() && !_link->portAccessDenied()) {
            std::cout << "The Controller did not identify itself.\n";
        }
        return kFailure;
    }
    std::cout << "CID: " << visibleText(*cid) << '\n'
              << "Version: " << visibleText(_link->currentVersion().value_or("")) << '\n';
    return kSuccess;
}

UpdateServerConfig CliSession::serverConfig() const
{
    UpdateServerConfig config;
    if (_invocation.serverURL) {
        config.baseUrl = *_invocation.serverURL;
        while (!config.baseUrl.empty() && config.baseUrl.back() == '/') {
            config.baseUrl.pop_back();
        }
    }
    if (_invocation.caFile) {
        config.caFile = *_invocation.caFile;
    }
    return config;
}

int CliSession::update()
{
    const UpdateServerClient server(serverConfig());
    Logger::log("Checking for update");
    _feedback->uploadBegins();
    const BoardIdentification* board = UpdateJob(*_link, *_uploader, *_feedback).boardToUpdate(_port->currentOrEmpty());
    if (board == nullptr) {
        return exitCodeFor(UpdateOutcome::UnsupportedDevice);
    }
    UpdateReport report;
    runInBackground(
        [&] { report = updateController(*_link, *_uploader, *_feedback, *_port, *board, _invocation.build, server); });
    // The window shows its own texts for an answer it cannot use, or none at
    // all; a script gets the reason.
    if (report.problem) {
        std::cerr << "quendral-cli: " << visibleText(serverProblemText(*report.problem)) << '\n';
    }
    if (report.reidentified && !_invocation.json) {
        std::cout << "Controller " << visibleText(_link->deviceCID().value_or("")) << " now runs version "
                  << visibleText(_link->currentVersion().value_or("")) << '\n';
    } else if (const char* why = notFlashedReason(report.outcome)) {
        // Where the road went on (even to a report of success to the server)
        // without the tool ever running, the last word says so.
        std::cerr << "The Controller was not flashed: " << why << '\n';
    }
    if (_invocation.json) {
        printJson(updateResultObject(*_port, *_link, report));
    }
    return exitCodeFor(report.outcome, report.problem);
}

int CliSession::flash()
{
    if (!_invocation.firmwareFile) {
        return kFailure;
    }
    UpdateOutcome outcome = UpdateOutcome::UploadFailed;
    runInBackground([&] { outcome = _uploader->flashFile(*_port, *_invocation.firmwareFile); });
    if (_invocation.json) {
        std::optional<std::string> error;
        if (outcome != UpdateOutcome::Updated) {
            const char* why = notFlashedReason(outcome);
            error = std::string("The Controller was not flashed: ") +
                    (why != nullptr ? why : "the upload failed (see the log).");
        }
        nlohmann::json object = resultObject(outcomeKey(outcome), error);
        object["file"] = *_invocation.firmwareFile;
        printJson(object);
    }
    return outcome == UpdateOutcome::Updated ? kSuccess : kFailure;
}

int CliSession::ip()
{
    std::vector<std::string> lines;
    runInBackground([&] { lines = _link->getIPConfig(*_port); });
    if (_invocation.json) {
        printJson(ipObject(lines));
        return lines.empty() ? kFailure : kSuccess;
    }
    if (lines.empty()) {
        if (!_link->portAccessDenied()) {
            std::cout << "Could not get device IP configuration\n";
        }
        return kFailure;
    }
    for (const auto& line : _invocation.raw ? lines : assignmentLines(settingsFromDump(lines))) {
        std::cout << visibleText(line) << '\n';
    }
    return kSuccess;
}

nlohmann::json CliSession::ipObject(const std::vector<std::string>& lines) const
{
    if (lines.empty()) {
        return resultObject(_link->portAccessDenied() ? "port-access-denied" : "not-read",
                            "Could not get device IP configuration");
    }
    const ipsettings::Settings settings = settingsFromDump(lines);
    nlohmann::json object = resultObject("read", std::nullopt);
    object["dhcp"] = settings.ip == ipsettings::IpDump::kDhcpAddress;
    object["ip"] = settings.ip;
    object["subnet"] = settings.subnet;
    object["gateway"] = settings.gateway;
    object["dns"] = settings.dns;
    object["devices"] = nlohmann::json::array();
    for (std::size_t i = 0; i < settings.devices.size(); ++i) {
        object["devices"].push_back(
            {{"number", i + 1}, {"address", settings.devices[i].address}, {"enabled", settings.devices[i].enabled}});
    }
    return object;
}

int CliSession::writeIp()
{
    // What was typed is checked before the Controller is asked anything: a bad
    // address and it hears nothing at all.
    if (const auto refused = refuseInvalidTypedAddress(_invocation.assignments)) {
        std::cout << *refused << '\n';
        return kFailure;
    }
    std::vector<std::string> lines;
    runInBackground([&] { lines = _link->getIPConfig(*_port); });
    // The dump's port finishes closing on its reader thread, and the save below
    // gets the very same port object (there is one per path): opening it before
    // the close is through would write into a descriptor about to be closed.
    if (auto dumpPort = _link->serial()) {
        runUntil([&] { return !dumpPort->isOpen(); });
    }
    if (lines.empty()) {
        std::cout << "Could not get device IP configuration\n";
        return kFailure;
    }
    ipsettings::Settings settings = settingsFromDump(lines);
    auto refused = applyAssignments(_invocation.assignments, settings);
    if (!refused) {
        refused = normaliseAddresses(settings); // as the IP window checks; one bad address and nothing is sent
    }
    if (refused) {
        std::cout << *refused << '\n';
        return kFailure;
    }
    return saveIp(settings);
}

int CliSession::saveIp(const ipsettings::Settings& settings)
{
    Logger::log("User clicked save IP settings");
    const auto path = _port->currentOrEmpty();
    const auto written = ipsettings::writeSettings(path, settings);
    if (written.port) {
        runUntil([&] { return !written.port->isOpen(); });
    }
    switch (written.outcome) {
    case ipsettings::WriteResult::Outcome::NoPort:
        std::cout << "The Controller's port is gone\n";
        return kFailure;
    case ipsettings::WriteResult::Outcome::NotOpened:
        if (written.port && written.port->openWasDenied()) {
            std::cerr << portAccessDeniedText(path) << '\n';
        } else {
            std::cout << "Could not open " << visibleText(path) << '\n';
        }
        return kFailure;
    case ipsettings::WriteResult::Outcome::LineFailed:
        std::cerr << "quendral-cli: " << written.failureText() << '\n';
        return kFailure;
    case ipsettings::WriteResult::Outcome::Written:
        break;
    }
    for (const auto& line : assignmentLines(settings)) {
        std::cout << visibleText(line) << '\n';
    }
    std::cout << "Settings written; the Controller stores them and restarts.\n";
    return kSuccess;
}

int CliSession::webConfig()
{
    Logger::log("User clicked local configuration (webconfig)");
    bool done = false;
    runInBackground([&] { done = toggleWebConfiguration(*_link, *_feedback, *_port); });
    return done ? kSuccess : kFailure;
}

int CliSession::onlineConfig()
{
    Logger::log("User clicked online configuration");
    bool opened = false;
    runInBackground([&] { opened = openOnlineConfiguration(*_link, *_feedback, *_port); });
    return opened ? kSuccess : kFailure;
}

namespace {

// Prints what the Controller sends, as it comes, its control characters made
// visible (its line ends stay).
class MonitorDelegate final : public SerialPortDelegate {
public:
    void serialPortDidReceiveData(const SerialPort::Ptr& /*port*/, const SerialData& data) override
    {
        std::cout << _visible.feed(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
        std::cout.flush();
        lastData = std::chrono::steady_clock::now().time_since_epoch().count();
    }
    // What the last data left undecided (a final carriage return, a character cut in two).
    void finish() { std::cout << _visible.finish() << std::flush; }
    void serialPortDidEncounterError(const SerialPort::Ptr& /*port*/, const SerialError& error) override
    {
        std::cerr << "\r\nquendral-cli: " << error.path << ": " << error.description << "\r\n";
    }
    void serialPortWasRemovedFromSystem(const SerialPort::Ptr& /*port*/) override
    {
        std::cerr << "\r\nquendral-cli: the Controller was unplugged\r\n";
        gone = true;
    }
    std::atomic<bool> gone{false};
    std::atomic<std::chrono::steady_clock::rep> lastData{0};

private:
    VisibleTextStream _visible; // main queue only
};

// After piped input has ended the Controller is still answering the last
// lines: stay until it has been quiet this long (but not longer than the limit,
// for a Controller that never stops talking).
constexpr auto kMonitorQuietTime = 1s;
constexpr char kLeaveKey = 0x1d; // Ctrl-]
constexpr auto kMonitorLingerLimit = 10s;

// Standard input as the monitor's line editor. On a terminal the line is
// edited as in the window's input field (the terminal's own line editing and
// echo) and sent on Enter; Ctrl-] is made an end-of-line character so that it
// arrives at once, alone, and leaves. The terminal is left as it was found.
class MonitorTerminal {
public:
    MonitorTerminal() : _terminal(::isatty(STDIN_FILENO) != 0)
    {
        if (_terminal) {
            ::tcgetattr(STDIN_FILENO, &_saved);
            termios lineMode = _saved;
            lineMode.c_lflag |= ICANON | ECHO;
            lineMode.c_cc[VEOL] = kLeaveKey;
            ::tcsetattr(STDIN_FILENO, TCSANOW, &lineMode);
        }
    }
    ~MonitorTerminal() { restore(); }
    MonitorTerminal(const MonitorTerminal&) = delete;
    MonitorTerminal& operator=(const MonitorTerminal&) = delete;

    [[nodiscard]] bool isTerminal() const { return _terminal; }
    void restore()
    {
        if (_terminal && !_restored) {
            ::tcsetattr(STDIN_FILENO, TCSANOW, &_saved);
            _restored = true;
        }
    }
    // After Ctrl-]: the terminal typed on echoed "^]" there; end that line
    // where it is, so the shell's prompt starts on a line of its own.
    static void endEchoedLine() { [[maybe_unused]] const auto written = ::write(STDIN_FILENO, "\n", 1); }

private:
    bool _terminal;
    bool _restored = false;
    termios _saved{};
};

} // namespace

int CliSession::monitor()
{
    const auto path = _port->currentOrEmpty();
    Logger::log("Opening serial port " + path + " with baud rate 115200");
    auto port = SerialPort::serialPortWithPath(path);
    if (!port) {
        std::cerr << "quendral-cli: the Controller's port is gone\n";
        return kFailure;
    }
    auto delegate = std::make_shared<MonitorDelegate>();
    port->setDelegate(delegate);
    openControllerPort(*port);
    if (!port->isOpen()) {
        std::cerr << "quendral-cli: could not open " << path << "\n";
        return kFailure;
    }
    MonitorTerminal lineEditor;
    const bool terminal = lineEditor.isTerminal();
    if (terminal && !_invocation.quiet) {
        std::cerr << "Serial monitor on " << path << " at 115200 baud. Enter sends a line, Ctrl-] leaves.\n";
    }
    std::atomic<bool> done{false};
    std::atomic<bool> leftByKey{false};
    std::thread input([&] {
        // Lines go out as the window sends them: the text, then one line feed.
        std::string line;
        char c = 0;
        while (!done && ::read(STDIN_FILENO, &c, 1) == 1) {
            if (terminal && c == kLeaveKey) {
                leftByKey = true;
                break;
            }
            line += c;
            if (c == '\n') {
                port->sendData(line);
                line.clear();
            }
        }
        if (!terminal && !line.empty()) {
            port->sendData(line + "\n"); // the last line, even without its line feed
        }
        done = true;
    });
    runUntil([&] { return done.load() || delegate->gone.load(); });
    if (!terminal && !delegate->gone) {
        const auto inputEnded = std::chrono::steady_clock::now();
        dispatch::RunLoop::main().runUntil(
            [&] {
                const auto now = std::chrono::steady_clock::now();
                const auto last = std::max(inputEnded, std::chrono::steady_clock::time_point(
                                                           std::chrono::steady_clock::duration(delegate->lastData)));
                return delegate->gone.load() || now - last >= kMonitorQuietTime;
            },
            kMonitorLingerLimit);
    }
    lineEditor.restore();
    port->close();
    runUntil([&] { return !port->isOpen(); });
    delegate->finish();
    if (leftByKey) {
        MonitorTerminal::endEchoedLine();
    }
    if (!done) {
        input.detach(); // blocked reading the terminal; the process ends anyway
    } else {
        input.join();
    }
    return delegate->gone ? kFailure : kSuccess;
}

} // namespace quendral::cli
