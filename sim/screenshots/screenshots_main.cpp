// quendral-screenshots: pictures of the application's windows with real
// content, for the README. It runs the application's own window code against a
// simulated Controller in a umockdev USB world, uses the window as a user
// would (selects the port, opens the serial monitor and types a command,
// opens the IP configuration and the About box), and saves each window as a PNG:
//
//   xvfb-run -a quendral-screenshots OUTPUT_FOLDER [--dark | --large]   (scripts/screenshots.sh)
//
// Without an option: the main window while a firmware is being written, the
// serial monitor, the IP configuration and the About box. --dark: the IP
// configuration in a dark theme, one address checked and one refused.
// --large: the serial monitor at the scale the run was started with
// (QT_SCALE_FACTOR=2 on a 1280x800 screen in the script).
#include "about_box.h"
#include "app_delegate.h"
#include "controller/main_view_controller.h"
#include "controller_simulator.h"
#include "flashing/upload_status.h"
#include "host_window.h"
#include "log/logger.h"
#include "poll_until.h"
#include "qt_main_queue.h"
#include "qt_main_view.h"
#include "ui_IPConfig.h"
#include "ui_MasterView.h"
#include "ui_SerialMonitorView.h"
#include "umockdev_testbed.h"
#include "windows/ip_config.h"
#include "windows/serial_monitor.h"

#include <QApplication>
#include <QComboBox>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMainWindow>
#include <QPalette>
#include <QPushButton>
#include <QStyleFactory>
#include <QTimer>

#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
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

// A dark desktop theme, as an owner's desktop may hand the application one.
void useDarkTheme(QApplication& application)
{
    application.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QPalette dark;
    const QColor window(0x2b, 0x2b, 0x2e);
    const QColor text(0xe6, 0xe6, 0xe6);
    dark.setColor(QPalette::Window, window);
    dark.setColor(QPalette::WindowText, text);
    dark.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x21));
    dark.setColor(QPalette::AlternateBase, window);
    dark.setColor(QPalette::Text, text);
    dark.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3e));
    dark.setColor(QPalette::ButtonText, text);
    dark.setColor(QPalette::BrightText, Qt::white);
    dark.setColor(QPalette::Highlight, QColor(0x3d, 0x6d, 0xb5));
    dark.setColor(QPalette::HighlightedText, Qt::white);
    dark.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x80, 0x80));
    dark.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x80, 0x80));
    dark.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x80, 0x80, 0x80));
    QApplication::setPalette(dark);
}

// The modal About box, saved from inside its own event loop and closed.
bool saveAboutBox(QWidget* parent, const std::filesystem::path& file)
{
    bool saved = false;
    QTimer::singleShot(400, [&] {
        if (QWidget* box = QApplication::activeModalWidget()) {
            saved = save(box, file);
            box->close();
        }
    });
    app::showAboutBox(parent);
    return saved;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string variant = argc == 3 ? argv[2] : "";
    if (argc < 2 || argc > 3 || (variant != "" && variant != "--dark" && variant != "--large")) {
        std::cerr << "Usage: quendral-screenshots OUTPUT_FOLDER [--dark | --large] (under xvfb-run)\n";
        return 2;
    }
    // The USB world exists only inside umockdev's preload: start again inside it.
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "quendral-screenshots");
        return 1;
    }
    const std::filesystem::path output = std::filesystem::absolute(argv[1]);
    std::filesystem::create_directories(output);

    // The log goes to a folder of its own, not into the user's log; its name
    // is fixed, since the About box shows it and the pictures are kept in git.
    const std::filesystem::path home = "/tmp/quendral-screenshots";
    const std::filesystem::path folder = home / ".local/share";
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
    if (!std::filesystem::create_directories(folder, ec)) {
        return fail("cannot make a folder in /tmp");
    }
    Logger::setDataFolder(folder);
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
    if (variant == "--dark") {
        useDarkTheme(application);
    }
    app::QtMainQueue mainQueue;
    auto delegate = std::make_unique<app::AppDelegate>();
    delegate->applicationDidFinishLaunching();
    Ui::MasterView& main = delegate->mainView()->ui();
    if (!spinUntil([&] { return main.portMenu->currentText() == "ttyACM0"; })) {
        return fail("the simulated Controller did not show up in the port menu");
    }
    int status = 0;
    settle();
    if (variant.empty()) {
        // While bossac writes the firmware: the controls are off and the tool's
        // reports reach the window as the wrappers post them.
        delegate->mainViewController()->toggleUI(false);
        upload::postState(&controller, upload::kWritingFirmware);
        upload::postProgress(&controller, 62);
        settle();
        if (!save(delegate->mainWindow(), output / "main-window.png")) {
            status = 1;
        }
        upload::postState(&controller, "");
        upload::postProgress(&controller, 0);
        delegate->mainViewController()->toggleUI(true);
        settle();
        if (!saveAboutBox(delegate->mainWindow(), output / "about.png")) {
            status = 1;
        }
    }

    if (variant != "--dark") {
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
        const auto name = variant == "--large" ? "serial-monitor-2x.png" : "serial-monitor.png";
        if (!save(delegate->serialMonitorWindow(), output / name)) {
            status = 1;
        }
        delegate->closeSerialMonitor();
    }

    if (variant != "--large") {
        // The IP configuration, read from the Controller by the main window's button.
        controller.setTrailer("\n"); // replies are parsed once a further byte has come
        delegate->mainWindow()->activateWindow();
        main.ipconfigButton->click();
        if (!spinUntil([&] { return delegate->ipConfigWindow()->isVisible(); }, 40s)) {
            return fail("the IP configuration window did not open");
        }
        spinUntil([&] { return main.ipconfigButton->isEnabled(); });
        if (variant == "--dark") {
            // One address checked, one refused, as after the owner typed them.
            windows::IPConfig* ipConfig = delegate->ipConfigController();
            ipConfig->verifyIPField(ipConfig->ui().gatewayField);
            ipConfig->ui().dnsField->setText(QStringLiteral("192.168.10.300"));
            ipConfig->verifyIPField(ipConfig->ui().dnsField);
        }
        settle();
        const auto name = variant == "--dark" ? "ip-configuration-dark.png" : "ip-configuration.png";
        if (!save(delegate->ipConfigWindow(), output / name)) {
            status = 1;
        }
    }

    delegate.reset();
    controller.stop();
    std::filesystem::remove_all(home, ec);
    return status;
}
