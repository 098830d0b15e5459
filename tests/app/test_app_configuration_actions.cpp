// The configuration buttons of the main window, clicked in the real application
// window against a simulated Controller: what the user sees (alerts as shown
// on screen, windows, pages opened in the browser), what reaches the
// Controller, and what is logged.
#include "app_window_fixture.h"
#include "ui_IPConfig.h"
#include "ui_SerialMonitorView.h"
#include "windows/ip_config.h"
#include "windows/serial_monitor.h"

#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>

using namespace quendral;
using namespace quendral::test;
using namespace std::chrono_literals;

namespace {

const QString kNoPortAlert = "Please select a device from the drop-down menu.";

const std::vector<std::string> kDump = {"ip;192.168.10.50",
                                        "subnet;255.255.255.0",
                                        "gateway;192.168.10.1",
                                        "dns;192.168.10.2",
                                        "dev;1;Boiler room;192.168.10.60;1",
                                        "dev;2;Garage;192.168.10.61;0"};

using Button = QPushButton* Ui::MasterView::*;

class ConfigurationButtonsTest : public AppWindowTest {
protected:
    // With the Controller silent, the action of `button` ends in the one alert
    // `alert` (answered Ok) and gives the controls back.
    void expectSilentControllerAlert(Button button, const QString& alert)
    {
        simulator->setSilent(true);
        launch(fastClock);
        MessageBoxAnswerer answerer("Ok");
        QTest::mouseClick(ui().*button, Qt::LeftButton);
        ASSERT_TRUE(waitForActionEnd());
        EXPECT_EQ(answerer.texts(), QStringList{alert});
        EXPECT_TRUE(allControlsEnabled());
    }

    // Launches, clicks `button` and waits until its action has ended and a
    // page has been opened in the browser.
    void clickUntilAPageOpens(Button button)
    {
        launch();
        QTest::mouseClick(ui().*button, Qt::LeftButton);
        ASSERT_TRUE(waitForActionEnd());
        ASSERT_TRUE(spinUntil([&] { return !browser.urls().isEmpty(); }));
    }
};

} // namespace

TEST_F(ConfigurationButtonsTest, WithNoPortInTheMenuEveryActionLogsAndAlertsWithoutDisablingTheControls)
{
    launch();
    testbed->unplug(*device);
    ASSERT_TRUE(spinUntil([&] { return ui().portMenu->count() == 0; }));
    const auto opensBefore = simulator->openCount();

    MessageBoxAnswerer answerer("Ok");
    for (QPushButton* button : {ui().serialMonitorButton, ui().ipconfigButton, ui().configurationButton,
                                ui().localConfigurationButton, ui().webConfigButton}) {
        QTest::mouseClick(button, Qt::LeftButton);
        // The alert is modal and shown from the click itself.
        ASSERT_TRUE(spinUntil([&] { return activeMessageBox() == nullptr; }));
    }
    spinUntil([] { return false; }, 200ms); // anything queued by the clicks runs now

    EXPECT_EQ(answerer.texts(), QStringList(5, kNoPortAlert));
    EXPECT_EQ(answerer.buttonCounts(), std::vector<int>(5, 1));
    EXPECT_EQ(countLogged("Error: No selected port"), 5);
    const std::vector<std::string> clicked = {
        "User clicked open serial monitor", "User clicked IP Configuration", "User clicked online configuration",
        "User clicked local configuration (legacy)", "User clicked local configuration (webconfig)"};
    for (const auto& line : clicked) {
        EXPECT_EQ(countLogged(line), 1) << line;
    }
    EXPECT_EQ(watcher->disables(), 0);
    EXPECT_TRUE(allControlsEnabled());
    EXPECT_FALSE(app->serialMonitorWindow()->isVisible());
    EXPECT_FALSE(app->ipConfigWindow()->isVisible());
    EXPECT_TRUE(browser.urls().isEmpty());
    EXPECT_EQ(simulator->openCount(), opensBefore);
}

// --- serial monitor -------------------------------------------------------------------------

