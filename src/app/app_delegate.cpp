#include "app_delegate.h"

#include "about_box.h"
#include "controller/main_view_controller.h"
#include "desktop_open.h"
#include "host_window.h"
#include "log/logger.h"
#include "platform/app_info.h"
#include "platform/dispatch.h"
#include "platform/notification_center.h"
#include "qt_main_view.h"
#include "serial/serial_port.h"
#include "ui_MasterView.h"
#include "window_placement.h"
#include "windows/ip_config.h"
#include "windows/serial_monitor.h"

#include <QAction>
#include <QApplication>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QUrl>
#include <QWindow>

namespace quendral::app {
namespace {

// Asked before quitting while avrdude or bossac writes: the tool dies with the
// application, half-way through the board's flash.
const char* const kQuitWhileFlashingQuestion = "Quit while the firmware is being written?";
const char* const kQuitWhileFlashingDetail =
    "The Controller's firmware is being written right now. Quitting now can leave the Controller without "
    "firmware. Wait until the update has finished.";
const char* const kQuitAnyway = "Quit Anyway";
const char* const kKeepRunning = "Cancel";

} // namespace

AppDelegate::AppDelegate() = default;

AppDelegate::~AppDelegate()
{
    // The controller may still be referenced by queued work; it must not reach
    // back into windows that are going away.
    _serialMonitorWindow.reset();
    _ipConfigWindow.reset();
}

void AppDelegate::applicationDidFinishLaunching()
{
    // 1. The main view comes first: whatever its wiring logs precedes the log set-up.
    _mainWindow = std::make_unique<QMainWindow>();
    _mainWindow->setWindowTitle(QStringLiteral("QUENDRAL Firmware Updater"));
    _mainView = new QtMainView;
    _mainWindow->setCentralWidget(_mainView);
    _serialMonitorWindow = std::make_unique<HostWindow>(QStringLiteral("Serial monitor"));
    _ipConfigWindow = std::make_unique<HostWindow>(QStringLiteral("IP configuration"));
    buildMenus();
    _mainViewController = MainViewController::create(*_mainView, this, *_clock);
    if (_serverConfig) {
        _mainViewController->setUpdateServerConfig(*_serverConfig);
    }
    if (_ftdiDriverCheck) {
        _mainViewController->setFTDIDriverCheck(_ftdiDriverCheck);
    }
    _mainViewController->viewDidLoad();
    connectButtons();
    const std::weak_ptr<MainViewController> controller = _mainViewController;
    _mainView->setKeyHandler([controller](std::uint64_t flags, std::uint16_t key) {
        if (auto c = controller.lock()) {
            c->handleKeyDown(flags, key);
        }
    });

    // 2. The monitor's port is closed when its window closes.
    connect(_serialMonitorWindow.get(), &HostWindow::willClose, this, &AppDelegate::serialMonitorClosing);

    // 3.-6. The version, the log file, the banner.
    const std::string version = appinfo::shortVersion();
    Logger::initLogPath();
    Logger::log("-----------------------------------------------------------------");
    Logger::log("Starting QUENDRAL Firmware Updater mac_" + version + " for macOS");

    _mainWindow->installEventFilter(this);
    _mainWindow->resize(_mainView->sizeHint().expandedTo(_mainView->minimumSize()));
    _mainWindow->show();
}

void AppDelegate::buildMenus()
{
    QMenu* file = _mainWindow->menuBar()->addMenu(QStringLiteral("&File"));
    _updateConfigMenuItem = file->addAction(QStringLiteral("Update from file…"));
    connect(_updateConfigMenuItem, &QAction::triggered, this, &AppDelegate::updateFromFile);
    QAction* log = file->addAction(QStringLiteral("Show log"));
    connect(log, &QAction::triggered, this, &AppDelegate::showLog);
    file->addSeparator();
    QAction* quit = file->addAction(QStringLiteral("Quit"));
    quit->setShortcut(QKeySequence::Quit);
    connect(quit, &QAction::triggered, this, &AppDelegate::quit);
    addHelpMenu(*_mainWindow->menuBar(), _mainWindow.get());
}

void AppDelegate::connectButtons()
{
    Ui::MasterView& ui = _mainView->ui();
    const std::weak_ptr<MainViewController> controller = _mainViewController;
    auto on = [controller](void (MainViewController::*action)()) {
        return [controller, action] {
            if (auto c = controller.lock()) {
                ((*c).*action)();
            }
        };
    };
    connect(ui.updatesButton, &QPushButton::clicked, this, on(&MainViewController::checkForUpdate));
    connect(ui.loadFirmwareButton, &QPushButton::clicked, this, on(&MainViewController::loadFirmwareFile));
    connect(ui.configurationButton, &QPushButton::clicked, this, on(&MainViewController::configureController));
    connect(ui.localConfigurationButton, &QPushButton::clicked, this, on(&MainViewController::localConfig));
    connect(ui.webConfigButton, &QPushButton::clicked, this, on(&MainViewController::webConfig));
    connect(ui.ipconfigButton, &QPushButton::clicked, this, on(&MainViewController::ipConfig));
    connect(ui.serialMonitorButton, &QPushButton::clicked, this, on(&MainViewController::openSerialMonitor));
}

void AppDelegate::showBesideMainWindow(HostWindow& window, QSize wanted)
{
    if (window.isVisible()) {
        window.show(); // where the owner put it
        return;
    }
    // Transient for the main window: the window system keeps it above the
    // main window and groups them.
    window.winId();
    window.windowHandle()->setTransientParent(_mainWindow->windowHandle());
    const QRect mainFrame = _mainWindow->frameGeometry();
    const QRect mainContent = _mainWindow->geometry();
    // The window system's frame is not known before the window is shown: the
    // main window's stands for it.
    const QMargins frame(mainContent.left() - mainFrame.left(), mainContent.top() - mainFrame.top(),
                         mainFrame.right() - mainContent.right(), mainFrame.bottom() - mainContent.bottom());
    window.setGeometry(placeBesideMainWindow(mainFrame, wanted, window.minimumSizeHint(), frame,
                                             _mainWindow->screen()->availableGeometry()));
    window.show();
}

void AppDelegate::openSerialMonitor(const std::string& path)
{
    if (!getSerialMonitorState()) {
        _serialMonitorController = new windows::SerialMonitor;
        _serialMonitorWindow->setContent(_serialMonitorController);
    }
    showBesideMainWindow(*_serialMonitorWindow, _serialMonitorController->size());
    _serialMonitorWindow->raise();
    _serialMonitorWindow->activateWindow();
    _serialMonitorController->openPort(path);
}

void AppDelegate::closeSerialMonitor()
{
    if (_serialMonitorController != nullptr) {
        _serialMonitorController->closeSerial();
    }
    _serialMonitorWindow->hide();
}

bool AppDelegate::getSerialMonitorState() const
{
    if (!_serialMonitorWindow->isVisible() || _serialMonitorController == nullptr) {
        return false;
    }
    return !_serialMonitorController->isSerialOpen();
}

void AppDelegate::openIPConfig(const std::string& path, const std::vector<std::string>& lines)
{
    dispatch::mainQueue()->async([this, path, lines] {
        if (!getIPConfigState()) {
            _ipConfigController = new windows::IPConfig(*this);
            _ipConfigWindow->setContent(_ipConfigController);
        }
        _ipConfigController->loadData(lines);
        showBesideMainWindow(*_ipConfigWindow, _ipConfigController->size());
        _ipConfigWindow->raise();
        _ipConfigWindow->activateWindow();
        _ipConfigController->setPort(path);
    });
}

bool AppDelegate::getIPConfigState() const
{
    return _ipConfigWindow->isVisible();
}

void AppDelegate::setUpdateMenuEnable(bool enabled)
{
    if (_updateConfigMenuItem != nullptr) {
        _updateConfigMenuItem->setEnabled(enabled);
    }
}

void AppDelegate::closeIPConfig()
{
    _ipConfigWindow->hide();
}

void AppDelegate::updateFromFile()
{
    Logger::log("User triggered upload from file");
    NotificationCenter::defaultCenter().post("updateFromConfig", notificationSender());
}

void AppDelegate::showLog()
{
    Logger::log("User opened log file");
    // The desktop's text editor; without one, the owner is told where the file is.
    openOnDesktop(QUrl::fromLocalFile(QString::fromStdString(Logger::getLogPath())), _mainWindow.get());
}

void AppDelegate::serialMonitorClosing()
{
    if (_serialMonitorController != nullptr) {
        _serialMonitorController->closeSerial();
    }
}

bool AppDelegate::mayQuitNow()
{
    if (!_mainViewController || !_mainViewController->flashingToolRunning()) {
        return true;
    }
    QMessageBox box(QMessageBox::Warning, _mainWindow->windowTitle(), QString::fromUtf8(kQuitWhileFlashingQuestion),
                    QMessageBox::NoButton, _mainWindow.get());
    box.setInformativeText(QString::fromUtf8(kQuitWhileFlashingDetail));
    QPushButton* quitAnyway = box.addButton(QString::fromUtf8(kQuitAnyway), QMessageBox::DestructiveRole);
    QPushButton* keepRunning = box.addButton(QString::fromUtf8(kKeepRunning), QMessageBox::RejectRole);
    // Return and Escape both keep the update going.
    box.setDefaultButton(keepRunning);
    box.setEscapeButton(keepRunning);
    box.exec();
    return box.clickedButton() == quitAnyway;
}

void AppDelegate::quit()
{
    if (_quitting || !mayQuitNow()) {
        return;
    }
    _quitting = true;
    // Closing the monitor's window closes its port; then nothing of ours may
    // keep a Controller's port, also where the process lingers a moment.
    _serialMonitorWindow->close();
    _ipConfigWindow->close();
    _mainWindow->close();
    for (const auto& port : SerialPort::allSerialPorts()) {
        if (port->isOpen()) {
            port->close();
        }
    }
    QCoreApplication::quit();
}

bool AppDelegate::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == _mainWindow.get() && event->type() == QEvent::Close && !_quitting && !mayQuitNow()) {
        event->ignore();
        return true;
    }
    return QObject::eventFilter(watched, event);
}

} // namespace quendral::app
