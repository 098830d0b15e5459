// The main window's keyboard shortcuts, typed into the real application window
// (Ctrl stands for Command, Alt for Option), with a simulated Controller and the
// local HTTPS update server as the peers.
//
// Caps Lock is tested on X11 (x11_caps_lock.cpp): its state comes from the
// window system, which the offscreen platform does not have.
#include "app_window_fixture.h"
#include "local_update_server.h"
#include "ui_IPConfig.h"
#include "ui_SerialMonitorView.h"
#include "windows/ip_config.h"
#include "windows/serial_monitor.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

using namespace quendral;
using namespace quendral::test;
using namespace std::chrono_literals;

namespace {

const Qt::KeyboardModifiers kCommandShift = Qt::ControlModifier | Qt::ShiftModifier;
const Qt::KeyboardModifiers kCommandOptionShift = Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier;
const QString kNoUpdateAlert = "The connected controller already has the newest software version installed.";

class KeyboardShortcutsTest : public AppWindowTest {
protected:
    void SetUp() override
    {
        AppWindowTest::SetUp();
        ASSERT_TRUE(server.running()) << server.error();
        // Every check ends at the server's first answer, before anything is flashed.
        ASSERT_TRUE(server.control({{"refuse", "no_update"}}));
    }

    void beforeLaunch(app::AppDelegate& delegate) override
    {
        UpdateServerConfig config;
        config.baseUrl = server.baseUrl();
        config.caFile = server.caFile();
        delegate.setUpdateServerConfig(config);
    }

    // The "version" of every update query the server received; "-" where none was sent.
    [[nodiscard]] std::vector<std::string> requestedVersions() const
    {
        std::vector<std::string> versions;
        for (const auto& body : server.recordedBodies()) {
            if (body.is_object() && body.value("cmd", "") == "check_update") {
                versions.push_back(body.contains("version") ? body["version"].get<std::string>() : "-");
            }
        }
        return versions;
    }

    // Runs `step` from inside the modal loop of the next modal window.
    static void whenModalShows(std::function<void(QWidget*)> step)
    {
        auto* poll = new QTimer;
        QObject::connect(poll, &QTimer::timeout, [poll, step = std::move(step)] {
            if (QWidget* modal = QApplication::activeModalWidget()) {
                poll->stop();
                poll->deleteLater();
                step(modal);
            }
        });
        poll->start(10);
    }

    LocalUpdateServer server;
};

} // namespace

TEST_F(KeyboardShortcutsTest, OnlyTheExactModifiersOpenTheSerialMonitor)
{
    launchActive();
    const std::vector<Qt::KeyboardModifiers> notExactly = {
        Qt::NoModifier,
        Qt::ControlModifier,
        Qt::ShiftModifier,
        Qt::AltModifier | Qt::ShiftModifier,
        kCommandOptionShift,              // Option as well
        kCommandShift | Qt::MetaModifier, // Control as well
        kCommandOptionShift | Qt::MetaModifier,
    };
    for (const auto modifiers : notExactly) {
        press(Qt::Key_M, modifiers);
        settle();
        EXPECT_FALSE(app->serialMonitorWindow()->isVisible()) << modifiers.toInt();
    }
    EXPECT_EQ(countLogged("User clicked open serial monitor"), 0);
    EXPECT_EQ(simulator->openCount(), 0);

    press(Qt::Key_M, kCommandShift);
    EXPECT_TRUE(app->serialMonitorWindow()->isVisible());
    EXPECT_EQ(countLogged("User clicked open serial monitor"), 1);
    EXPECT_TRUE(simulator->waitForPortOpen(true, 5s));
}

