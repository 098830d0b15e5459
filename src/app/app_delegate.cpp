#include "app_delegate.h"

#include "log/logger.h"
#include "platform/app_info.h"

#include "qt_main_view.h"

#include <QMainWindow>

namespace quendral::app {

AppDelegate::AppDelegate() = default;
AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching()
{
    // The main view comes first: whatever its wiring logs precedes the log set-up.
    _mainWindow = std::make_unique<QMainWindow>();
    _mainWindow->setWindowTitle(QStringLiteral("QUENDRAL Firmware Updater"));
    _mainWindow->setCentralWidget(new QtMainView);
    _mainWindow->show();

    const std::string version = appinfo::shortVersion();
    Logger::initLogPath();
    Logger::log("-----------------------------------------------------------------");
    Logger::log("Starting QUENDRAL Firmware Updater mac_" + version + " for macOS");
}

} // namespace quendral::app
