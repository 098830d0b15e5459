// The serial monitor beside the serial terminal an owner would otherwise use
// (CuteCom, Debian's package, run as a black box), in one run on one X server,
// and the idle cost of the window.
//
//   build/bench/bench_serial_monitor_peer [ROUNDS] [SECONDS]        flood rounds
//   build/bench/bench_serial_monitor_peer --idle [SECONDS]          idle cost
//   build/bench/bench_serial_monitor_peer --peer-on-umockdev [ROUNDS] [SECONDS]
//                                  CuteCom opens its tty through the test bed too
//   build/bench/bench_serial_monitor_peer --straight-reads [ROUNDS] [SECONDS]
//                                  ours reads its tty without the test bed's
//                                  round trip, as CuteCom its pty (see below)
//   --rate MB/S before the others: the flood no faster than that
//   --at-peer-rate before the others: each round floods ours a second time,
//                                  at the rate CuteCom sustained in it, and
//                                  compares the CPU per MB at that rate
//   (re-starts itself under umockdev-wrapper; starts an Xvfb of its own)
//
// Flood: two umockdev ttys, one for each program. Our monitor (this binary in
// its --our-monitor role: the real SerialMonitor window on the xcb platform)
// opens the first through the umockdev tree; CuteCom, started without the
// umockdev preload and with a settings file naming the device, is given the
// second tty's pseudo-terminal and its Open button is pressed (xdotool). Each
// round floods ours, then the peer, with the same 64-byte text lines as fast
// as the pseudo-terminal takes them. Per phase: the bytes the program read
// from its pty, its CPU time (/proc/PID/stat) per MB, its resident memory,
// and how long its window takes to answer an X round trip (a _NET_WM_PING
// client message every 10 ms, echoed by the program's GUI thread to the
// root window). For ours, the event loop's own lateness (a 10 ms timer) too,
// and how much of the text it drew (a flood faster than the window's
// scroll-back between two draws is shown by its newest part).
//
// A umockdev tty with the test bed's ioctl handler (the default) hands every
// read and write of the program to the test bed over a socket and waits for
// the answer: a cost per call that no real port has and that a program
// reading in smaller pieces pays more often. --straight-reads plugs our tty
// without that handler: our monitor then reads its pseudo-terminal itself,
// as it would read a real port and as CuteCom reads its plain one (our tty
// then has no modem lines, as a plain pseudo-terminal has none). CuteCom
// does not work on a umockdev node without the handler (it reads nothing).
//
// Idle: the real window application with no port open, our monitor on a
// silent tty, and CuteCom on a silent pty: wake-ups per second (voluntary
// and involuntary context switches of all threads) and CPU over SECONDS.
#include "bench_support.h"
#include "log/logger.h"
#include "qt_main_queue.h"
#include "umockdev_testbed.h"
#include "windows/serial_monitor.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPlainTextEdit>
#include <QSocketNotifier>
#include <QTimer>

#include <xcb/xcb.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

using namespace quendral;
using SteadyClock = std::chrono::steady_clock;
using bench::loadAverage;
using bench::median;
using bench::Spread;
using bench::spreadOf;

// --- our monitor, in a process of its own ---------------------------------------------
//
// Reads commands on standard input: "reset" starts a new lateness sample,
// "report" prints "lateness P50 P99 MAX N open 0|1 drawn CHARACTERS" since.
int runOurMonitor(int argc, char** argv, const std::string& path)
{
    qputenv("QT_QPA_PLATFORM", "xcb");
    Logger::setConsole(nullptr);
    QApplication application(argc, argv);
    app::QtMainQueue mainQueue;
    windows::SerialMonitor monitor;
    // Characters put into the output since the last "reset".
    long long drawn = 0;
    if (auto* output = monitor.findChild<QPlainTextEdit*>()) {
        QObject::connect(output->document(), &QTextDocument::contentsChange,
                         [&drawn](int /*position*/, int /*removed*/, int added) { drawn += added; });
    }
    monitor.resize(640, 480);
    monitor.move(700, 0);
    monitor.show();
    if (!path.empty()) {
        monitor.openPort(path);
    }

    std::vector<double> late;
    QElapsedTimer clock;
    clock.start();
    double previous = -1;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    QObject::connect(&tick, &QTimer::timeout, [&] {
        const double now = static_cast<double>(clock.nsecsElapsed()) / 1e6;
        if (previous >= 0) {
            late.push_back(std::max(0.0, now - previous - 10.0));
        }
        previous = now;
    });
    const bool measuring = !qEnvironmentVariableIsSet("QUENDRAL_BENCH_NO_TIMER");
    if (measuring) {
        tick.start(10);
    }

    QSocketNotifier commands(STDIN_FILENO, QSocketNotifier::Read);
    std::string pending;
    QObject::connect(&commands, &QSocketNotifier::activated, [&] {
        char chunk[256];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            QCoreApplication::quit();
            return;
        }
        pending.append(chunk, static_cast<std::size_t>(n));
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
            const std::string command = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (command == "reset") {
                late.clear();
                previous = -1;
                drawn = 0;
            } else if (command == "report") {
                const Spread s = spreadOf(late);
                std::printf("lateness %.3f %.3f %.3f %zu open %d drawn %lld\n", s.p50, s.p99, s.max, s.n,
                            monitor.isSerialOpen() ? 1 : 0, drawn);
                std::fflush(stdout);
            }
        }
    });
    const int result = QApplication::exec();
    monitor.closeSerial();
    return result;
}

