#include "command_line.h"

#include <map>
#include <regex>

namespace quendral::cli {
namespace {

const std::map<std::string, Command>& commands()
{
    static const std::map<std::string, Command> table{
        {"ports", Command::Ports},
        {"identify", Command::Identify},
        {"update", Command::Update},
        {"flash", Command::Flash},
        {"ip", Command::Ip},
        {"webconfig", Command::WebConfig},
        {"online-config", Command::OnlineConfig},
        {"monitor", Command::Monitor},
        {"log", Command::Log},
    };
    return table;
}

bool takesPort(Command command)
{
    return command != Command::Log && command != Command::Ports;
}

bool validServerURL(const std::string& url)
{
    static const std::regex pattern(R"(https://[A-Za-z0-9.\-]+(:[0-9]{1,5})?/?)");
    return std::regex_match(url, pattern);
}

// Keys the IP window knows: the four addresses, dhcp, and per device its
// address (devN) and switch (enableN), numbered from 1.
bool validIpKey(const std::string& key)
{
    static const std::regex pattern(R"(ip|subnet|gateway|dns|dhcp|dev[1-9][0-9]*|enable[1-9][0-9]*)");
    return std::regex_match(key, pattern);
}

} // namespace

std::variant<Invocation, UsageError> parseCommandLine(const std::vector<std::string>& args)
{
    Invocation invocation;
    if (args.empty()) {
        return UsageError{"a command is required"};
    }
    const std::string& first = args.front();
    if (first == "-h" || first == "--help" || first == "help") {
        invocation.command = Command::Help;
        return invocation;
    }
    if (first == "-V" || first == "--version") {
        invocation.command = Command::Version;
        return invocation;
    }
    const auto found = commands().find(first);
    if (found == commands().end()) {
        return UsageError{"unknown command '" + first + "'"};
    }
    invocation.command = found->second;

    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&](const std::string& option) -> std::optional<std::string> {
            if (i + 1 >= args.size()) {
                return std::nullopt;
            }
            (void)option;
            return args[++i];
        };
        if (arg == "-h" || arg == "--help") {
            invocation.command = Command::Help;
            return invocation;
        }
        if ((arg == "-p" || arg == "--port") && takesPort(invocation.command)) {
            auto port = value(arg);
            if (!port || port->empty()) {
                return UsageError{arg + " needs a port name or path"};
            }
            invocation.port = port;
            continue;
        }
        if (invocation.command == Command::Update) {
            if (arg == "--version") {
                auto version = value(arg);
                if (!version || version->empty()) {
                    return UsageError{"--version needs a version"};
                }
                invocation.version = version;
                continue;
            }
            if (arg == "--yes" || arg == "-y" || arg == "--no" || arg == "-n") {
                const Answer answer = (arg == "--yes" || arg == "-y") ? Answer::Yes : Answer::No;
                if (invocation.answer != Answer::Ask && invocation.answer != answer) {
                    return UsageError{"--yes and --no exclude each other"};
                }
                invocation.answer = answer;
                continue;
            }
            if (arg == "--server") {
                auto url = value(arg);
                if (!url || !validServerURL(*url)) {
                    return UsageError{"--server takes https://host[:port]"};
                }
                invocation.serverURL = url;
                continue;
            }
            if (arg == "--ca-file") {
                auto file = value(arg);
                if (!file || file->empty()) {
                    return UsageError{"--ca-file needs a file"};
                }
                invocation.caFile = file;
                continue;
            }
        }
        if ((invocation.command == Command::Update || invocation.command == Command::Flash) && arg == "--resources") {
            auto folder = value(arg);
            if (!folder || folder->empty()) {
                return UsageError{"--resources needs a folder"};
            }
            invocation.resources = folder;
            continue;
        }
        if (invocation.command == Command::Flash && !invocation.firmwareFile && !arg.empty() && arg[0] != '-') {
            invocation.firmwareFile = arg;
            continue;
        }
        if (invocation.command == Command::Ip && arg.find('=') != std::string::npos && arg[0] != '-') {
            const auto equals = arg.find('=');
            std::string key = arg.substr(0, equals);
            std::string assigned = arg.substr(equals + 1);
            if (!validIpKey(key)) {
                return UsageError{"unknown setting '" + key + "'"};
            }
            if (key == "dhcp" && assigned != "on" && assigned != "off") {
                return UsageError{"dhcp takes on or off"};
            }
            if (key.rfind("enable", 0) == 0 && assigned != "0" && assigned != "1") {
                return UsageError{key + " takes 0 or 1"};
            }
            invocation.assignments.emplace_back(std::move(key), std::move(assigned));
            continue;
        }
        return UsageError{"unexpected argument '" + arg + "'"};
    }
    if (invocation.command == Command::Flash && !invocation.firmwareFile) {
        return UsageError{"flash needs a firmware FILE"};
    }
    return invocation;
}

std::string helpText()
{
    return R"(Usage: quendral-cli COMMAND [OPTIONS]

Keeps QUENDRAL Controllers up to date and configured from a terminal.

Commands:
  ports                      list the Controller ports: name, path, vendor:product, board
  identify [-p PORT]         ask the Controller for its identification code and version
  update [-p PORT] [--version VERSION] [--yes | --no] [--server URL] [--ca-file FILE]
                             check for a firmware update and install it
  flash FILE [-p PORT]       install a firmware file (Intel HEX)
  ip [-p PORT] [KEY=VALUE ...]
                             without settings: print the Controller's network settings;
                             with them: check and write them. Keys: ip, subnet, gateway,
                             dns, dhcp=on|off, devN=ADDRESS, enableN=0|1 (N from 1)
  webconfig [-p PORT]        switch the Controller's configuration web server on or off
  online-config [-p PORT]    open the Controller's page on the online configuration site
                             (the address is printed when there is no desktop)
  monitor [-p PORT]          serial monitor; type lines to send them, Ctrl-] leaves
  log                        print the path of the log file

Options:
  -p, --port PORT            a port name (ttyACM0) or a /dev path; without it the
                             first port of the list is used, as the window selects it
  --version VERSION          (update) ask the server for this build: master,
                             masternodelete or branch_NAME
  -y, --yes / -n, --no       (update) answer the question about the intermediate
                             firmware; without either and without a terminal: no
  --server URL               (update) the update server, https://host[:port]
  --ca-file FILE             (update) trust the certificate authorities in FILE
  --resources DIR            (update, flash) take the flashing tools and the
                             intermediate firmware from DIR (the device lab's)
  -h, --help                 show this help and exit
  -V, --version              (alone) show the program's version and exit

Exit codes:
  0  done (update: installed and reported to the server as a success)
  1  failed (no answer from the Controller, upload failed, ...)
  2  wrong arguments
  3  no update needed: the newest firmware is installed
  4  refused by the server (Controller not registered, or a message from the maker)
  5  the update server could not be reached
  6  a question was answered no
)";
}

} // namespace quendral::cli
