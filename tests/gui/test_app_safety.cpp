// The window's guards for the owner's Controller, driven through the real
// application window against a simulated Controller: no second action while a
// job runs, quitting ends everything but asks first while a flashing tool
// writes, and a minimised serial monitor keeps its port.
#include "app_window_fixture.h"
#include "ui_SerialMonitorView.h"
#include "windows/serial_monitor.h"

#include <QHideEvent>
#include <QWindow>

using namespace quendral;
using namespace quendral::test;
using namespace std::chrono_literals;

namespace {

// Counts the hide events that reach a widget, by kind.
class HideEventCounter final : public QObject {
public:
    explicit HideEventCounter(QWidget* widget) { widget->installEventFilter(this); }
    [[nodiscard]] int spontaneous() const { return _spontaneous; }
    [[nodiscard]] int sentByTheApplication() const { return _sentByTheApplication; }

protected:
    bool eventFilter(QObject* /*watched*/, QEvent* event) override
    {
        if (event->type() == QEvent::Hide) {
            ++(event->spontaneous() ? _spontaneous : _sentByTheApplication);
        }
        return false;
    }

private:
    int _spontaneous = 0;
    int _sentByTheApplication = 0;
};

class WindowSafetyTest : public AppWindowTest {
protected:
    windows::SerialMonitor* openSerialMonitor()
    {
        ui().serialMonitorButton->click();
        EXPECT_TRUE(controller->waitForPortOpen(true, 5s));
        EXPECT_TRUE(spinUntil([&] {
            return app->serialMonitorController() != nullptr && app->serialMonitorController()->isSerialOpen();
        }));
        return app->serialMonitorController();
    }

    static QString shownText(windows::SerialMonitor& monitor)
    {
        monitor.flushPendingOutput();
        return monitor.ui().monitorWindow->document()->toRawText().replace(QChar::ParagraphSeparator, '\n');
    }

    static void settle(std::chrono::milliseconds duration = 300ms)
    {
        spinUntil([] { return false; }, duration);
    }
};

} // namespace

// Two ways a window gets minimised: the application asks the widget (as a
// taskbar entry's action does), or the window system reports the new state of
// the native window (a window manager's minimise button). Both reach the
// monitor as a spontaneous hide, which the window system also sends when it
// unmaps a window.
enum class MinimiseRoute { Widget, WindowSystem };

class MinimisedSerialMonitorTest : public WindowSafetyTest, public ::testing::WithParamInterface<MinimiseRoute> {
protected:
    static void minimise(QWidget& window)
    {
        if (GetParam() == MinimiseRoute::Widget) {
            window.showMinimized();
        } else {
            // The platform plugin passes the state on as the window manager reported it.
            window.windowHandle()->setWindowStates(Qt::WindowMinimized);
        }
    }
};

std::string routeName(const ::testing::TestParamInfo<MinimiseRoute>& route)
{
    return route.param == MinimiseRoute::Widget ? "Widget" : "WindowSystem";
}

INSTANTIATE_TEST_SUITE_P(Routes, MinimisedSerialMonitorTest,
                         ::testing::Values(MinimiseRoute::Widget, MinimiseRoute::WindowSystem), routeName);

TEST_P(MinimisedSerialMonitorTest, KeepsItsPortAndGoesOnShowingData)
{
    launch();
    windows::SerialMonitor* monitor = openSerialMonitor();
    ASSERT_NE(monitor, nullptr);
    app::HostWindow* window = app->serialMonitorWindow();
    const HideEventCounter hides(monitor);

    minimise(*window);
    if (!spinUntil([&] { return window->isMinimized(); }, 2s)) {
        // xcb without a window manager: nobody answers the request.
        GTEST_SKIP() << "this window system does not minimise on request";
    }
    ASSERT_TRUE(spinUntil([&] { return hides.spontaneous() >= 1; }));
    EXPECT_TRUE(window->isMinimized());
    EXPECT_EQ(hides.sentByTheApplication(), 0);
    settle();
    EXPECT_TRUE(monitor->isSerialOpen());
    EXPECT_TRUE(controller->isPortOpen());
    EXPECT_FALSE(logged("Serial port was closed"));

    window->showNormal();
    ASSERT_TRUE(spinUntil([&] { return !window->isMinimized(); }));
    controller->sendRaw("VERSION:2.4.1\n");
    EXPECT_TRUE(spinUntil([&] { return shownText(*monitor).endsWith("VERSION:2.4.1\n"); }))
        << shownText(*monitor).toStdString();
    EXPECT_TRUE(monitor->isSerialOpen());

    // Closing the window still gives the port back.
    window->close();
    EXPECT_TRUE(spinUntil([&] { return !monitor->isSerialOpen(); }));
    EXPECT_TRUE(controller->waitForPortOpen(false, 5s));
}
