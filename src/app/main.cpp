#include "app_delegate.h"
#include "qt_main_queue.h"

#include <QApplication>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(true);
    quendral::app::QtMainQueue mainQueue;
    quendral::app::AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    return QApplication::exec();
}
