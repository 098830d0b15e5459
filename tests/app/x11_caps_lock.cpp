// Caps Lock against the main window's shortcuts, on the real X11 platform of
// a virtual X server: a key event carries no lock state, so the window asks
// the window system for it, and no shortcut may fire while Caps Lock is on.
#include "app_window_fixture.h"
#include "x11_keyboard_lock.h"

using namespace quendral;
using namespace quendral::test;
using namespace std::chrono_literals;

namespace {

const Qt::KeyboardModifiers kCommandShift = Qt::ControlModifier | Qt::ShiftModifier;

class CapsLockTest : public AppWindowTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(QGuiApplication::platformName(), "xcb") << "run under xvfb-run with QT_QPA_PLATFORM=xcb";
        AppWindowTest::SetUp();
    }
    void TearDown() override
    {
        setCapsLockOnX11(false); // the server outlives the test
        AppWindowTest::TearDown();
    }
};

} // namespace

TEST_F(CapsLockTest, NoShortcutFiresWhileCapsLockIsOn)
{
    launchActive();
    ASSERT_TRUE(setCapsLockOnX11(true));
    press(Qt::Key_M, kCommandShift);
    press(Qt::Key_C, kCommandShift);
    press(Qt::Key_S, kCommandShift);
    settle(300ms);
    EXPECT_FALSE(app->serialMonitorWindow()->isVisible());
    EXPECT_EQ(countLogged("User clicked open serial monitor"), 0);
    EXPECT_EQ(countLogged("User clicked online configuration"), 0);
    EXPECT_FALSE(mainViewController().skipWait());
    EXPECT_EQ(simulator->openCount(), 0);

    // Released, the same keys work again.
    ASSERT_TRUE(setCapsLockOnX11(false));
    press(Qt::Key_M, kCommandShift);
    EXPECT_TRUE(spinUntil([&] { return app->serialMonitorWindow()->isVisible(); }));
    EXPECT_EQ(countLogged("User clicked open serial monitor"), 1);
}
