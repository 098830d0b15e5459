// The shortcut handler's modifier rule with the flags as plain numbers: the
// window cannot produce every flag (Qt has no modifier for Caps Lock), so the
// rule is checked here where any flag can be set.
#include "controller/keyboard_shortcuts.h"
#include "protocol_test_bed.h"
#include "support/recording_application_delegate.h"

using namespace quendral;
using namespace quendral::test;

namespace {

class KeyboardShortcutRuleTest : public ProtocolTestBed {
protected:
    void SetUp() override
    {
        ProtocolTestBed::SetUp();
        controller = MainViewController::create(view, &app, clock);
        selectPort("ttyACM0");
    }

    RecordingApplicationDelegate app;
};

} // namespace

TEST_F(KeyboardShortcutRuleTest, CapsLockStopsEveryShortcut)
{
    controller->handleKeyDown(keys::Command | keys::Shift | keys::CapsLock, keys::M);
    controller->handleKeyDown(keys::Command | keys::Shift | keys::CapsLock, keys::S);
    EXPECT_TRUE(app.monitorOpens().empty());
    EXPECT_FALSE(controller->skipWait());

    controller->handleKeyDown(keys::Command | keys::Shift, keys::M);
    EXPECT_EQ(app.monitorOpens(), std::vector<std::string>{"/dev/ttyACM0"});
}

TEST_F(KeyboardShortcutRuleTest, DeviceDependentLowBitsAreIgnored)
{
    // The low 16 bits tell left from right keys and the like; they do not count.
    controller->handleKeyDown(keys::Command | keys::Shift | 0x0102, keys::S);
    EXPECT_TRUE(controller->skipWait());
}

TEST_F(KeyboardShortcutRuleTest, ControlAsWellStopsTheShortcut)
{
    controller->handleKeyDown(keys::Command | keys::Shift | keys::Control, keys::M);
    EXPECT_TRUE(app.monitorOpens().empty());
}
