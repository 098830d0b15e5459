#pragma once
// The whole application window, started the way main() starts it (the real
// AppDelegate with its main window, serial monitor and IP configuration
// windows), with a simulated Controller on /dev/ttyACM0 of a umockdev tree, the
// log in a folder of its own and the browser replaced by a UrlRecorder.
#include "app_delegate.h"
#include "controller/main_view_controller.h"
#include "host_window.h"
#include "qt_main_view.h"
#include "support/device_window_fixture.h"
#include "support/fast_forward_clock.h"
#include "support/temp_dir.h"
#include "ui_MasterView.h"
#include "url_recorder.h"

#include <QAction>
#include <QComboBox>
#include <QMainWindow>

#include <memory>

namespace quendral::test {

// Follows the update-from-file menu item, which toggleUI switches together
// with the buttons: every action that disables the controls shows here.
class ControlsWatcher {
public:
    explicit ControlsWatcher(QAction* item)
    {
        QObject::connect(item, &QAction::changed, &_context, [this, item] {
            if (item->isEnabled() != _lastEnabled) {
                _lastEnabled = item->isEnabled();
                ++(_lastEnabled ? _enables : _disables);
            }
        });
    }
    [[nodiscard]] int disables() const { return _disables; }
    [[nodiscard]] int enables() const { return _enables; }

private:
    QObject _context;
    bool _lastEnabled = true;
    int _disables = 0;
    int _enables = 0;
};

class AppWindowTest : public DeviceWindowTest {
protected:
    void SetUp() override
    {
        DeviceWindowTest::SetUp();
        // Replies are parsed once a further byte has come, as from a chatty firmware.
        if (simulator != nullptr) {
            simulator->setTrailer("\n");
        }
        Logger::setDataFolder(logFolder.path());
    }

    void TearDown() override
    {
        if (app) {
            // Work still running in the background would outlive the window.
            EXPECT_TRUE(spinUntil([&] { return watcher->enables() >= watcher->disables(); }, std::chrono::seconds(60)));
            watcher.reset();
            app->mainWindow()->close();
            app.reset();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
        Logger::reset();
        Logger::setDataFolder(std::nullopt);
        DeviceWindowTest::TearDown();
    }

    // Starts the application as main() does; `clock` drives the controller's
    // waiting procedures. Waits until the port menu lists the Controller.
    void launch(Clock& clock = systemClock(), bool expectPort = true)
    {
        app = std::make_unique<app::AppDelegate>();
        app->setClock(clock);
        beforeLaunch(*app);
        app->applicationDidFinishLaunching();
        watcher = std::make_unique<ControlsWatcher>(app->updateConfigMenuItem());
        ASSERT_TRUE(app->mainWindow()->isVisible());
        if (expectPort) {
            ASSERT_TRUE(spinUntil([&] { return ui().portMenu->currentText() == "ttyACM0"; }));
        }
    }
    virtual void beforeLaunch(app::AppDelegate& /*delegate*/) {}

    [[nodiscard]] Ui::MasterView& ui() const { return app->mainView()->ui(); }
    [[nodiscard]] MainViewController& mainViewController() const { return *app->mainViewController(); }

    // Waits until the action that disabled the controls has enabled them again.
    bool waitForActionEnd(std::chrono::milliseconds timeout = std::chrono::seconds(60))
    {
        return spinUntil([&] { return watcher->disables() >= 1 && watcher->enables() >= watcher->disables(); },
                         timeout);
    }

    // Starts the application with its main window in front, as an owner
    // who is about to type a shortcut has it.
    void launchActive(Clock& clock = systemClock())
    {
        launch(clock);
        app->mainWindow()->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(app->mainWindow()));
    }

    // Types a key where a real key press would go: the focus widget of the
    // active window, or the window itself.
    void press(Qt::Key key, Qt::KeyboardModifiers modifiers)
    {
        QWidget* target = QApplication::focusWidget();
        if (target == nullptr) {
            target = app->mainWindow();
        }
        QTest::keyClick(target, key, modifiers);
    }

    // Lets anything a key press or click queued run.
    static void settle(std::chrono::milliseconds duration = std::chrono::milliseconds(150))
    {
        spinUntil([] { return false; }, duration);
    }

    [[nodiscard]] bool allControlsEnabled() const
    {
        return ui().serialMonitorButton->isEnabled() && ui().loadFirmwareButton->isEnabled() &&
               ui().portMenu->isEnabled() && ui().updatesButton->isEnabled() && ui().configurationButton->isEnabled() &&
               ui().localConfigurationButton->isEnabled() && ui().ipconfigButton->isEnabled() &&
               ui().webConfigButton->isEnabled() && app->updateConfigMenuItem()->isEnabled();
    }

    [[nodiscard]] long countLogged(const std::string& message) const
    {
        const auto messages = loggedMessages();
        return std::count(messages.begin(), messages.end(), message);
    }

    TempDir logFolder;
    UrlRecorder browser;
    FastForwardClock fastClock;
    std::unique_ptr<app::AppDelegate> app;
    std::unique_ptr<ControlsWatcher> watcher;
};

} // namespace quendral::test