// --- processes ------------------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    int in = -1;  // its standard input
    int out = -1; // its standard output
};

Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& environment, bool pipes)
{
    Child child;
    int toChild[2] = {-1, -1};
    int fromChild[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (pipes && ::pipe2(toChild, O_CLOEXEC) == 0 && ::pipe2(fromChild, O_CLOEXEC) == 0) {
        posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    std::vector<char*> env;
    for (const auto& e : environment) {
        env.push_back(const_cast<char*>(e.c_str()));
    }
    env.push_back(nullptr);
    const int error = ::posix_spawnp(&child.pid, args[0], &actions, nullptr, args.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    if (pipes) {
        ::close(toChild[0]);
        ::close(fromChild[1]);
        child.in = toChild[1];
        child.out = fromChild[0];
    }
    if (error != 0) {
        std::fprintf(stderr, "cannot start %s: %s\n", args[0], std::strerror(error));
        child.pid = -1;
    }
    return child;
}

void stop(Child& child)
{
    if (child.in >= 0) {
        ::close(child.in);
        child.in = -1;
    }
    if (child.pid > 0) {
        ::kill(child.pid, SIGTERM);
        int status = 0;
        ::waitpid(child.pid, &status, 0);
        child.pid = -1;
    }
    if (child.out >= 0) {
        ::close(child.out);
        child.out = -1;
    }
}

// One line from a child's standard output, waiting at most `timeout`.
std::optional<std::string> readLine(int fd, std::chrono::milliseconds timeout)
{
    std::string line;
    const auto deadline = SteadyClock::now() + timeout;
    while (SteadyClock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) {
            continue;
        }
        char c = 0;
        if (::read(fd, &c, 1) != 1) {
            return std::nullopt;
        }
        if (c == '\n') {
            return line;
        }
        line += c;
    }
    return std::nullopt;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& changes,
                                         const std::vector<std::string>& without = {})
{
    std::vector<std::string> result;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        const std::string name = entry.substr(0, entry.find('='));
        if (changes.count(name) == 0 && std::find(without.begin(), without.end(), name) == without.end()) {
            result.push_back(entry);
        }
    }
    for (const auto& [name, value] : changes) {
        result.push_back(name + "=" + value);
    }
    return result;
}

// CPU seconds (user + system) of a process, from /proc/PID/stat.
double cpuSecondsFrom(const std::filesystem::path& statFile)
{
    std::ifstream in(statFile);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto close = text.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) {
            utime = std::stoull(field);
        } else if (index == 15) {
            stime = std::stoull(field);
            break;
        }
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double cpuSeconds(pid_t pid)
{
    return cpuSecondsFrom("/proc/" + std::to_string(pid) + "/stat");
}

long statusKb(pid_t pid, const char* field)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(field, 0) == 0) {
            return std::atol(line.c_str() + std::strlen(field) + 1);
        }
    }
    return -1;
}

// Context switches of each thread of a process, by thread id: each one is
// the thread waking up (voluntary: it slept and woke; involuntary: it was
// preempted).
std::map<std::string, unsigned long long> contextSwitches(pid_t pid, bool guiThreadOnly = false)
{
    std::map<std::string, unsigned long long> byThread;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    std::error_code ec;
    for (const auto& task : std::filesystem::directory_iterator(tasks, ec)) {
        const std::string id = task.path().filename().string();
        if (guiThreadOnly && id != std::to_string(pid)) {
            continue;
        }
        std::ifstream in(task.path() / "status");
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0 || line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
                byThread[id] += std::stoull(line.substr(line.find(':') + 1));
            }
        }
    }
    return byThread;
}

