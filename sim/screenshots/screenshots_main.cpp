// quendral-screenshots: pictures of the application's three windows with real
// content, for the README. It runs the application's own window code against a
// simulated Controller in a umockdev USB world, uses the window as a user
// would (selects the port, opens the serial monitor and types a command,
// opens the IP configuration), and saves each window as a PNG:
//
//   xvfb-run -a quendral-screenshots OUTPUT_FOLDER     (scripts/screenshots.sh)
#include "app_delegate.h"
#include "controller_simulator.h"
#include "host_window.h"
#include "log/logger.h"
#include "poll_until.h"
#include "qt_main_queue.h"
#include "qt_main_view.h"
#include "ui_MasterView.h"
#include "ui_SerialMonitorView.h"
#include "umockdev_testbed.h"
#include "windows/serial_monitor.h"

#include <QApplication>
#include <QComboBox>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMainWindow>
#include <QPushButton>

#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <thread>
#include <unistd.h>

namespace {

using namespace quendral;
using namespace std::chrono_literals;

bool spinUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 20s)
{
    return sim::pollUntil(done, timeout, [] {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(2ms);
    });
}

void settle(std::chrono::milliseconds time = 400ms)
{
    spinUntil([] { return false; }, time);
}

bool save(QWidget* window, const std::filesystem::path& file)
{
    window->repaint();
    settle();
    if (!window->grab().save(QString::fromStdString(file.string()), "PNG")) {
        std::cerr << "quendral-screenshots: cannot write " << file << "\n";
        return false;
    }
    std::cerr << "quendral-screenshots: " << file.string() << " (" << window->width() << "x" << window->height()
              << ")\n";
    return true;
}

void typeLine(QLineEdit* field, const QString& text)
{
    field->setFocus();
    field->setText(text);
    QKeyEvent press(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    QCoreApplication::sendEvent(field, &press);
}

int fail(const char* what)
{
    std::cerr << "quendral-screenshots: " << what << "\n";
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "Usage: quendral-screenshots OUTPUT_FOLDER (under xvfb-run)\n";
        return 2;
    }
    // The USB world exists only inside umockdev's preload: start again inside it.
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "quendral-screenshots");
        return 1;
    }
    const std::filesystem::path output = std::filesystem::absolute(argv[1]);
    std::filesystem::create_directories(output);

    // The log goes to a folder of its own, not into the user's log.
    char folder[] = "/tmp/quendral-screenshots-XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        return fail("cannot make a folder in /tmp");
    }
    Logger::setDataFolder(std::filesystem::path(folder));
    Logger::setConsole(nullptr);

    sim::UmockdevTestbed testbed;
    auto device = testbed.addUsbSerialDevice({});
    sim::ControllerSimulator controller(device->deviceEnd());
    controller.setCID("QD7F3A91C04B2E65D8A1F09C3B7E4D2A");
    controller.setVersion("2.4.1");
    controller.setAddress("192.168.10.50");
    controller.setIPDumpLines({"ip;192.168.10.50", "subnet;255.255.255.0", "gateway;192.168.10.1", "dns;192.168.10.1",
                               "dev;1;Boiler room;192.168.10.60;1", "dev;2;Garage door;192.168.10.61;1",
                               "dev;3;Greenhouse;192.168.10.62;0"});
    controller.start();

    int qtArgc = 1;
    QApplication application(qtArgc, argv);
    app::QtMainQueue mainQueue;
    auto delegate = std::make_unique<app::AppDelegate>();
    delegate->applicationDidFinishLaunching();
    Ui::MasterView& main = delegate->mainView()->ui();
    if (!spinUntil([&] { return main.portMenu->currentText() == "ttyACM0"; })) {
        return fail("the simulated Controller did not show up in the port menu");
    }
    int status = 0;
    settle();
    if (!save(delegate->mainWindow(), output / "main-window.png")) {
        status = 1;
    }

    // The serial monitor, as the user opens it and asks the Controller who it is.
    main.serialMonitorButton->click();
    if (!controller.waitForPortOpen(true, 5s)) {
        return fail("the serial monitor did not open the port");
    }
    windows::SerialMonitor* monitor = delegate->serialMonitorController();
    settle();
    controller.sendRaw("QUENDRAL Controller 2.4.1\r\nEthernet link up, 100 Mbit/s full duplex\r\n"
                       "IP address: 192.168.10.50\r\n3 network devices configured\r\nReady.\r\n");
    settle();
    for (const char* command : {"getVersion", "getCID"}) {
        typeLine(monitor->ui().inputField, QString::fromLatin1(command));
        controller.waitForLine(command, 5s);
        settle(250ms);
    }
    monitor->ui().inputField->setText(QStringLiteral("dumpIP"));
    monitor->flushPendingOutput();
    if (!save(delegate->serialMonitorWindow(), output / "serial-monitor.png")) {
        status = 1;
    }

    // The IP configuration, read from the Controller by the main window's button.
    delegate->closeSerialMonitor();
    controller.setTrailer("\n"); // replies are parsed once a further byte has come
    delegate->mainWindow()->activateWindow();
    main.ipconfigButton->click();
    if (!spinUntil([&] { return delegate->ipConfigWindow()->isVisible(); }, 40s)) {
        return fail("the IP configuration window did not open");
    }
    spinUntil([&] { return main.ipconfigButton->isEnabled(); });
    settle();
    if (!save(delegate->ipConfigWindow(), output / "ip-configuration.png")) {
        status = 1;
    }

    delegate.reset();
    controller.stop();
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
    return status;
}
