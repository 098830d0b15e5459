#include "command_line.h"

#include <algorithm>
#include <charconv>
#include <map>

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
        {"doctor", Command::Doctor},
        {"log", Command::Log},
    };
    return table;
}

bool takesPort(Command command)
{
    return command != Command::Log && command != Command::Ports && command != Command::Doctor;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isHostCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || isDigit(c) || c == '.' || c == '-';
}

// "https://", a host of letters, digits, dots and hyphens, an optional port of
// one to five digits, an optional final slash. Checked by hand: std::regex
// matches recursively, a stack frame per character, and an argument of 128 KiB
// (as long as Linux passes one) overflowed the stack.
bool validServerURL(std::string_view url)
{
    constexpr std::string_view scheme = "https://";
    if (url.substr(0, scheme.size()) != scheme) {
        return false;
    }
    url.remove_prefix(scheme.size());
    if (!url.empty() && url.back() == '/') {
        url.remove_suffix(1);
    }
    const auto colon = url.find(':');
    const std::string_view host = url.substr(0, colon);
    if (host.empty() || !std::all_of(host.begin(), host.end(), isHostCharacter)) {
        return false;
    }
    if (colon == std::string_view::npos) {
        return true;
    }
    const std::string_view port = url.substr(colon + 1);
    return !port.empty() && port.size() <= 5 && std::all_of(port.begin(), port.end(), isDigit);
}

// The N of "devN" or "enableN" as the IP window numbers devices: from 1, no
// leading zero. Empty for every other key.
std::string_view deviceDigits(std::string_view key)
{
    for (const std::string_view prefix : {std::string_view("dev"), std::string_view("enable")}) {
        if (key.substr(0, prefix.size()) != prefix) {
            continue;
        }
        const std::string_view digits = key.substr(prefix.size());
        if (digits.empty() || digits.front() == '0' || !std::all_of(digits.begin(), digits.end(), isDigit)) {
            return {};
        }
        return digits;
    }
    return {};
}

// Keys the IP window knows: the four addresses, dhcp, and per device its
// address (devN) and switch (enableN).
bool validIpKey(std::string_view key)
{
    return key == "ip" || key == "subnet" || key == "gateway" || key == "dns" || key == "dhcp" ||
           !deviceDigits(key).empty();
}

} // namespace

std::optional<std::size_t> deviceNumber(std::string_view key)
{
    const std::string_view digits = deviceDigits(key);
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return number;
}

namespace {

// The arguments after the command word, read one at a time.
class ArgumentReader {
public:
    explicit ArgumentReader(const std::vector<std::string>& args) : _args(args) {}
    [[nodiscard]] bool atEnd() const { return _next >= _args.size(); }
    const std::string& take() { return _args[_next++]; }
    // The value after an option, if there is one.
    std::optional<std::string> takeValue() { return atEnd() ? std::nullopt : std::optional(take()); }

private:
    const std::vector<std::string>& _args;
    std::size_t _next = 1;
};

// What an option reader made of an argument: taken (true), not its own
// (false), or refused.
using Taken = std::variant<bool, UsageError>;

// A value that must be there and not be empty.
Taken takeNonEmpty(ArgumentReader& reader, std::optional<std::string>& into, const std::string& complaint)
{
    auto value = reader.takeValue();
    if (!value || value->empty()) {
        return UsageError{complaint};
    }
    into = std::move(value);
    return true;
}

Taken takeUpdateOption(const std::string& arg, ArgumentReader& reader, Invocation& invocation)
{
    if (arg == "--build") {
        return takeNonEmpty(reader, invocation.build, "--build needs a build name");
    }
    if (arg == "--version") {
        // It once named the build; a script that still says so must not get the newest firmware instead.
        return UsageError{"--version shows the program's version and comes alone; ask for a build with --build NAME"};
    }
    if (arg == "--yes" || arg == "-y" || arg == "--no" || arg == "-n") {
        const Answer answer = (arg == "--yes" || arg == "-y") ? Answer::Yes : Answer::No;
        if (invocation.answer != Answer::Ask && invocation.answer != answer) {
            return UsageError{"--yes and --no exclude each other"};
        }
        invocation.answer = answer;
        return true;
    }
    if (arg == "--server") {
        auto url = reader.takeValue();
        if (!url || !validServerURL(*url)) {
            return UsageError{"--server takes https://host[:port]"};
        }
        invocation.serverURL = url;
        return true;
    }
    if (arg == "--ca-file") {
        return takeNonEmpty(reader, invocation.caFile, "--ca-file needs a file");
    }
    return false;
}

Taken takeIpAssignment(const std::string& arg, Invocation& invocation)
{
    const auto equals = arg.find('=');
    std::string key = arg.substr(0, equals);
    std::string assigned = arg.substr(equals + 1);
    if (!validIpKey(key)) {
        return UsageError{"unknown setting '" + key + "'"};
    }
    if (!deviceDigits(key).empty() && !deviceNumber(key)) {
        return UsageError{key + ": no device has that number"};
    }
    if (key == "dhcp" && assigned != "on" && assigned != "off") {
        return UsageError{"dhcp takes on or off"};
    }
    if (key.rfind("enable", 0) == 0 && assigned != "0" && assigned != "1") {
        return UsageError{key + " takes 0 or 1"};
    }
    invocation.assignments.emplace_back(std::move(key), std::move(assigned));
    return true;
}

// Every option of the invocation's command, in the order they are tried.
Taken takeArgument(const std::string& arg, ArgumentReader& reader, Invocation& invocation)
{
    const Command command = invocation.command;
    if (arg == "-q" || arg == "--quiet") {
        invocation.quiet = true;
        return true;
    }
    if (arg == "--json" && (command == Command::Ports || command == Command::Identify || command == Command::Ip ||
                            command == Command::Update || command == Command::Flash || command == Command::Doctor)) {
        invocation.json = true;
        return true;
    }
    if (arg == "--all" && (command == Command::Identify || command == Command::Update)) {
        invocation.all = true;
        return true;
    }
    if ((arg == "-p" || arg == "--port") && takesPort(command)) {
        return takeNonEmpty(reader, invocation.port, arg + " needs a port name or path");
    }
    if (command == Command::Update || (command == Command::Doctor && (arg == "--server" || arg == "--ca-file"))) {
        Taken taken = takeUpdateOption(arg, reader, invocation);
        if (!std::holds_alternative<bool>(taken) || std::get<bool>(taken)) {
            return taken;
        }
    }
    if ((command == Command::Update || command == Command::Flash || command == Command::Doctor) &&
        arg == "--resources") {
        return takeNonEmpty(reader, invocation.resources, "--resources needs a folder");
    }
    if (command == Command::Flash && !invocation.firmwareFile && !arg.empty() && arg[0] != '-') {
        invocation.firmwareFile = arg;
        return true;
    }
    if (command == Command::Ip && arg.find('=') != std::string::npos && arg[0] != '-') {
        return takeIpAssignment(arg, invocation);
    }
    if (command == Command::Ip && arg == "--raw") {
        invocation.raw = true;
        return true;
    }
    return UsageError{"unexpected argument '" + arg + "'"};
}

// The command word, or the help and version requests that stand alone.
std::variant<Invocation, UsageError> parseCommandWord(const std::string& first)
{
    Invocation invocation;
    if (first == "-h" || first == "--help" || first == "help") {
        invocation.command = Command::Help;
    } else if (first == "-V" || first == "--version") {
        invocation.command = Command::Version;
    } else if (const auto found = commands().find(first); found != commands().end()) {
        invocation.command = found->second;
    } else {
        return UsageError{"unknown command '" + first + "'"};
    }
    return invocation;
}

} // namespace

