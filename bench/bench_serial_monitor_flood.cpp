// The serial monitor window under a full-speed flood: a writer thread pushes
// text into a umockdev tty's device end as fast as the pseudo-terminal takes
// it, while the monitor (the real window, shown) displays everything on the
// main thread. A 10 ms repeating timer on the main thread measures how late
// the event loop answers; the figures are compared with the same timer on an
// idle window.
//
//   umockdev-wrapper build/bench/bench_serial_monitor_flood [SECONDS]
//   (re-starts itself under umockdev-wrapper when needed; offscreen unless
//   QT_QPA_PLATFORM says otherwise, e.g. under xvfb-run)
#include "bench_support.h"
#include "log/logger.h"
#include "platform/dispatch.h"
#include "qt_main_queue.h"
#include "support/peak_memory.h"
#include "ui_SerialMonitorView.h"
#include "umockdev_testbed.h"
#include "windows/serial_monitor.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPlainTextEdit>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace quendral;

using Lateness = bench::Spread;

// How late each firing of a 10 ms repeating timer is, over `seconds`.
Lateness measureEventLoop(double seconds)
{
    constexpr double kIntervalMs = 10.0;
    std::vector<double> late;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    QElapsedTimer clock;
    double previous = -1;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        const double now = static_cast<double>(clock.nsecsElapsed()) / 1e6;
        if (previous >= 0) {
            late.push_back(std::max(0.0, now - previous - kIntervalMs));
        }
        previous = now;
    });
    QEventLoop loop;
    QTimer::singleShot(static_cast<int>(seconds * 1000), &loop, &QEventLoop::quit);
    clock.start();
    tick.start(static_cast<int>(kIntervalMs));
    loop.exec();
    tick.stop();
    return bench::spreadOf(late);
}

// VmRSS and VmHWM in kB (-1 where /proc does not say).
std::pair<long, long> residentMemoryKb()
{
    const auto kilobytes = [](const char* field) {
        const auto value = quendral::test::statusKilobytes(field);
        return value ? static_cast<long>(*value) : -1L;
    };
    return {kilobytes("VmRSS"), kilobytes("VmHWM")};
}

void print(const char* what, const Lateness& l)
{
    std::printf("%-28s p50 %7.2f ms  p99 %7.2f ms  max %7.2f ms  (%zu ticks)\n", what, l.p50, l.p99, l.max, l.n);
}

} // namespace

int main(int argc, char** argv)
{
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "bench_serial_monitor_flood");
        return 127;
    }
    const double seconds = argc > 1 ? std::stod(argv[1]) : 5.0;
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    Logger::setConsole(nullptr);

    sim::UmockdevTestbed testbed;
    auto device = testbed.addUsbSerialDevice({});

    int qtArgc = 1;
    QApplication application(qtArgc, argv);
    app::QtMainQueue mainQueue;
    windows::SerialMonitor monitor;
    monitor.resize(720, 460);
    monitor.show();

    print("idle window", measureEventLoop(1.0));

    monitor.openPort(device->devnode());
    QElapsedTimer opening;
    opening.start();
    while (!monitor.isSerialOpen() && opening.elapsed() < 5000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    if (!monitor.isSerialOpen()) {
        std::fprintf(stderr, "the monitor did not open %s\n", device->devnode().c_str());
        return 1;
    }

    bench::PtyFlood writer(device->deviceEnd());
    QElapsedTimer flood;
    flood.start();
    const Lateness flooded = measureEventLoop(seconds);
    const double floodSeconds = static_cast<double>(flood.nsecsElapsed()) / 1e9;
    writer.stop();
    // Everything the port delivered during the flood is queued ahead of this
    // marker: how long it takes to come up is the backlog the window left.
    std::atomic<bool> drained{false};
    QElapsedTimer draining;
    draining.start();
    dispatch::mainQueue()->async([&] { drained = true; });
    while (!drained) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    const double backlogMs = static_cast<double>(draining.nsecsElapsed()) / 1e6;
    const auto [rss, hwm] = residentMemoryKb();

    print("flooded window", flooded);
    std::printf("throughput %.2f MB/s (%lld bytes in %.1f s)\n",
                static_cast<double>(writer.written()) / floodSeconds / 1e6, writer.written(), floodSeconds);
    std::printf("backlog after the flood %.1f ms\n", backlogMs);
    monitor.flushPendingOutput();
    std::printf("characters shown %d (kept at most %lld)\n", monitor.ui().monitorWindow->document()->characterCount(),
                static_cast<long long>(windows::SerialMonitor::kMaximumCharacters));
    std::printf("memory VmRSS %ld kB, VmHWM %ld kB\n", rss, hwm);
    monitor.closeSerial();
    QElapsedTimer closing;
    closing.start();
    while (monitor.isSerialOpen() && closing.elapsed() < 5000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return 0;
}
