// Soak: the application's controller in one long-lived process against the
// device lab's KorbatekDue (a simulated USB board in a umockdev world), asked
// to identify the Controller over and over, then unplugged and plugged back in
// over and over. Open descriptors, threads, resident memory and live serial
// port objects are sampled at the start (after a warm-up) and at the end of
// each phase; the goal is no growth.
//
//     build/bench/bench_soak [IDENTIFY_CYCLES] [PLUG_CYCLES]    (default 1000 200)
//     build/bench/bench_soak --lab-only [PLUG_CYCLES]
//
// --lab-only plugs and unplugs the board without the application in the
// process (no port manager, no controller): what the test bed itself keeps
// per cycle, to tell from the application's share.
//
// (it starts itself under umockdev-wrapper when run without it). The
// controller's one-second waits are shortened by a fast-forwarding clock (a
// second of the controller's time is 1/20 s of real time), so each identify
// still opens the port, asks, waits for the reply on the port's reader thread,
// closes the port and waits for the close, as on the owner's machine.
// Exit status 1 when an identify fails or a plugged-in board never reaches the
// port list.
#include "support/fast_forward_clock.h"
#include "support/recording_main_view.h"
#include "support/temp_dir.h"

#include "controller/main_view_controller.h"
#include "log/logger.h"
#include "platform/dispatch.h"
#include "serial/serial_port.h"
#include "serial/serial_port_manager.h"

#include "simulated_usb_board.h"
#include "umockdev_testbed.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <string>

using namespace quendral;
using namespace std::chrono_literals;

namespace {

constexpr const char* kCID = "SOAK0000000000000000000000000001"; // 32 characters, as a Controller sends
constexpr const char* kVersion = "1.2.3";

struct Sample {
    std::size_t descriptors = 0;
    // Of those, pseudo-terminal masters: the test bed's device ends. It keeps
    // each device's master and umockdev's ioctl socket for that device until
    // the end of the run (a node is never handed out twice), so every plug
    // cycle adds two descriptors on the lab's side.
    std::size_t testBedMasters = 0;
    std::size_t sockets = 0;
    long threads = 0;
    long residentKiB = 0;
    // The allocator's bytes in use: growth here is memory held, not
    // fragmentation or pages the allocator keeps for later.
    std::size_t heapInUse = 0;
    std::size_t serialPorts = 0;

    // What is left without the test bed's master and socket per device.
    [[nodiscard]] std::size_t applicationDescriptors() const { return descriptors - 2 * testBedMasters; }
};

long statusField(const std::string& name)
{
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
        }
    }
    return -1;
}

Sample sample()
{
    Sample s;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        ++s.descriptors;
        std::error_code linkError;
        const std::string target = std::filesystem::read_symlink(it->path(), linkError).string();
        s.testBedMasters += target == "/dev/ptmx" ? 1 : 0;
        s.sockets += target.rfind("socket:", 0) == 0 ? 1 : 0;
    }
    s.threads = statusField("Threads");
    s.residentKiB = statusField("VmRSS");
    s.heapInUse = ::mallinfo2().uordblks;
    s.serialPorts = SerialPort::allSerialPorts().size();
    return s;
}

void printSample(const char* when, const Sample& s)
{
    std::printf("%-28s descriptors %4zu (test bed's pty masters %3zu, sockets %3zu, application's %3zu)  threads %3ld  "
                "RSS %6.1f MiB  heap in use %7.1f KiB  port objects %zu\n",
                when, s.descriptors, s.testBedMasters, s.sockets, s.applicationDescriptors(), s.threads,
                static_cast<double>(s.residentKiB) / 1024.0, static_cast<double>(s.heapInUse) / 1024.0,
                s.serialPorts);
}

// A sample after each quarter of a phase, to tell growth from a one-off step.
void printQuarter(const char* what, int done, int total)
{
    if (total >= 4 && done < total && done % (total / 4) == 0) {
        char label[64];
        std::snprintf(label, sizeof label, "  after %d %s", done, what);
        printSample(label, sample());
    }
}

// Waits (serving the main queue) until the port list shows `name`, then picks it.
bool selectWhenListed(test::RecordingMainView& view, const std::string& name)
{
    const bool listed = dispatch::RunLoop::main().runUntil(
        [&] {
            const auto titles = view.portMenuTitles();
            return std::find(titles.begin(), titles.end(), name) != titles.end();
        },
        10s);
    if (listed) {
        view.selectPortMenuItem(name);
    }
    return listed;
}

bool notListed(test::RecordingMainView& view, const std::string& name)
{
    return dispatch::RunLoop::main().runUntil(
        [&] {
            const auto titles = view.portMenuTitles();
            return std::find(titles.begin(), titles.end(), name) == titles.end();
        },
        10s);
}

// One identification as the identify button runs it: on a worker, the main
// queue served meanwhile; then every port the job used is closed again.
bool identifyOnce(MainViewController& controller)
{
    std::atomic<bool> finished{false};
    std::optional<std::string> cid;
    std::optional<std::string> version;
    dispatch::globalQueue()->async([&] {
        cid = controller.getCID();
        version = controller.currentVersion();
        finished = true;
    });
    if (!dispatch::RunLoop::main().runUntil([&] { return finished.load(); }, 60s)) {
        std::fprintf(stderr, "bench_soak: an identify did not end within 60 s\n");
        std::exit(1);
    }
    dispatch::RunLoop::main().runUntil(
        [] {
            for (const auto& port : SerialPort::allSerialPorts()) {
                if (port->isOpen()) {
                    return false;
                }
            }
            return true;
        },
        10s);
    dispatch::RunLoop::main().drain();
    return cid == kCID && version == kVersion;
}

