#include "app_delegate.h"
#include "qt_main_queue.h"
#include "startup_probe.h"

#include <QApplication>
#include <QElapsedTimer>

int main(int argc, char** argv)
{
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