TEST_F(ConfigurationButtonsTest, SerialMonitorButtonShowsTheControllersOutputWithoutDisablingTheControls)
{
    launch();
    QTest::mouseClick(ui().serialMonitorButton, Qt::LeftButton);
    ASSERT_TRUE(app->serialMonitorWindow()->isVisible());
    ASSERT_NE(app->serialMonitorController(), nullptr);
    EXPECT_TRUE(simulator->waitForPortOpen(true, 5s));
    EXPECT_TRUE(logged("User clicked open serial monitor"));
    EXPECT_TRUE(logged("Opening serial port /dev/ttyACM0 with baud rate 115200"));
    EXPECT_EQ(device->speed(), 115200UL);

    simulator->sendRaw("Controller ready\n");
    auto* output = app->serialMonitorController()->ui().monitorWindow;
    EXPECT_TRUE(spinUntil([&] {
        app->serialMonitorController()->flushPendingOutput();
        return output->toPlainText().contains("Controller ready");
    }));
    EXPECT_EQ(watcher->disables(), 0);
    EXPECT_TRUE(allControlsEnabled());

    // Clicked again while the monitor shows an open port: a new monitor takes
    // the window over and goes on showing the Controller.
    auto* first = app->serialMonitorController();
    QTest::mouseClick(ui().serialMonitorButton, Qt::LeftButton);
    ASSERT_NE(app->serialMonitorController(), first);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    spinUntil([] { return false; }, 300ms);
    auto* second = app->serialMonitorController();
    EXPECT_TRUE(app->serialMonitorWindow()->isVisible());
    EXPECT_TRUE(second->isSerialOpen());
    simulator->sendRaw("Still here\n");
    EXPECT_TRUE(spinUntil([&] {
        second->flushPendingOutput();
        return second->ui().monitorWindow->toPlainText().contains("Still here");
    }));
}

TEST_F(ConfigurationButtonsTest, EveryPortActionClosesTheSerialMonitorFirst)
{
    launch();
    QTest::mouseClick(ui().serialMonitorButton, Qt::LeftButton);
    ASSERT_TRUE(simulator->waitForPortOpen(true, 5s));

    MessageBoxAnswerer answerer("Ok");
    QTest::mouseClick(ui().webConfigButton, Qt::LeftButton);
    EXPECT_FALSE(app->serialMonitorWindow()->isVisible());
    EXPECT_TRUE(logged("Closing serial port.."));
    ASSERT_TRUE(waitForActionEnd());
    // The web configuration could use the port: the Controller heard it.
    EXPECT_TRUE(simulator->waitForLine("webconfig", 5s));
}

// --- IP configuration --------------------------------------------------------------------------

TEST_F(ConfigurationButtonsTest, IpConfigurationButtonOpensTheWindowFilledFromTheDump)
{
    simulator->setIPDumpLines(kDump);
    launch();
    QTest::mouseClick(ui().ipconfigButton, Qt::LeftButton);
    EXPECT_TRUE(spinUntil([&] { return watcher->disables() == 1; }));
    ASSERT_TRUE(waitForActionEnd());
    ASSERT_TRUE(spinUntil([&] { return app->ipConfigWindow()->isVisible(); }));

    windows::IPConfig* window = app->ipConfigController();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(window->ui().ipField->text(), "192.168.10.50");
    EXPECT_EQ(window->ui().gatewayField->text(), "192.168.10.1");
    ASSERT_EQ(window->ipFields().size(), 2U);
    EXPECT_EQ(window->ipFields()[0]->text(), "192.168.10.60");
    EXPECT_EQ(window->port(), "/dev/ttyACM0");
    EXPECT_TRUE(simulator->waitForLine("dumpIP", 1s));
    EXPECT_TRUE(logged("User clicked IP Configuration"));
    EXPECT_TRUE(allControlsEnabled());
    EXPECT_EQ(activeMessageBox(), nullptr);

    // Clicked again while the window is open: no port traffic, no disabled controls.
    simulator->clearReceivedLines();
    const auto opens = simulator->openCount();
    QTest::mouseClick(ui().ipconfigButton, Qt::LeftButton);
    spinUntil([] { return false; }, 300ms);
    EXPECT_EQ(countLogged("User clicked IP Configuration"), 2);
    EXPECT_EQ(watcher->disables(), 1);
    EXPECT_EQ(simulator->openCount(), opens);
    EXPECT_TRUE(simulator->receivedLines().empty());
}