std::variant<Invocation, UsageError> parseCommandLine(const std::vector<std::string>& args)
{
    if (args.empty()) {
        return UsageError{"a command is required"};
    }
    auto parsed = parseCommandWord(args.front());
    auto* invocation = std::get_if<Invocation>(&parsed);
    if (invocation == nullptr || invocation->command == Command::Help || invocation->command == Command::Version) {
        return parsed;
    }
    ArgumentReader reader(args);
    while (!reader.atEnd()) {
        const std::string& arg = reader.take();
        if (arg == "-h" || arg == "--help") {
            invocation->command = Command::Help;
            return parsed;
        }
        const Taken taken = takeArgument(arg, reader, *invocation);
        if (const auto* refused = std::get_if<UsageError>(&taken)) {
            return *refused;
        }
    }
    if (invocation->all && invocation->port) {
        return UsageError{"--all works on every Controller; it takes no -p"};
    }
    if (invocation->command == Command::Flash && !invocation->firmwareFile) {
        return UsageError{"flash needs a firmware FILE"};
    }
    if (invocation->json && (invocation->raw || !invocation->assignments.empty())) {
        return UsageError{"ip --json prints the settings it reads; it takes neither --raw nor KEY=VALUE"};
    }
    if (invocation->raw && !invocation->assignments.empty()) {
        return UsageError{"--raw only prints the settings; it takes no KEY=VALUE"};
    }
    return parsed;
}

std::string shortUsage()
{
    return "Usage: quendral-cli COMMAND [OPTIONS]\n"
           "Commands: ports, identify, update, flash, ip, webconfig, online-config, monitor, log\n"
           "Try 'quendral-cli --help' for more information.\n";
}

