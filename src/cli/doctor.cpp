#include "doctor.h"

#include "controller/firmware_image_check.h"
#include "controller/port_access.h"
#include "flashing/board_table.h"
#include "platform/child_process.h"

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <unistd.h>

namespace quendral::cli {
namespace {

constexpr const char* kRuleFile = "70-quendral-controllers.rules";

Finding ok(std::string check, std::string text)
{
    return {std::move(check), true, std::move(text), {}};
}

Finding problem(std::string check, std::string text, std::string fix)
{
    return {std::move(check), false, std::move(text), std::move(fix)};
}

// What a program writes on both its streams when run with `arguments`.
std::optional<std::string> outputOf(const std::filesystem::path& program, const std::vector<std::string>& arguments)
{
    ChildProcess child;
    child.setExecutablePath(program);
    child.setArguments(arguments);
    std::string output;
    child.setDataHandler([&output](ChildProcess::HandleId, ChildProcess::Stream, std::string_view bytes) {
        if (output.size() < 64 * 1024) {
            output.append(bytes);
        }
    });
    if (!child.launch()) {
        return std::nullopt;
    }
    child.waitUntilExit();
    return output;
}

std::string hex(unsigned value, int digits)
{
    char text[8];
    std::snprintf(text, sizeof text, "%0*x", digits, value);
    return text;
}

// A rule line that names this USB identity, as udev rules write it: by its
// attributes, or by the PRODUCT variable ("403/6001/...").
bool namesIdentity(const std::string& line, const BoardIdentification& board)
{
    const std::string vendor = hex(board.vendorId, 4);
    const std::string product = hex(board.productId, 4);
    const bool byAttributes =
        line.find("\"" + vendor + "\"") != std::string::npos && line.find("\"" + product + "\"") != std::string::npos;
    const bool byProduct = line.find(hex(board.vendorId, 1) + "/" + hex(board.productId, 1) + "/") != std::string::npos;
    return byAttributes || byProduct;
}

} // namespace

std::vector<std::filesystem::path> Doctor::ruleFiles() const
{
    std::vector<std::filesystem::path> files;
    for (const auto& folder : _places.udevRules) {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
            if (entry.path().extension() == ".rules") {
                files.push_back(entry.path());
            }
        }
    }
    return files;
}

Finding Doctor::tool(const std::string& name, const std::vector<std::string>& versionArguments,
                     const std::string& package) const
{
    const auto path = _places.resources / name;
    const std::string fix = "sudo apt install " + package;
    if (!ChildProcess::isExecutableFile(path)) {
        return problem(name, name + " is missing at " + path.string(), fix);
    }
    const auto output = outputOf(path, versionArguments);
    static const std::regex version(R"([Vv]ersion:?\s+([0-9][0-9A-Za-z.+~-]*))");
    std::smatch match;
    if (!output || !std::regex_search(*output, match, version)) {
        return problem(name, name + " at " + path.string() + " did not run or did not say its version", fix);
    }
    return ok(name, name + " " + match[1].str() + " (" + path.string() + ")");
}

Finding Doctor::avrdudeConfiguration() const
{
    const auto path = _places.resources / "avrdude.conf";
    if (std::ifstream(path).good()) {
        return ok("avrdude.conf", "avrdude.conf is there (" + path.string() + ")");
    }
    return problem("avrdude.conf", "avrdude.conf is missing at " + path.string(),
                   "sudo apt install --reinstall avrdude");
}

Finding Doctor::intermediateFirmware() const
{
    const BoardIdentification* due = nullptr;
    for (const auto& board : BoardTable::rows()) {
        if (board.updatePlatform && due == nullptr) {
            due = &board;
        }
    }
    const std::string name = "intermediate_" + std::string(due != nullptr ? *due->updatePlatform : "due") + ".hex";
    const auto path = _places.resources / name;
    const auto why = due != nullptr ? firmware::imageFileProblem(path, *due) : std::optional<std::string>("no board");
    if (!why) {
        return ok("intermediate firmware", name + " is installed (" + path.string() + ")");
    }
    return problem("intermediate firmware",
                   "the intermediate firmware is not usable: " + *why +
                       "; a Controller that cannot identify itself cannot be updated",
                   "install the package that carries it, or ask QUENDRAL Support");
}

