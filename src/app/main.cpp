#include "app_delegate.h"
#include "platform/app_info.h"
#include "qt_main_queue.h"
#include "startup_probe.h"

#include <QApplication>
#include <QElapsedTimer>

#include <cstdio>
#include <string_view>

namespace {

constexpr const char* kUsage = "Usage: quendral-firmware-updater [QT-OPTIONS]\n"
                               "Updates and configures QUENDRAL Controllers attached over USB.\n"
                               "\n"
                               "  --help     show this help and exit\n"
                               "  --version  show the program's version and exit\n"
                               "\n"
                               "Other options are Qt's own (-platform, -style, -reverse, ...).\n"
                               "For scripts and machines without a desktop: quendral-cli --help\n";

// The window reads these two itself, before Qt needs a display; every other
// argument is left to QApplication.
bool answeredOwnOption(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument(argv[i]);
        if (argument == "--version") {
            std::printf("quendral-firmware-updater %s\n", quendral::appinfo::shortVersion().c_str());
            return true;
        }
        if (argument == "--help") {
            std::fputs(kUsage, stdout);
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    if (answeredOwnOption(argc, argv)) {
        return 0;
    }
    QElapsedTimer sinceMain;
    sinceMain.start();
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(true);
    quendral::app::QtMainQueue mainQueue;
    quendral::app::installStartupProbe(sinceMain);
    quendral::app::AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    return QApplication::exec();
}