// Wake-ups between two samples; a thread that left in between counts with
// what it had at the first (its last ones are not seen).
double wakeupsBetween(const std::map<std::string, unsigned long long>& before,
                      const std::map<std::string, unsigned long long>& after)
{
    double total = 0;
    for (const auto& [id, count] : after) {
        const auto earlier = before.find(id);
        total += static_cast<double>(count - (earlier != before.end() ? earlier->second : 0ULL));
    }
    return total;
}

// CPU seconds of each thread of a process, summed by thread name (the GUI
// thread apart: unnamed threads carry the program's name).
std::map<std::string, double> cpuByThreadName(pid_t pid)
{
    std::map<std::string, double> byName;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    std::error_code ec;
    for (const auto& task : std::filesystem::directory_iterator(tasks, ec)) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (task.path().filename() == std::to_string(pid)) {
            name = "(GUI thread)";
        }
        byName[name] += cpuSecondsFrom(task.path() / "stat");
    }
    return byName;
}

int threadCount(pid_t pid)
{
    return static_cast<int>(statusKb(pid, "Threads:"));
}

bool holdsOpen(pid_t pid, const std::string& path)
{
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator(fds, ec)) {
        std::error_code readError;
        if (std::filesystem::read_symlink(fd.path(), readError).string() == path) {
            return true;
        }
    }
    return false;
}

// --- the X side ---------------------------------------------------------------------

struct XServer {
    pid_t pid = -1;
    std::string display;
};

XServer startXvfb()
{
    XServer x;
    int fds[2];
    if (::pipe(fds) != 0) {
        return x;
    }
    const Child child =
        spawn({"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0", "1400x900x24", "-nolisten", "tcp"},
              environmentWith({}, {"LD_PRELOAD"}), false);
    ::close(fds[1]);
    x.pid = child.pid;
    if (const auto line = readLine(fds[0], std::chrono::seconds(10))) {
        x.display = ":" + *line;
    }
    ::close(fds[0]);
    return x;
}

class XPinger {
public:
    explicit XPinger(const std::string& display)
    {
        _connection = xcb_connect(display.c_str(), nullptr);
        if (xcb_connection_has_error(_connection) != 0) {
            return;
        }
        _root = xcb_setup_roots_iterator(xcb_get_setup(_connection)).data->root;
        _protocols = atom("WM_PROTOCOLS");
        _ping = atom("_NET_WM_PING");
        _pid = atom("_NET_WM_PID");
        // The programs echo the ping to the root window for the substructure listeners.
        selectOnRoot(XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY);
        _ok = true;
    }
    ~XPinger()
    {
        if (_connection != nullptr) {
            xcb_disconnect(_connection);
        }
    }
    XPinger(const XPinger&) = delete;
    XPinger& operator=(const XPinger&) = delete;

    [[nodiscard]] bool ok() const { return _ok; }

    // The viewable top-level window of this process that answers pings.
    std::optional<xcb_window_t> windowOf(pid_t pid)
    {
        auto* tree = xcb_query_tree_reply(_connection, xcb_query_tree(_connection, _root), nullptr);
        if (tree == nullptr) {
            return std::nullopt;
        }
        std::optional<xcb_window_t> found;
        const xcb_window_t* children = xcb_query_tree_children(tree);
        for (int i = 0; i < xcb_query_tree_children_length(tree) && !found; ++i) {
            const xcb_window_t window = children[i];
            auto* attributes =
                xcb_get_window_attributes_reply(_connection, xcb_get_window_attributes(_connection, window), nullptr);
            const bool viewable = attributes != nullptr && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
            std::free(attributes);
            if (viewable && cardinal(window, _pid) == static_cast<uint32_t>(pid) && answersPing(window)) {
                found = window;
            }
        }
        std::free(tree);
        return found;
    }

