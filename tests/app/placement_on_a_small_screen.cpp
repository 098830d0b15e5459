// The serial monitor and the IP configuration window on a 1280x800 screen
// (the offscreen platform's screen from tests/app/screens/, at scale 1 and
// 2): they open beside the main window or over it, never at the screen's
// corner, transient for it, and whole inside the screen.
#include "app_window_fixture.h"

#include <QPushButton>
#include <QScreen>
#include <QWindow>

using namespace quendral;
using namespace quendral::test;

namespace {

class WindowPlacementTest : public AppWindowTest {
protected:
    void SetUp() override
    {
        AppWindowTest::SetUp();
        simulator->setIPDumpLines({"ip;192.168.10.50", "subnet;255.255.255.0", "gateway;192.168.10.1",
                                   "dns;192.168.10.2", "dev;1;Boiler room;192.168.10.60;1"});
    }

    enum class MainWindowAt { TopLeft, RightEdge };

    void launchWithTheMainWindowAt(MainWindowAt where)
    {
        launch();
        const QScreen* screen = app->mainWindow()->screen();
        ASSERT_EQ(screen->geometry().size() * screen->devicePixelRatio(), QSize(1280, 800))
            << "run with QT_QPA_PLATFORM=offscreen:configfile=tests/app/screens/...";
        const QRect available = screen->availableGeometry();
        const QPoint target = where == MainWindowAt::TopLeft
                                  ? available.topLeft() + QPoint(20, 20)
                                  : QPoint(available.right() - app->mainWindow()->frameGeometry().width(), 20);
        app->mainWindow()->move(target);
        ASSERT_TRUE(spinUntil([&] { return app->mainWindow()->pos() == target; }));
    }

    void expectBesideOrOverTheMainWindow(QWidget* window) const
    {
        QMainWindow* main = app->mainWindow();
        const QRect available = main->screen()->availableGeometry();
        const QRect frame = window->frameGeometry();
        const QRect mainFrame = main->frameGeometry();
        const auto where = [&] {
            QString text;
            QDebug(&text) << "window" << frame << window->geometry() << window->minimumSizeHint() << "main" << mainFrame
                          << main->geometry() << "screen" << available << "scale" << main->screen()->devicePixelRatio();
            return text.toStdString();
        };
        EXPECT_TRUE(available.contains(frame)) << where();
        const bool beside = !frame.intersects(mainFrame);
        // Over it, the main window's left edge stays in sight.
        const bool over = frame.intersects(mainFrame) && frame.left() > mainFrame.left();
        EXPECT_TRUE(beside || over) << where();
        ASSERT_NE(window->windowHandle(), nullptr);
        EXPECT_EQ(window->windowHandle()->transientParent(), main->windowHandle());
    }
};

// One suite name per screen scale (the binary is built once for each).
#define QUENDRAL_JOIN2(a, b) a##b
#define QUENDRAL_JOIN(a, b) QUENDRAL_JOIN2(a, b)
#define WindowPlacementOnThisScreen QUENDRAL_JOIN(WindowPlacementAtScale, QUENDRAL_SCREEN_SCALE)
using WindowPlacementOnThisScreen = WindowPlacementTest;

} // namespace

TEST_F(WindowPlacementOnThisScreen, SerialMonitorOpensBesideOrOverTheMainWindowInsideTheScreen)
{
    for (const auto where : {MainWindowAt::TopLeft, MainWindowAt::RightEdge}) {
        ASSERT_NO_FATAL_FAILURE(launchWithTheMainWindowAt(where));
        QTest::mouseClick(ui().serialMonitorButton, Qt::LeftButton);
        ASSERT_TRUE(spinUntil([&] { return app->serialMonitorWindow()->isVisible(); }));
        expectBesideOrOverTheMainWindow(app->serialMonitorWindow());
        app->closeSerialMonitor();
        watcher.reset();
        app->mainWindow()->close();
        app.reset();
    }
}

TEST_F(WindowPlacementOnThisScreen, IpConfigurationOpensBesideOrOverTheMainWindowInsideTheScreen)
{
    ASSERT_NO_FATAL_FAILURE(launchWithTheMainWindowAt(MainWindowAt::TopLeft));
    QTest::mouseClick(ui().ipconfigButton, Qt::LeftButton);
    ASSERT_TRUE(waitForActionEnd());
    ASSERT_TRUE(spinUntil([&] { return app->ipConfigWindow()->isVisible(); }));
    expectBesideOrOverTheMainWindow(app->ipConfigWindow());
}