Finding Doctor::port(const std::string& path)
{
    const std::string check = "port " + path;
    if (::access(path.c_str(), R_OK | W_OK) == 0) {
        return ok(check, "this user may open " + path);
    }
    return problem(check, "this user may not open " + path, portAccessDeniedText(path));
}

namespace {

// ModemManager leaves a port alone when udev gave it this property (the
// package's rule does, for the board table's identities).
bool markedForModemManagerToIgnore(const SerialPort& port)
{
    const DeviceHandle device = port.IOKitDevice();
    if (!device) {
        return false;
    }
    const auto mark = device->properties.find("ID_MM_DEVICE_IGNORE");
    return mark != device->properties.end() && mark->second == "1";
}

} // namespace

Finding Doctor::modemManager(const SerialPortList& ports) const
{
    bool running = false;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(_places.proc, error)) {
        std::ifstream comm(entry.path() / "comm");
        std::string name;
        if (std::getline(comm, name) && name == "ModemManager") {
            running = true;
            break;
        }
    }
    if (!running) {
        return ok("ModemManager", "ModemManager does not run");
    }
    const std::string fix = std::string("install the package's udev rule ") + kRuleFile +
                            " (then unplug and plug in the boards), or: sudo systemctl stop ModemManager";
    if (!ports.empty()) {
        std::string unmarked;
        for (const auto& port : ports) {
            if (!markedForModemManagerToIgnore(*port)) {
                unmarked += (unmarked.empty() ? "" : ", ") + port->path();
            }
        }
        if (unmarked.empty()) {
            return ok("ModemManager", "ModemManager runs; every Controller port is marked for it to ignore");
        }
        return problem("ModemManager", "ModemManager runs and may probe " + unmarked + ": not marked for it to ignore",
                       fix);
    }
    for (const auto& file : ruleFiles()) {
        if (file.filename() == kRuleFile) {
            return ok("ModemManager",
                      "ModemManager runs; the boards are marked for it to ignore (" + file.string() + ")");
        }
    }
    return problem("ModemManager", "ModemManager runs and nothing marks the boards for it to ignore", fix);
}

Finding Doctor::brailleService() const
{
    for (const auto& file : ruleFiles()) {
        if (file.filename().string().find("brltty") == std::string::npos) {
            continue;
        }
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            if (line.empty() || line.front() == '#') {
                continue;
            }
            for (const auto& board : BoardTable::rows()) {
                if (namesIdentity(line, board)) {
                    return problem("braille display service",
                                   file.string() + " claims " + hex(board.vendorId, 4) + ":" + hex(board.productId, 4) +
                                       " (" + std::string(board.board) + ") for a braille display",
                                   "sudo apt remove brltty (or disable that rule if a braille display is used)");
                }
            }
        }
    }
    return ok("braille display service", "no braille display rule claims the boards' USB identities");
}

Finding Doctor::updateServer(const UpdateServerConfig& config)
{
    const UpdateServerClient client(config);
    std::optional<ServerProblemReport> trouble;
    (void)client.contactServer(R"({"cmd":"ping"})", &trouble);
    if (trouble && trouble->problem == ServerProblem::Unreachable) {
        return problem("update server", config.baseUrl + " cannot be reached over verified TLS: " + trouble->detail,
                       "check the network, the address and the certificate authority (--ca-file)");
    }
    return ok("update server", config.baseUrl + " answers over verified TLS");
}

std::vector<Finding> Doctor::examine(const SerialPortList& ports, const std::optional<UpdateServerConfig>& server) const
{
    std::vector<Finding> findings{tool("avrdude", {"-?"}, "avrdude"), tool("bossac", {"--help"}, "bossa-cli"),
                                  avrdudeConfiguration(), intermediateFirmware()};
    for (const auto& each : ports) {
        findings.push_back(port(each->path()));
    }
    findings.push_back(modemManager(ports));
    findings.push_back(brailleService());
    if (server) {
        findings.push_back(updateServer(*server));
    }
    return findings;
}

std::string findingLine(const Finding& finding)
{
    if (finding.ok) {
        return "[ok] " + finding.text;
    }
    return "[problem] " + finding.text + "\n  Fix: " + finding.fix;
}

} // namespace quendral::cli
