// The main window's configuration buttons against a simulated Controller.
#include "log/logger.h"
#include "protocol_test_bed.h"
#include "support/captured_console.h"
#include "support/recording_application_delegate.h"

using namespace quendral;
using namespace quendral::test;

namespace {

class ConfigurationActionsTest : public ProtocolTestBed {
protected:
    void SetUp() override
    {
        ProtocolTestBed::SetUp();
        controller = MainViewController::create(view, &app, clock);
        selectPort("ttyACM0");
        simulator->setTrailer("\n");
        simulator->start();
        Logger::reset();
        Logger::setConsole(&console);
    }
    void TearDown() override
    {
        Logger::setConsole(nullptr);
        ProtocolTestBed::TearDown();
    }

    // Waits until the action's work has ended (the controls come back).
    bool waitForActionEnd(std::chrono::milliseconds timeout = 60000ms)
    {
        const bool ended = waitFor([&] { return app.menuEnables() >= 1; }, timeout);
        dispatch::RunLoop::main().drain();
        return ended;
    }

    [[nodiscard]] std::vector<std::string> loggedMessages() const { return console.messages(); }

    // With the Controller silent, `action` ends in the one alert `alert`.
    void expectSilentControllerAlert(const std::function<void()>& action, const std::string& alert)
    {
        simulator->setSilent(true);
        action();
        ASSERT_TRUE(waitForActionEnd());
        EXPECT_EQ(view.alerts(), std::vector<std::string>{alert});
    }

    RecordingApplicationDelegate app;
    CapturedConsole console;
};

} // namespace

TEST_F(ConfigurationActionsTest, WithNoPortEveryActionLogsAndAlertsWithoutDisablingControls)
{
    selectPort(std::nullopt);
    controller->openSerialMonitor();
    controller->ipConfig();
    controller->configureController();
    controller->localConfig();
    controller->webConfig();
    dispatch::RunLoop::main().runFor(100ms);

    const auto messages = loggedMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Error: No selected port"), 5);
    EXPECT_EQ(view.alerts(), std::vector<std::string>(5, "Please select a device from the drop-down menu."));
    EXPECT_EQ(app.menuDisables(), 0);
    EXPECT_TRUE(view.isControlEnabled(Control::UpdatesButton));
    EXPECT_EQ(simulator->openCount(), 0);
    EXPECT_EQ(messages.front(), "User clicked open serial monitor");
}

TEST_F(ConfigurationActionsTest, OpenSerialMonitorOpensTheSelectedPortWhenTheMonitorIsNotShowingAClosedPort)
{
    controller->openSerialMonitor();
    EXPECT_EQ(app.monitorOpens(), std::vector<std::string>{"/dev/ttyACM0"});
    EXPECT_EQ(app.monitorCloses(), 0);
    app.serialMonitorState = true;
    controller->openSerialMonitor();
    EXPECT_EQ(app.monitorOpens().size(), 1U);
}

TEST_F(ConfigurationActionsTest, IpConfigOpensTheIPWindowWithTheDump)
{
    const std::vector<std::string> dump = {"ip;192.168.10.50", "subnet;255.255.255.0", "dev;1;Boiler;192.168.10.60;1"};
    simulator->setIPDumpLines(dump);
    controller->ipConfig();
    EXPECT_EQ(app.monitorCloses(), 1);
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(app.menuDisables(), 1);
    const auto opens = app.ipConfigOpens();
    ASSERT_EQ(opens.size(), 1U);
    EXPECT_EQ(opens[0].first, "/dev/ttyACM0");
    EXPECT_EQ(opens[0].second, dump);
    EXPECT_TRUE(view.alerts().empty());
    EXPECT_EQ(loggedMessages().front(), "User clicked IP Configuration");
}

TEST_F(ConfigurationActionsTest, IpConfigWithASilentControllerAlerts)
{
    ASSERT_NO_FATAL_FAILURE(
        expectSilentControllerAlert([&] { controller->ipConfig(); }, "Could not get device IP configuration"));
    EXPECT_TRUE(console.logged("Error Could not get IP configuration from controller"));
    EXPECT_TRUE(app.ipConfigOpens().empty());
}

TEST_F(ConfigurationActionsTest, IpConfigWhileTheIPWindowIsOpenOnlyClosesTheMonitor)
{
    app.ipConfigState = true;
    controller->ipConfig();
    dispatch::RunLoop::main().runFor(200ms);
    EXPECT_EQ(app.monitorCloses(), 1);
    EXPECT_EQ(app.menuDisables(), 0);
    EXPECT_EQ(simulator->openCount(), 0);
    EXPECT_TRUE(view.isControlEnabled(Control::IpConfigButton));
}

TEST_F(ConfigurationActionsTest, ConfigureControllerOpensTheOnlinePageForTheIdentifier)
{
    controller->configureController();
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(view.urls(), std::vector<std::string>{
                               MainViewController::onlineConfigurationURL(sim::ControllerSimulator::kDefaultCID)});
    EXPECT_EQ(view.urls().front().rfind("https://", 0), 0U);
    EXPECT_NE(view.urls().front().find("/?CID=0123456789ABCDEF0123456789ABCDEF"), std::string::npos);
    EXPECT_TRUE(view.alerts().empty());
}

TEST_F(ConfigurationActionsTest, ConfigureControllerWithAMessageShowsItOnceAndNoSecondAlert)
{
    simulator->setMessage("Please update via the service tool");
    controller->configureController();
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(view.alerts(), std::vector<std::string>{"Please update via the service tool"});
    EXPECT_TRUE(view.urls().empty());
}