    // Pings each window every 10 ms for `seconds`; the round trips in ms, per window.
    std::map<xcb_window_t, std::vector<double>> measure(const std::vector<xcb_window_t>& windows, double seconds)
    {
        std::map<xcb_window_t, std::vector<double>> trips;
        std::map<uint32_t, std::pair<xcb_window_t, SteadyClock::time_point>> outstanding;
        const auto start = SteadyClock::now();
        const auto end = start + std::chrono::duration<double>(seconds);
        auto nextPing = start;
        const int fd = xcb_get_file_descriptor(_connection);
        // The server hands an event sent with the redirect mask only to the
        // client that redirects the root's children (the window manager's
        // place; there is none), so take that place while measuring.
        selectOnRoot(XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT);
        while (SteadyClock::now() < end ||
               (!outstanding.empty() && SteadyClock::now() < end + std::chrono::seconds(2))) {
            const auto now = SteadyClock::now();
            if (now >= nextPing && now < end) {
                for (const xcb_window_t window : windows) {
                    const uint32_t serial = ++_serial;
                    send(window, serial);
                    outstanding[serial] = {window, SteadyClock::now()};
                }
                xcb_flush(_connection);
                nextPing += std::chrono::milliseconds(10);
            }
            pollfd p{fd, POLLIN, 0};
            const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextPing - SteadyClock::now());
            ::poll(&p, 1, static_cast<int>(std::clamp<long long>(wait.count(), 0, 10)));
            while (xcb_generic_event_t* event = xcb_poll_for_event(_connection)) {
                if ((event->response_type & 0x7F) == XCB_CLIENT_MESSAGE) {
                    const auto* message = reinterpret_cast<const xcb_client_message_event_t*>(event);
                    if (message->type == _protocols && message->data.data32[0] == _ping) {
                        const auto found = outstanding.find(message->data.data32[1]);
                        if (found != outstanding.end()) {
                            trips[found->second.first].push_back(
                                std::chrono::duration<double, std::milli>(SteadyClock::now() - found->second.second)
                                    .count());
                            outstanding.erase(found);
                        }
                    }
                }
                std::free(event);
            }
        }
        selectOnRoot(XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY);
        // Pings never answered count as the whole wait.
        for (const auto& [serial, sent] : outstanding) {
            trips[sent.first].push_back(
                std::chrono::duration<double, std::milli>(SteadyClock::now() - sent.second).count());
        }
        return trips;
    }

private:
    void selectOnRoot(uint32_t mask)
    {
        xcb_change_window_attributes(_connection, _root, XCB_CW_EVENT_MASK, &mask);
        xcb_flush(_connection);
    }
    xcb_atom_t atom(const char* name)
    {
        auto* reply = xcb_intern_atom_reply(
            _connection, xcb_intern_atom(_connection, 0, static_cast<uint16_t>(std::strlen(name)), name), nullptr);
        const xcb_atom_t result = reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
        std::free(reply);
        return result;
    }
    uint32_t cardinal(xcb_window_t window, xcb_atom_t property)
    {
        auto* reply = xcb_get_property_reply(
            _connection, xcb_get_property(_connection, 0, window, property, XCB_ATOM_CARDINAL, 0, 1), nullptr);
        uint32_t value = 0;
        if (reply != nullptr && xcb_get_property_value_length(reply) >= 4) {
            std::memcpy(&value, xcb_get_property_value(reply), 4);
        }
        std::free(reply);
        return value;
    }
    bool answersPing(xcb_window_t window)
    {
        auto* reply = xcb_get_property_reply(
            _connection, xcb_get_property(_connection, 0, window, _protocols, XCB_ATOM_ATOM, 0, 32), nullptr);
        bool found = false;
        if (reply != nullptr) {
            const auto* atoms = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply));
            const int count = xcb_get_property_value_length(reply) / 4;
            found = std::find(atoms, atoms + count, _ping) != atoms + count;
        }
        std::free(reply);
        return found;
    }
    void send(xcb_window_t window, uint32_t serial)
    {
        xcb_client_message_event_t message{};
        message.response_type = XCB_CLIENT_MESSAGE;
        message.format = 32;
        message.window = window;
        message.type = _protocols;
        message.data.data32[0] = _ping;
        message.data.data32[1] = serial; // the "timestamp", echoed back unchanged
        message.data.data32[2] = window;
        xcb_send_event(_connection, 0, window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&message));
    }

    xcb_connection_t* _connection = nullptr;
    xcb_window_t _root = 0;
    xcb_atom_t _protocols = 0;
    xcb_atom_t _ping = 0;
    xcb_atom_t _pid = 0;
    uint32_t _serial = 0;
    bool _ok = false;
};

struct Phase {
    double seconds = 0;
    double megabytes = 0;
    double cpu = 0;
    double otherCpu = 0;
    double xCpu = 0;
    long rssKb = 0;
    Spread ping;
    Spread lateness;                       // ours only
    double drawnMegabytes = -1;            // ours only: text put into the output
    std::map<std::string, double> threads; // CPU seconds by thread name during the phase
};

