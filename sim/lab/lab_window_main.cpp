// quendral-lab-window: the updater's window for the device lab. It is the same
// window code as quendral-firmware-updater, pointed at the lab's update server
// and resource folder (the application itself reads no settings):
//
//   quendral-lab -- quendral-lab-window {server} {ca} {resources}
#include "app_delegate.h"
#include "platform/paths.h"
#include "qt_main_queue.h"

#include <QApplication>

#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::cerr << "Usage: quendral-lab -- quendral-lab-window {server} {ca} {resources}\n";
        return 2;
    }
    quendral::UpdateServerConfig config;
    config.baseUrl = argv[1];
    config.caFile = std::filesystem::path(argv[2]);
    quendral::paths::setResourceFolder(std::filesystem::path(argv[3]));

    int qtArgc = 1;
    QApplication application(qtArgc, argv);
    QApplication::setQuitOnLastWindowClosed(true);
    quendral::app::QtMainQueue mainQueue;
    quendral::app::AppDelegate delegate;
    delegate.setUpdateServerConfig(config);
    delegate.applicationDidFinishLaunching();
    return QApplication::exec();
}