std::string ttyName(const sim::SimulatedUsbBoard& board)
{
    const auto device = board.device();
    return device ? std::filesystem::path(device->devnode()).filename().string() : std::string();
}

} // namespace

// The board plugged in and pulled out, with nobody listening.
int labOnly(int plugCycles)
{
    sim::UmockdevTestbed testbed;
    sim::SimulatedUsbBoard board(testbed, sim::SimulatedUsbBoard::korbatekDue());
    board.plugIn();
    const Sample start = sample();
    printSample("lab only, start", start);
    for (int i = 0; i < plugCycles; ++i) {
        board.unplug();
        board.plugIn();
        printQuarter("plug cycles (lab only)", i + 1, plugCycles);
    }
    const Sample end = sample();
    printSample("lab only, end", end);
    std::printf("growth: descriptors %+ld  heap in use %+.1f KiB  (%.2f KiB per cycle)\n",
                static_cast<long>(end.descriptors) - static_cast<long>(start.descriptors),
                (static_cast<double>(end.heapInUse) - static_cast<double>(start.heapInUse)) / 1024.0,
                (static_cast<double>(end.heapInUse) - static_cast<double>(start.heapInUse)) / 1024.0 / plugCycles);
    board.unplug();
    return 0;
}

int main(int argc, char** argv)
{
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "bench_soak");
        return 127;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // each sample as it is taken, also into a file
    if (argc > 1 && std::string(argv[1]) == "--lab-only") {
        return labOnly(argc > 2 ? std::max(1, std::atoi(argv[2])) : 200);
    }
    const int identifyCycles = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1000;
    const int plugCycles = argc > 2 ? std::max(1, std::atoi(argv[2])) : 200;

    dispatch::setMainThreadToCurrent();
    sim::UmockdevTestbed testbed; // before the port manager starts listening
    (void)SerialPortManager::sharedSerialPortManager().availablePorts();
    test::TempDir logFolder;
    Logger::setConsole(nullptr);
    Logger::setDataFolder(logFolder.path());
    Logger::initLogPath();

    sim::SimulatedUsbBoard board(testbed, sim::SimulatedUsbBoard::korbatekDue());
    board.setControllerSetup([](sim::ControllerSimulator& controller) {
        controller.setCID(kCID);
        controller.setVersion(kVersion);
        controller.setTrailer("\n");
    });
    board.plugIn();

    test::FastForwardClock clock(20.0);
    test::RecordingMainView view;
    auto controller = MainViewController::create(view, nullptr, clock);
    controller->viewDidLoad();
    dispatch::RunLoop::main().drain();
    if (!selectWhenListed(view, ttyName(board))) {
        std::fprintf(stderr, "bench_soak: the board's port never reached the list\n");
        return 1;
    }

    // Warm-up: the first identify starts the worker threads and fills the caches.
    for (int i = 0; i < 5; ++i) {
        if (!identifyOnce(*controller)) {
            std::fprintf(stderr, "bench_soak: warm-up identify %d failed\n", i + 1);
            return 1;
        }
    }
    const Sample start = sample();
    printSample("start (after 5 identifies)", start);

    int failed = 0;
    const auto identifyStart = std::chrono::steady_clock::now();
    for (int i = 0; i < identifyCycles; ++i) {
        if (!identifyOnce(*controller)) {
            ++failed;
        }
        printQuarter("identifies", i + 1, identifyCycles);
    }
    const double identifySeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - identifyStart).count();
    const Sample afterIdentify = sample();
    char label[64];
    std::snprintf(label, sizeof label, "after %d identifies", identifyCycles);
    printSample(label, afterIdentify);
    std::printf("  %d failed, %.1f s\n", failed, identifySeconds);

    // Plug cycles: the board leaves (its port leaves the list), comes back on a
    // new node, is picked and identified once.
    int plugFailed = 0;
    const auto plugStart = std::chrono::steady_clock::now();
    for (int i = 0; i < plugCycles; ++i) {
        const std::string before = ttyName(board);
        board.unplug();
        if (!notListed(view, before)) {
            std::fprintf(stderr, "bench_soak: %s stayed in the list after the unplug\n", before.c_str());
            return 1;
        }
        board.plugIn();
        if (!selectWhenListed(view, ttyName(board))) {
            std::fprintf(stderr, "bench_soak: %s never reached the list\n", ttyName(board).c_str());
            return 1;
        }
        if (!identifyOnce(*controller)) {
            ++plugFailed;
        }
        printQuarter("plug cycles", i + 1, plugCycles);
    }
    const double plugSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - plugStart).count();
    const Sample end = sample();
    std::snprintf(label, sizeof label, "after %d plug cycles", plugCycles);
    printSample(label, end);
    std::printf("  %d identifies after a plug-in failed, %.1f s\n", plugFailed, plugSeconds);
    std::printf("growth over the whole run: descriptors %+ld (application's %+ld)  threads %+ld  RSS %+.1f MiB  "
                "heap in use %+.1f KiB  port objects %+ld\n",
                static_cast<long>(end.descriptors) - static_cast<long>(start.descriptors),
                static_cast<long>(end.applicationDescriptors()) - static_cast<long>(start.applicationDescriptors()),
                end.threads - start.threads,
                static_cast<double>(end.residentKiB - start.residentKiB) / 1024.0,
                (static_cast<double>(end.heapInUse) - static_cast<double>(start.heapInUse)) / 1024.0,
                static_cast<long>(end.serialPorts) - static_cast<long>(start.serialPorts));

    board.unplug();
    dispatch::RunLoop::main().runFor(50ms);
    return failed == 0 && plugFailed == 0 ? 0 : 1;
}