TEST_F(ConfigurationButtonsTest, IpConfigurationOfASilentControllerEndsInItsAlert)
{
    ASSERT_NO_FATAL_FAILURE(
        expectSilentControllerAlert(&Ui::MasterView::ipconfigButton, "Could not get device IP configuration"));
    EXPECT_TRUE(logged("Error Could not get IP configuration from controller"));
    EXPECT_FALSE(app->ipConfigWindow()->isVisible());
}

// --- online configuration ---------------------------------------------------------------------

TEST_F(ConfigurationButtonsTest, OnlineConfigurationOpensTheControllersPageInTheBrowser)
{
    simulator->setCID("QUENDRAL0000000000000000000000AB");
    ASSERT_NO_FATAL_FAILURE(clickUntilAPageOpens(&Ui::MasterView::configurationButton));
    EXPECT_EQ(browser.urls(), QStringList{QString::fromStdString(
                                  MainViewController::onlineConfigurationURL("QUENDRAL0000000000000000000000AB"))});
    EXPECT_TRUE(browser.urls().front().startsWith("https://"));
    EXPECT_TRUE(browser.urls().front().endsWith("/?CID=QUENDRAL0000000000000000000000AB"));
    EXPECT_TRUE(logged("User clicked online configuration"));
    EXPECT_TRUE(simulator->waitForLine("getCID", 1s));
    EXPECT_EQ(activeMessageBox(), nullptr);
    EXPECT_TRUE(allControlsEnabled());
}

TEST_F(ConfigurationButtonsTest, OnlineConfigurationOfASilentControllerEndsInItsAlert)
{
    ASSERT_NO_FATAL_FAILURE(expectSilentControllerAlert(
        &Ui::MasterView::configurationButton, "Could not get device identification. Please contact support."));
    EXPECT_TRUE(browser.urls().isEmpty());
}

TEST_F(ConfigurationButtonsTest, OnlineConfigurationShowsTheControllersOwnMessageOnce)
{
    simulator->setMessage("This controller is locked by its installer.");
    launch();
    MessageBoxAnswerer answerer("Ok");
    QTest::mouseClick(ui().configurationButton, Qt::LeftButton);
    ASSERT_TRUE(waitForActionEnd());
    EXPECT_EQ(answerer.texts(), QStringList{"This controller is locked by its installer."});
    EXPECT_TRUE(browser.urls().isEmpty());
}

// --- local configuration (legacy) ---------------------------------------------------------------

TEST_F(ConfigurationButtonsTest, LocalConfigurationOpensTheAddressTheControllerAnnounces)
{
    simulator->setAddress("192.168.10.77");
    ASSERT_NO_FATAL_FAILURE(clickUntilAPageOpens(&Ui::MasterView::localConfigurationButton));
    EXPECT_EQ(browser.urls(), QStringList{"http://192.168.10.77"});
    EXPECT_TRUE(simulator->waitForLine("config", 1s));
    EXPECT_TRUE(logged("User clicked local configuration (legacy)"));
    EXPECT_EQ(activeMessageBox(), nullptr);
    EXPECT_TRUE(allControlsEnabled());
}

TEST_F(ConfigurationButtonsTest, LocalConfigurationOfASilentControllerEndsInItsAlert)
{
    ASSERT_NO_FATAL_FAILURE(expectSilentControllerAlert(&Ui::MasterView::localConfigurationButton,
                                                        "Could not get device IP. Please contact support."));
    EXPECT_TRUE(logged("Error Could not get Ip for local config"));
    EXPECT_TRUE(browser.urls().isEmpty());
}

// --- web configuration ---------------------------------------------------------------------------

TEST_F(ConfigurationButtonsTest, WebConfigurationSwitchedOnOpensTheControllersServer)
{
    simulator->setAddress("192.168.10.50");
    ASSERT_NO_FATAL_FAILURE(clickUntilAPageOpens(&Ui::MasterView::webConfigButton));
    EXPECT_EQ(browser.urls(), QStringList{"http://192.168.10.50"});
    EXPECT_TRUE(simulator->webserverRunning());
    EXPECT_TRUE(logged("Webconfig is now on!"));
    EXPECT_EQ(activeMessageBox(), nullptr);
    EXPECT_TRUE(ui().uploadState->text().isEmpty());
    EXPECT_TRUE(allControlsEnabled());
}