void printPhase(const char* who, int round, const Phase& p)
{
    std::printf("%-5d %-8s %7.2f MB/s %8.3f s/MB %7.0f MB RSS  X ping p50 %6.2f p99 %7.2f max %7.2f ms", round, who,
                p.megabytes / p.seconds, p.megabytes > 0 ? p.cpu / p.megabytes : 0, static_cast<double>(p.rssKb) / 1024,
                p.ping.p50, p.ping.p99, p.ping.max);
    if (p.lateness.n > 0) {
        std::printf("  lateness p99 %6.2f ms", p.lateness.p99);
    }
    if (p.drawnMegabytes >= 0) {
        std::printf("  drawn %.2f MB/s (%.3f s/MB drawn)", p.drawnMegabytes / p.seconds,
                    p.drawnMegabytes > 0 ? p.cpu / p.drawnMegabytes : 0);
    }
    std::printf("  (Xvfb %.3f s/MB)\n      CPU by thread:", p.megabytes > 0 ? p.xCpu / p.megabytes : 0);
    for (const auto& [name, seconds] : p.threads) {
        if (seconds >= 0.01) {
            std::printf(" %s %.2f s", name.c_str(), seconds);
        }
    }
    std::printf("\n");
}

struct OurReport {
    Spread lateness;
    long long drawn = 0; // characters
};