TEST_F(ConfigurationActionsTest, ConfigureControllerWithASilentControllerAsksToContactSupport)
{
    ASSERT_NO_FATAL_FAILURE(expectSilentControllerAlert(
        [&] { controller->configureController(); }, "Could not get device identification. Please contact support."));
}

TEST_F(ConfigurationActionsTest, LocalConfigOpensTheControllersAddress)
{
    simulator->setAddress("192.168.10.77");
    controller->localConfig();
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(view.urls(), std::vector<std::string>{"http://192.168.10.77"});
}

TEST_F(ConfigurationActionsTest, LocalConfigWithASilentControllerAlerts)
{
    ASSERT_NO_FATAL_FAILURE(expectSilentControllerAlert([&] { controller->localConfig(); },
                                                        "Could not get device IP. Please contact support."));
    EXPECT_TRUE(console.logged("Error Could not get Ip for local config"));
}

TEST_F(ConfigurationActionsTest, WebConfigSwitchedOnOpensTheWebServer)
{
    simulator->setAddress("192.168.10.99");
    controller->webConfig();
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(view.urls(), std::vector<std::string>{"http://192.168.10.99"});
    EXPECT_TRUE(console.logged("Webconfig is now on!"));
    EXPECT_EQ(view.statusTexts().back(), "");
}

TEST_F(ConfigurationActionsTest, WebConfigSwitchedOffSaysSo)
{
    controller->webConfig();
    ASSERT_TRUE(waitForActionEnd());
    ASSERT_TRUE(simulator->webserverRunning());
    // The user clicks again once the port has been let go.
    ASSERT_TRUE(waitFor([&] { return !controller->serial()->isOpen(); }));
    const int before = app.menuEnables();
    controller->webConfig();
    ASSERT_TRUE(waitFor([&] { return app.menuEnables() > before; }, 60000ms));
    dispatch::RunLoop::main().drain();
    EXPECT_EQ(view.alerts(), std::vector<std::string>{"Webconfig sucessfully disabeled"});
    EXPECT_TRUE(console.logged("Webconfig is now off"));
}

TEST_F(ConfigurationActionsTest, WebConfigWithASilentControllerReportsTheErrorAfterThreeSeconds)
{
    ASSERT_NO_FATAL_FAILURE(expectSilentControllerAlert([&] { controller->webConfig(); }, "Error toggling Webconfig."));
    EXPECT_GE(clock.elapsedSeconds(), 3.0);
    EXPECT_LT(clock.elapsedSeconds(), 4.0);
}

// Alerts, status texts, pages and controls of every button's work reach the
// window on its main thread, whether the Controller answers or not.
TEST_F(ConfigurationActionsTest, EveryActionTellsTheWindowOnlyOnItsMainThread)
{
    simulator->setAddress("192.168.10.99");
    int ends = 0;
    const auto run = [&](void (MainViewController::*action)()) {
        ((*controller).*action)();
        ASSERT_TRUE(waitFor([&] { return app.menuEnables() > ends; }, 60000ms));
        ends = app.menuEnables();
        ASSERT_TRUE(waitFor([&] { return !controller->serial() || !controller->serial()->isOpen(); }));
        dispatch::RunLoop::main().drain();
    };
    for (const bool silent : {false, true}) {
        simulator->setSilent(silent);
        for (const auto action : {&MainViewController::configureController, &MainViewController::localConfig,
                                  &MainViewController::webConfig, &MainViewController::ipConfig}) {
            ASSERT_NO_FATAL_FAILURE(run(action));
        }
    }
    EXPECT_FALSE(view.alerts().empty());
    EXPECT_FALSE(view.urls().empty());
    EXPECT_EQ(view.callsOffTheMainThread(), std::vector<std::string>{});
}

TEST_F(ConfigurationActionsTest, ToggleUISetsTheControlsAndTheMenuItem)
{
    controller->toggleUI(false);
    ASSERT_TRUE(waitFor([&] { return app.menuDisables() == 1; }));
    dispatch::RunLoop::main().drain();
    for (const Control control :
         {Control::SerialMonitorButton, Control::LoadFirmwareButton, Control::PortMenu, Control::UpdatesButton,
          Control::ConfigurationButton, Control::LocalConfigurationButton, Control::IpConfigButton,
          Control::WebConfigButton}) {
        EXPECT_FALSE(view.isControlEnabled(control));
    }
    EXPECT_FALSE(app.updateMenuEnabled.load());
    controller->toggleUI(true);
    ASSERT_TRUE(waitFor([&] { return app.menuEnables() == 1; }));
    dispatch::RunLoop::main().drain();
    EXPECT_TRUE(view.isControlEnabled(Control::IpConfigButton));
}

TEST_F(ConfigurationActionsTest, UploadNotificationsReachTheWindow)
{
    NotificationCenter center;
    center.addObserver("uploadProgress", nullptr, [&](const Notification& n) { controller->progressChanged(n); });
    center.addObserver("uploadState", nullptr, [&](const Notification& n) { controller->uploadState(n); });
    center.post("uploadProgress", nullptr, 40.0);
    center.post("uploadState", nullptr, std::string("Writing firmware..."));
    ASSERT_TRUE(waitFor([&] { return !view.statusTexts().empty(); }));
    dispatch::RunLoop::main().drain();
    EXPECT_EQ(view.progress(), 40.0);
    EXPECT_EQ(view.statusTexts().back(), "Writing firmware...");
    center.post("uploadProgress", nullptr, 100);
    dispatch::RunLoop::main().runFor(50ms);
    EXPECT_EQ(view.progress(), 100.0);
}