TEST_F(ConfigurationButtonsTest, WebConfigurationSwitchedOffSaysSoInItsAlert)
{
    launch();
    QTest::mouseClick(ui().webConfigButton, Qt::LeftButton);
    ASSERT_TRUE(waitForActionEnd());
    ASSERT_TRUE(simulator->webserverRunning());

    MessageBoxAnswerer answerer("Ok");
    QTest::mouseClick(ui().webConfigButton, Qt::LeftButton);
    ASSERT_TRUE(spinUntil([&] { return watcher->enables() == 2; }, 60s));
    EXPECT_FALSE(simulator->webserverRunning());
    EXPECT_EQ(answerer.texts(), QStringList{"Webconfig sucessfully disabeled"});
    EXPECT_TRUE(logged("Webconfig is now off"));
    EXPECT_EQ(browser.urls().size(), 1); // only the first, switching on
}

TEST_F(ConfigurationButtonsTest, WebConfigurationOfASilentControllerEndsInItsAlert)
{
    ASSERT_NO_FATAL_FAILURE(expectSilentControllerAlert(&Ui::MasterView::webConfigButton, "Error toggling Webconfig."));
    EXPECT_EQ(countLogged("Error toggling Webconfig."), 1);
    EXPECT_TRUE(browser.urls().isEmpty());
}

// --- a desktop without a browser or a text-file handler ----------------------------------------

namespace {

class WithoutDesktopHandlersTest : public ConfigurationButtonsTest {
protected:
    void SetUp() override
    {
        ConfigurationButtonsTest::SetUp();
        UrlRecorder::removeHandlers();
    }

    // Clicks `button` and returns the alerts shown until its action has ended.
    MessageBoxAnswerer* clickAndAnswer(Button button)
    {
        launch();
        answerer = std::make_unique<MessageBoxAnswerer>("Ok");
        QTest::mouseClick(ui().*button, Qt::LeftButton);
        EXPECT_TRUE(waitForActionEnd());
        EXPECT_TRUE(spinUntil([&] { return !answerer->texts().isEmpty(); }));
        return answerer.get();
    }

    std::unique_ptr<MessageBoxAnswerer> answerer;
};

const QString kNoBrowser = "No web browser could be opened for this address. Copy it into one:\n\n";

} // namespace

TEST_F(WithoutDesktopHandlersTest, OnlineConfigurationShowsItsAddressAsSelectableText)
{
    simulator->setCID("QUENDRAL0000000000000000000000AB");
    const auto* shown = clickAndAnswer(&Ui::MasterView::configurationButton);
    EXPECT_EQ(shown->texts(),
              QStringList{kNoBrowser + QString::fromStdString(MainViewController::onlineConfigurationURL(
                                           "QUENDRAL0000000000000000000000AB"))});
    EXPECT_EQ(shown->selectable(), std::vector<bool>{true});
    EXPECT_TRUE(allControlsEnabled());
}

TEST_F(WithoutDesktopHandlersTest, WebConfigurationSwitchedOnShowsTheControllersAddressAsSelectableText)
{
    simulator->setAddress("192.168.10.50");
    const auto* shown = clickAndAnswer(&Ui::MasterView::webConfigButton);
    EXPECT_EQ(shown->texts(), QStringList{kNoBrowser + "http://192.168.10.50"});
    EXPECT_EQ(shown->selectable(), std::vector<bool>{true});
    EXPECT_TRUE(logged("Webconfig is now on!"));
}

TEST_F(WithoutDesktopHandlersTest, ShowLogShowsTheLogFilesPathAsSelectableText)
{
    launch();
    MessageBoxAnswerer shown("Ok");
    app->showLog();
    ASSERT_TRUE(spinUntil([&] { return !shown.texts().isEmpty(); }));
    EXPECT_EQ(shown.texts(), QStringList{"No program could be opened for the log file. It is here:\n\n" +
                                         QString::fromStdString(Logger::getLogPath())});
    EXPECT_EQ(shown.selectable(), std::vector<bool>{true});
    EXPECT_TRUE(logged("User opened log file"));
}