std::optional<OurReport> askOurMonitor(Child& ours, const char* command)
{
    const std::string line = std::string(command) + "\n";
    if (::write(ours.in, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        return std::nullopt;
    }
    if (std::string(command) != "report") {
        return OurReport{};
    }
    const auto answer = readLine(ours.out, std::chrono::seconds(10));
    OurReport report;
    Spread& s = report.lateness;
    int open = 0;
    if (!answer ||
        std::sscanf(answer->c_str(), "lateness %lf %lf %lf %zu open %d drawn %lld", &s.p50, &s.p99, &s.max, &s.n, &open,
                    &report.drawn) != 6 ||
        open != 1) {
        return std::nullopt;
    }
    return report;
}

// Writes CuteCom's settings so that its default session names `device`.
void writePeerSettings(const std::filesystem::path& home, const std::string& device)
{
    std::filesystem::create_directories(home / ".config" / "CuteCom");
    std::ofstream(home / ".config" / "CuteCom" / "CuteCom5.conf")
        << "[sessions]\n1\\BaudRate=115200\n1\\DataBits=8\n1\\Device=" << device
        << "\n1\\FlowControl=0\n1\\OpenMode=3\n1\\Parity=0\n1\\StopBits=1\n1\\autoReconnect=false\n1\\name=Default\n"
           "1\\showCtrlCharacters=false\n1\\showTimestamp=false\nsize=1\n";
}

template <typename Ready> bool waitFor(Ready ready, std::chrono::seconds limit)
{
    const auto deadline = SteadyClock::now() + limit;
    while (SteadyClock::now() < deadline) {
        if (ready()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// The window of a program just started, once it shows.
bool waitForWindow(XPinger& x, const Child& program, const char* what, xcb_window_t& window)
{
    std::optional<xcb_window_t> shown;
    if (program.pid <= 0 ||
        !waitFor([&] { return (shown = x.windowOf(program.pid)).has_value(); }, std::chrono::seconds(20))) {
        std::fprintf(stderr, "%s did not show\n", what);
        return false;
    }
    window = *shown;
    return true;
}

struct World {
    XServer x;
    std::filesystem::path home;
    Child ours;
    Child peer;
    xcb_window_t ourWindow = 0;
    xcb_window_t peerWindow = 0;
};

// Starts CuteCom on `peerPty` (Open pressed) and our monitor on `ourDevnode`
// (empty: the real window application instead, with no port open). With a
// `peerDevnode`, CuteCom opens that umockdev node through the test bed as ours
// does (the preload hands each read to the test bed), instead of the plain
// pseudo-terminal behind it.
bool startPrograms(World& w, XPinger& x, const std::string& self, const std::string& ourDevnode,
                   const std::string& peerPty, bool theApplication, const std::string& peerDevnode = {})
{
    writePeerSettings(w.home, peerDevnode.empty() ? peerPty : peerDevnode);
    std::vector<std::string> peerDrops = {"XDG_CONFIG_HOME"};
    if (peerDevnode.empty()) {
        peerDrops.insert(peerDrops.end(), {"LD_PRELOAD", "UMOCKDEV_DIR"});
    }
    const auto peerEnvironment = environmentWith({{"DISPLAY", w.x.display},
                                                  {"HOME", w.home.string()},
                                                  {"XDG_RUNTIME_DIR", w.home.string()},
                                                  {"QT_QPA_PLATFORM", "xcb"}},
                                                 peerDrops);
    w.peer = spawn({"cutecom"}, peerEnvironment, false);
    if (!waitForWindow(x, w.peer, "CuteCom", w.peerWindow)) {
        return false;
    }
    // Its Open button, at the top left of its window (the window sits at 0,0: no window manager).
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Child click = spawn({"xdotool", "mousemove", "50", "43", "click", "1", "mousemove", "1300", "850"},
                        environmentWith({{"DISPLAY", w.x.display}}, {"LD_PRELOAD"}), false);
    int status = 0;
    ::waitpid(click.pid, &status, 0);
    if (!waitFor([&] { return holdsOpen(w.peer.pid, peerPty); }, std::chrono::seconds(10))) {
        std::fprintf(stderr, "CuteCom did not open %s\n", peerPty.c_str());
        return false;
    }

    const auto ourEnvironment = environmentWith({{"DISPLAY", w.x.display},
                                                 {"QT_QPA_PLATFORM", "xcb"},
                                                 {"XDG_DATA_HOME", w.home.string()},
                                                 {"XDG_RUNTIME_DIR", w.home.string()}});
    if (theApplication) {
        w.ours = spawn({QUENDRAL_UPDATER_BINARY}, ourEnvironment, false);
    } else {
        w.ours = spawn({self, "--our-monitor", ourDevnode}, ourEnvironment, true);
    }
    if (!waitForWindow(x, w.ours, "our window", w.ourWindow)) {
        return false;
    }
    if (!theApplication) {
        if (!askOurMonitor(w.ours, "report")) {
            std::fprintf(stderr, "our monitor does not answer\n");
            return false;
        }
    }
    return true;
}

Phase floodPhase(World& w, XPinger& x, int fd, bool oursFlooded, double seconds, double bytesPerSecond)
{
    Phase phase;
    const pid_t target = oursFlooded ? w.ours.pid : w.peer.pid;
    const pid_t other = oursFlooded ? w.peer.pid : w.ours.pid;
    if (oursFlooded) {
        askOurMonitor(w.ours, "reset");
    }
    const double cpuBefore = cpuSeconds(target);
    const double otherBefore = cpuSeconds(other);
    const double xBefore = cpuSeconds(w.x.pid);
    const auto threadsBefore = cpuByThreadName(target);
    const auto start = SteadyClock::now();
    long long written = 0;
    std::map<xcb_window_t, std::vector<double>> trips;
    {
        bench::PtyFlood flood(fd, bytesPerSecond);
        trips = x.measure({oursFlooded ? w.ourWindow : w.peerWindow}, seconds);
        written = flood.written();
    }
    phase.seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
    phase.cpu = cpuSeconds(target) - cpuBefore;
    phase.otherCpu = cpuSeconds(other) - otherBefore;
    phase.xCpu = cpuSeconds(w.x.pid) - xBefore;
    for (const auto& [name, used] : cpuByThreadName(target)) {
        const auto before = threadsBefore.find(name);
        phase.threads[name] = used - (before != threadsBefore.end() ? before->second : 0.0);
    }
    phase.megabytes = static_cast<double>(written) / 1e6;
    phase.rssKb = statusKb(target, "VmRSS:");
    phase.ping = spreadOf(trips[oursFlooded ? w.ourWindow : w.peerWindow]);
    if (oursFlooded) {
        if (const auto report = askOurMonitor(w.ours, "report")) {
            phase.lateness = report->lateness;
            phase.drawnMegabytes = static_cast<double>(report->drawn) / 1e6;
        }
    }
    // Let the program catch up before the next phase.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return phase;
}

struct IdleFigures {
    double wakeupsPerSecond = 0;
    double guiWakeupsPerSecond = 0;
    double cpuPercent = 0;
    int threads = 0;
    long rssKb = 0;
};

// The programs side by side over the same seconds.
std::vector<IdleFigures> idleOf(const std::vector<pid_t>& pids, double seconds)
{
    std::vector<double> cpu;
    std::vector<std::map<std::string, unsigned long long>> switches;
    std::vector<std::map<std::string, unsigned long long>> guiSwitches;
    for (const pid_t pid : pids) {
        cpu.push_back(cpuSeconds(pid));
        switches.push_back(contextSwitches(pid));
        guiSwitches.push_back(contextSwitches(pid, true));
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    std::vector<IdleFigures> figures;
    for (std::size_t i = 0; i < pids.size(); ++i) {
        IdleFigures f;
        f.wakeupsPerSecond = wakeupsBetween(switches[i], contextSwitches(pids[i])) / seconds;
        f.guiWakeupsPerSecond = wakeupsBetween(guiSwitches[i], contextSwitches(pids[i], true)) / seconds;
        f.cpuPercent = (cpuSeconds(pids[i]) - cpu[i]) / seconds * 100.0;
        f.threads = threadCount(pids[i]);
        f.rssKb = statusKb(pids[i], "VmRSS:");
        figures.push_back(f);
    }
    return figures;
}

void printIdle(const char* who, const IdleFigures& f)
{
    std::printf("%-46s %8.1f wake-ups/s (GUI thread %6.1f)  CPU %6.3f %%  %2d threads  RSS %5.1f MB\n", who,
                f.wakeupsPerSecond, f.guiWakeupsPerSecond, f.cpuPercent, f.threads,
                static_cast<double>(f.rssKb) / 1024);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 2 && std::string(argv[1]) == "--our-monitor") {
        return runOurMonitor(argc, argv, argv[2]);
    }
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "bench_serial_monitor_peer");
        return 127;
    }
    // Options first: where CuteCom's tty is, and the flood's rate.
    bool peerOnUmockdev = false;
    bool straightReads = false;
    bool atPeerRate = false;
    double bytesPerSecond = 0;
    while (argc > 1) {
        const std::string option = argv[1];
        if (option == "--peer-on-umockdev") {
            peerOnUmockdev = true;
        } else if (option == "--straight-reads") {
            straightReads = true;
        } else if (option == "--at-peer-rate") {
            atPeerRate = true;
        } else if (option == "--rate" && argc > 2) {
            bytesPerSecond = std::atof(argv[2]) * 1e6;
            --argc;
            ++argv;
        } else {
            break;
        }
        --argc;
        ++argv;
    }
    const bool idle = argc > 1 && std::string(argv[1]) == "--idle";
    const int rounds = !idle && argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const double seconds = idle ? (argc > 2 ? std::atof(argv[2]) : 60.0) : (argc > 2 ? std::atof(argv[2]) : 10.0);
    std::signal(SIGPIPE, SIG_IGN);

    sim::UmockdevTestbed testbed;
    sim::UsbSerialDeviceInfo ourInfo;
    ourInfo.ttyName = "ttyACM0";
    ourInfo.handleCalls = !straightReads;
    sim::UsbSerialDeviceInfo peerInfo;
    peerInfo.ttyName = "ttyACM1";
    const auto ourDevice = testbed.addUsbSerialDevice(ourInfo);
    const auto peerDevice = testbed.addUsbSerialDevice(peerInfo);
    if (!ourDevice || !peerDevice) {
        return 1;
    }

    World w;
    char folder[] = "/tmp/quendral-bench-peer-XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        return 1;
    }
    w.home = folder;
    ::chmod(folder, 0700);
    w.x = startXvfb();
    if (w.x.display.empty()) {
        std::fprintf(stderr, "Xvfb did not start\n");
        return 1;
    }
    XPinger x(w.x.display);
    const std::string self = std::filesystem::canonical("/proc/self/exe").string();
    int result = 0;
    std::printf("load average before: %s (2-core machine, shared)\n", loadAverage().c_str());
    std::printf("CuteCom's tty: %s; flood: %s\n",
                peerOnUmockdev ? "its umockdev node, through the test bed as ours"
                : straightReads
                    ? "the plain pseudo-terminal (ours its umockdev node, reads not handled by the test bed)"
                    : "the plain pseudo-terminal (ours through the test bed)",
                bytesPerSecond > 0 ? (std::to_string(bytesPerSecond / 1e6) + " MB/s").c_str() : "as fast as it goes");
    if (idle) {
        // The window application with nothing open, then our monitor on a silent tty.
        if (!startPrograms(w, x, self, "", peerDevice->ptyPath(), true)) {
            result = 1;
        } else {
            std::this_thread::sleep_for(std::chrono::seconds(2));
            auto figures = idleOf({w.ours.pid, w.peer.pid}, seconds);
            printIdle("window application, no port open", figures[0]);
            printIdle("CuteCom, port open, silent (same seconds)", figures[1]);
            stop(w.ours);
            w.ours = spawn({self, "--our-monitor", ourDevice->devnode()},
                           environmentWith({{"DISPLAY", w.x.display},
                                            {"QT_QPA_PLATFORM", "xcb"},
                                            {"QUENDRAL_BENCH_NO_TIMER", "1"},
                                            {"XDG_RUNTIME_DIR", w.home.string()}}),
                           true);
            std::this_thread::sleep_for(std::chrono::seconds(2));
            figures = idleOf({w.ours.pid, w.peer.pid}, seconds);
            printIdle("our serial monitor window, port open, silent", figures[0]);
            printIdle("CuteCom, port open, silent (same seconds)", figures[1]);
        }
    } else if (!startPrograms(w, x, self, ourDevice->devnode(), peerDevice->ptyPath(), false,
                              peerOnUmockdev ? peerDevice->devnode() : std::string())) {
        result = 1;
    } else {
        std::printf("%-5s %-8s %12s %12s %12s\n", "round", "program", "throughput", "CPU/MB", "memory");
        // Per program, one figure per round.
        struct Rounds {
            std::vector<double> rate, cpu, ping, lateness, rss, drawnRate, cpuDrawn;
            void add(const Phase& phase)
            {
                rate.push_back(phase.megabytes / phase.seconds);
                cpu.push_back(phase.cpu / phase.megabytes);
                if (phase.drawnMegabytes > 0) {
                    drawnRate.push_back(phase.drawnMegabytes / phase.seconds);
                    cpuDrawn.push_back(phase.cpu / phase.drawnMegabytes);
                }
                ping.push_back(phase.ping.p99);
                lateness.push_back(phase.lateness.p99);
                rss.push_back(static_cast<double>(phase.rssKb) / 1024);
            }
        };
        Rounds ourRounds;
        Rounds peerRounds;
        Rounds pacedRounds;              // ours at the rate CuteCom sustained in the same round
        std::vector<double> pacedRatios; // its CPU per MB over CuteCom's, round by round
        for (int round = 1; round <= rounds; ++round) {
            const Phase ours = floodPhase(w, x, ourDevice->deviceEnd(), true, seconds, bytesPerSecond);
            printPhase("ours", round, ours);
            const Phase peer = floodPhase(w, x, peerDevice->deviceEnd(), false, seconds, bytesPerSecond);
            printPhase("CuteCom", round, peer);
            ourRounds.add(ours);
            peerRounds.add(peer);
            if (atPeerRate && peer.megabytes > 0) {
                const Phase paced =
                    floodPhase(w, x, ourDevice->deviceEnd(), true, seconds, peer.megabytes * 1e6 / peer.seconds);
                printPhase("ours@", round, paced);
                pacedRounds.add(paced);
                pacedRatios.push_back((paced.cpu / paced.megabytes) / (peer.cpu / peer.megabytes));
            }
        }
        std::printf("load average after: %s\n", loadAverage().c_str());
        std::printf("medians of %d rounds of %.0f s:\n", rounds, seconds);
        std::printf("  throughput   ours %.2f MB/s, CuteCom %.2f MB/s (ratio %.2f)\n", median(ourRounds.rate),
                    median(peerRounds.rate), median(ourRounds.rate) / median(peerRounds.rate));
        std::printf("  CPU per MB   ours %.3f s, CuteCom %.3f s (ratio %.2f)\n", median(ourRounds.cpu),
                    median(peerRounds.cpu), median(ourRounds.cpu) / median(peerRounds.cpu));
        if (!ourRounds.cpuDrawn.empty()) {
            // CuteCom keeps all it reads (its memory grows with it); what it draws is not seen from here.
            std::printf("  ours drew    %.2f MB/s at %.3f s per MB drawn (ratio to CuteCom's per MB read %.2f)\n",
                        median(ourRounds.drawnRate), median(ourRounds.cpuDrawn),
                        median(ourRounds.cpuDrawn) / median(peerRounds.cpu));
        }
        if (!pacedRounds.rate.empty()) {
            // The goal's own terms: CuteCom's throughput, and what ours pays per MB for it.
            std::printf("  at CuteCom's rate (ours@) ours %.2f MB/s at %.3f s per MB read", median(pacedRounds.rate),
                        median(pacedRounds.cpu));
            if (!pacedRounds.cpuDrawn.empty()) {
                std::printf(", drew %.2f MB/s at %.3f s per MB drawn", median(pacedRounds.drawnRate),
                            median(pacedRounds.cpuDrawn));
            }
            std::printf("; CPU per MB ours / CuteCom per round:");
            for (const double ratio : pacedRatios) {
                std::printf(" %.2f", ratio);
            }
            std::printf(" (median %.2f)\n", median(pacedRatios));
        }
        std::printf("  RSS          ours %.0f MB, CuteCom %.0f MB\n", median(ourRounds.rss), median(peerRounds.rss));
        std::printf("  X ping p99   ours %.2f ms, CuteCom %.2f ms\n", median(ourRounds.ping), median(peerRounds.ping));
        std::printf("  our event-loop lateness p99 %.2f ms (goal < 8 ms)\n", median(ourRounds.lateness));
    }
    stop(w.ours);
    stop(w.peer);
    if (w.x.pid > 0) {
        ::kill(w.x.pid, SIGTERM);
        ::waitpid(w.x.pid, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
    return result;
}
