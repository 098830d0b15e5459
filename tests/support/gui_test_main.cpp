// Runs GoogleTest inside a QApplication whose event loop is the main queue.
#include "qt_main_queue.h"

#include <QApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Offscreen unless the caller chose a platform (xvfb-run for screenshots).
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    quendral::app::QtMainQueue mainQueue;
    return RUN_ALL_TESTS();
}