TEST_F(KeyboardShortcutsTest, CommandShiftCOpensTheOnlineConfigurationAndNothingWhileItsButtonIsDisabled)
{
    launchActive();
    app->mainView()->setControlEnabled(Control::ConfigurationButton, false);
    press(Qt::Key_C, kCommandShift);
    settle();
    EXPECT_EQ(countLogged("User clicked online configuration"), 0);

    app->mainView()->setControlEnabled(Control::ConfigurationButton, true);
    press(Qt::Key_C, kCommandShift);
    EXPECT_EQ(countLogged("User clicked online configuration"), 1);
    ASSERT_TRUE(waitForActionEnd());
    ASSERT_TRUE(spinUntil([&] { return !browser.urls().isEmpty(); }));
    EXPECT_EQ(browser.urls().front().toStdString(),
              MainViewController::onlineConfigurationURL(sim::ControllerSimulator::kDefaultCID));
}

TEST_F(KeyboardShortcutsTest, CommandShiftLTogglesTheWebServerWithoutOpeningAnything)
{
    launchActive();
    press(Qt::Key_L, kCommandShift); // blocks the window for the 3-second wait
    EXPECT_TRUE(simulator->waitForLine("webconfig", 5s));
    EXPECT_TRUE(simulator->webserverRunning());
    settle();
    EXPECT_TRUE(browser.urls().isEmpty());
    EXPECT_EQ(activeMessageBox(), nullptr);
    EXPECT_EQ(watcher->disables(), 0);
}

TEST_F(KeyboardShortcutsTest, ShortcutsWorkWhileTheIpWindowIsInFront)
{
    simulator->setIPDumpLines({"ip;192.168.10.50", "subnet;255.255.255.0", "gateway;192.168.10.1", "dns;192.168.10.2"});
    launchActive();
    QTest::mouseClick(app->mainWindow()->findChild<QPushButton*>("ipconfigButton"), Qt::LeftButton);
    ASSERT_TRUE(waitForActionEnd());
    ASSERT_TRUE(spinUntil([&] { return app->ipConfigWindow()->isVisible(); }));
    app->ipConfigWindow()->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(app->ipConfigWindow()));
    auto* field = app->ipConfigController()->ui().ipField;
    field->setFocus();
    ASSERT_TRUE(spinUntil([&] { return QApplication::focusWidget() == field; }));

    // Typed into a field of the IP window, the shortcut opens the serial
    // monitor, once: the press is looked at where it starts, not again on
    // each widget it passes on its way up to the window.
    press(Qt::Key_M, kCommandShift);
    EXPECT_TRUE(spinUntil([&] { return app->serialMonitorWindow()->isVisible(); }));
    settle();
    EXPECT_EQ(countLogged("User clicked open serial monitor"), 1);
}

TEST_F(KeyboardShortcutsTest, CommandShiftSEndsTheWaitForASilentController)
{
    simulator->setSilent(true);
    launchActive();
    MessageBoxAnswerer answerer("Ok");
    QTest::mouseClick(ui().ipconfigButton, Qt::LeftButton);
    ASSERT_TRUE(spinUntil([&] { return watcher->disables() == 1; }));
    ASSERT_TRUE(spinUntil([&] { return ui().uploadState->text().startsWith("Waiting for controller"); }));
    const auto pressed = std::chrono::steady_clock::now();
    press(Qt::Key_S, kCommandShift); // no condition: works while the controls are disabled
    EXPECT_TRUE(mainViewController().skipWait());
    ASSERT_TRUE(waitForActionEnd(30s));
    // Without the key the wait lasts its 20 one-second rounds.
    EXPECT_LT(std::chrono::steady_clock::now() - pressed, 15s);
    EXPECT_EQ(answerer.texts(), QStringList{"Could not get device IP configuration"});
}

TEST_F(KeyboardShortcutsTest, CommandShiftUChecksForAnUpdateWithoutARequestedBuild)
{
    launchActive();
    MessageBoxAnswerer answerer("Ok");
    press(Qt::Key_U, kCommandShift);
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(countLogged("User clicked check for update"), 1);
    EXPECT_EQ(requestedVersions(), std::vector<std::string>{"-"});
    EXPECT_EQ(answerer.texts(), QStringList{kNoUpdateAlert});
}