namespace {

// The whole help, as the terminal shows it.
constexpr std::string_view kHelpText = R"(Usage: quendral-cli COMMAND [OPTIONS]

Updates and configures QUENDRAL Controllers connected over USB, from a terminal
or a script. A command works on one Controller: the one on the port given with
-p, or else the first port that 'quendral-cli ports' lists. identify and update
work on every connected Controller at once with --all.

Commands:
  ports                    list the Controller ports, one line each, separated
                           by tabs: name, path, vendor:product (hex), board
                           ("unknown" for a board this program does not know)
  identify [-p PORT | --all]
                           ask the Controller who it is; prints "CID: <code>"
                           and "Version: <version>", or the message the
                           Controller sends instead
  update [-p PORT | --all] [--build NAME] [--yes | --no] [--server URL]
         [--ca-file FILE]  ask the update server for firmware made for this
                           Controller and install it
  flash FILE [-p PORT]     install a firmware file (Intel HEX)
  ip [-p PORT] [--raw]     print the Controller's network settings, one
                           KEY=VALUE per line in the form 'ip KEY=VALUE...'
                           takes (dhcp, ip, subnet, gateway, dns, devN,
                           enableN), so 'quendral-cli ip $(quendral-cli ip)'
                           writes the same settings back; --raw prints the
                           Controller's own lines instead
  ip [-p PORT] KEY=VALUE...
                           change network settings and write them all; the
                           Controller stores them and restarts. Keys:
                             ip=ADDRESS, subnet=MASK, gateway=ADDRESS,
                             dns=ADDRESS   the Controller's own settings
                             dhcp=on       the Controller takes its address by
                                           DHCP (sent as ip 0.0.0.0)
                             dhcp=off      a fixed address: 192.168.10.99 if
                                           DHCP was on, unless ip= is given
                             devN=ADDRESS  address of attached device N (from 1)
                             enableN=0|1   switch attached device N off or on
                           Settings not named keep their current values. The
                           addresses are checked first: each must be a whole
                           dotted-quad address, or nothing is sent. The
                           settings written are printed in the same form.
  webconfig [-p PORT]      switch the Controller's configuration web server on
                           or off; when it comes on, its address is opened in
                           the browser (printed when there is no desktop)
  online-config [-p PORT]  open the Controller's page on the online
                           configuration site (printed when there is no desktop)
  monitor [-p PORT]        serial monitor at 115200 baud: shows what the
                           Controller sends. On a terminal, Enter sends the
                           line typed and Ctrl-] leaves. Piped input is sent
                           line by line; the monitor leaves when the input has
                           ended and the Controller has gone quiet
  doctor [--server URL] [--ca-file FILE]
                           check what stands between this computer and an
                           update: the flashing tools and their versions,
                           avrdude.conf, the intermediate firmware, whether
                           this user may open each Controller port,
                           ModemManager, a braille display service claiming
                           the boards, and with --server the update server
                           over verified TLS. Each problem comes with its fix;
                           exit 0 only when there is none
  log                      print the path of the log file
  help                     show this help (also COMMAND --help)

Options:
  -p, --port PORT          the Controller's port: a name (ttyACM0) or a path
                           (/dev/ttyACM0)
  --all                    (identify, update) every connected board that
                           'ports' names, all at once; updates take turns only
                           while a tool writes. Each one's texts start with its
                           port; at the end a table (port, CID, version, or for
                           update old -> new, outcome) or with --json an object
                           per board. A board whose type has no update check is
                           listed and left alone. The exit code is the worst
                           outcome: 1 above 5, 4, 6, 3 and 0
  --build NAME             (update) ask for this build instead of the newest:
                           master, masternodelete or branch_NAME
  -y, --yes                (update) agree when asked to install the
                           intermediate firmware first
  -n, --no                 (update) decline; without --yes or --no the question
                           is asked on a terminal and answered no otherwise
  --server URL             (update, doctor) the update server,
                           https://host[:port]
  --ca-file FILE           (update, doctor) also trust the certificate
                           authorities in FILE
  --resources DIR          (update, flash, doctor) take the flashing tools and
                           the intermediate firmware from DIR instead of the
                           installed ones (for testing)
  -q, --quiet              (every command) print only results and errors: no
                           waiting texts, no progress
  --json                   (ports, identify, ip, update, flash, doctor) one
                           JSON object per result on standard output, a line
                           each; messages go to standard error. Keys: ports:
                           port, path, vendor, product, board (null when
                           unknown); doctor: check, ok, text, fix; the others:
                           port, path, cid, version, outcome, error, and for
                           ip dhcp, ip, subnet, gateway, dns, devices (number,
                           address, enabled), for update previousVersion, for
                           flash file
  -h, --help               show this help and exit
  -V, --version            show the program's version and exit

Results go to standard output; progress and waiting messages go to standard
error (progress as a bar on a terminal, otherwise a line at each tenth).
Control characters in what a Controller or the update server sends are shown
as escapes (\x1b, \r, \0, ...); line ends stay.

Exit codes:
  0  success (update: installed and reported to the server)
  1  failed: no Controller or no such port, no answer from the Controller, an
     invalid address, an update server answer that could not be used (the
     last line on standard error says why), the upload failed, ...
  2  wrong arguments
  3  no update needed: the newest firmware is installed already
  4  refused by the update server (Controller not registered, or a message
     from the maker)
  5  the update server could not be reached
  6  a question was answered no

Examples:
  quendral-cli ports
  quendral-cli identify -p ttyACM1
  quendral-cli update --yes
  quendral-cli update --all --yes
  quendral-cli ip > network-settings.txt
  quendral-cli ip -p /dev/ttyUSB0 dhcp=off ip=192.168.10.20 gateway=192.168.10.1
  printf 'debug\n' | quendral-cli monitor
)";

} // namespace

std::string helpText()
{
    return std::string(kHelpText);
}

} // namespace quendral::cli