TEST_F(KeyboardShortcutsTest, HiddenShortcutsAskTheServerForMasterAndMasterNoDelete)
{
    launchActive();
    MessageBoxAnswerer answerer("Ok");
    press(Qt::Key_U, kCommandOptionShift);
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(countLogged("Master requested"), 1);
    EXPECT_EQ(countLogged("User clicked check for update"), 0);

    press(Qt::Key_W, kCommandOptionShift);
    ASSERT_TRUE(spinUntil([&] { return watcher->enables() == 2; }, 60s));
    EXPECT_EQ(countLogged("Master requested, do not delete"), 1);

    EXPECT_EQ(requestedVersions(), (std::vector<std::string>{"master", "masternodelete"}));
    EXPECT_EQ(answerer.texts(), QStringList(2, kNoUpdateAlert));
}

TEST_F(KeyboardShortcutsTest, BranchSelectionAsksForABranchAndRequestsIt)
{
    launchActive();
    QStringList labels;
    QStringList buttons;
    QSize fieldSize;
    whenModalShows([&](QWidget* dialog) {
        for (auto* label : dialog->findChildren<QLabel*>()) {
            labels << label->text();
        }
        // Left to right, as on screen.
        auto shown = dialog->findChild<QDialogButtonBox*>()->buttons();
        std::sort(shown.begin(), shown.end(), [](auto* a, auto* b) { return a->x() < b->x(); });
        for (auto* button : shown) {
            buttons << button->text();
        }
        auto* field = dialog->findChild<QLineEdit*>();
        fieldSize = field->size();
        QTest::keyClicks(field, "feature-x");
        shown.front()->click();
    });
    MessageBoxAnswerer answerer("Ok");
    press(Qt::Key_B, kCommandOptionShift);
    ASSERT_TRUE(waitForActionEnd());

    EXPECT_EQ(labels, (QStringList{"Branch Selection", "Please enter a branch you want to build from the server"}));
    EXPECT_EQ(buttons, (QStringList{"Ok", "Cancel"}));
    EXPECT_EQ(fieldSize, QSize(300, 24));
    EXPECT_TRUE(logged("Branch requested"));
    EXPECT_TRUE(logged("Selected Branch: feature-x"));
    EXPECT_EQ(requestedVersions(), std::vector<std::string>{"branch_feature-x"});
    EXPECT_EQ(answerer.texts(), QStringList{kNoUpdateAlert});
}

TEST_F(KeyboardShortcutsTest, CancelledBranchSelectionRequestsNothing)
{
    launchActive();
    whenModalShows([](QWidget* dialog) {
        for (auto* button : dialog->findChild<QDialogButtonBox*>()->buttons()) {
            if (button->text() == "Cancel") {
                button->click();
            }
        }
    });
    press(Qt::Key_B, kCommandOptionShift);
    EXPECT_TRUE(logged("Branch requested"));
    EXPECT_TRUE(logged("Canceled Branch Selection"));
    settle();
    EXPECT_FALSE(logged("Checking for update"));
    EXPECT_EQ(watcher->disables(), 0);
    EXPECT_TRUE(requestedVersions().empty());
}

TEST_F(KeyboardShortcutsTest, HiddenShortcutsDoNothingWhileTheUpdatesButtonIsDisabled)
{
    launchActive();
    app->mainView()->setControlEnabled(Control::UpdatesButton, false);
    for (const auto key : {Qt::Key_U, Qt::Key_W, Qt::Key_B}) {
        press(key, kCommandOptionShift);
    }
    press(Qt::Key_U, kCommandShift);
    settle();
    EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
    for (const char* line : {"Master requested", "Master requested, do not delete", "Branch requested",
                             "User clicked check for update", "Checking for update"}) {
        EXPECT_FALSE(logged(line)) << line;
    }
    EXPECT_TRUE(requestedVersions().empty());
}
