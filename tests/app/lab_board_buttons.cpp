// Every button of the main window against the device lab's KorbatekDue (the
// board scripts/lab-window.sh shows an owner), not the tests' scriptable
// simulator: the lab's board has to answer the whole Controller protocol.
#include "app_window_fixture.h"
#include "due_controller.h"
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

class LabBoardButtonsTest : public AppWindowTest {
protected:
    void plugController() override
    {
        due.emplace(*testbed, QUENDRAL_LAB_IMAGE_DIR "/lab_old_firmware.bin");
        ASSERT_TRUE(due->start()) << due->board().error();
    }
    void TearDown() override
    {
        AppWindowTest::TearDown();
        due.reset();
    }

    // Clicks `button`; the action must end without an alert.
    void clickAndExpectNoAlert(QPushButton* button)
    {
        MessageBoxAnswerer answerer("Ok");
        const int before = watcher->enables();
        QTest::mouseClick(button, Qt::LeftButton);
        ASSERT_TRUE(spinUntil([&] { return watcher->enables() > before; }, 40s));
        settle();
        EXPECT_EQ(answerer.texts(), QStringList{}) << button->text().toStdString();
    }

    std::optional<sim::DueController> due;
};

} // namespace

TEST_F(LabBoardButtonsTest, EveryConfigurationButtonGetsItsAnswer)
{
    launch();
    const QString address = "http://192.168.10.50";

    ASSERT_NO_FATAL_FAILURE(clickAndExpectNoAlert(ui().ipconfigButton));
    ASSERT_TRUE(spinUntil([&] { return app->ipConfigWindow()->isVisible(); }));
    EXPECT_EQ(app->ipConfigController()->ui().ipField->text(), "192.168.10.50");
    EXPECT_EQ(app->ipConfigController()->ipFields().size(), 1U);
    app->closeIPConfig();

    ASSERT_NO_FATAL_FAILURE(clickAndExpectNoAlert(ui().configurationButton));
    ASSERT_NO_FATAL_FAILURE(clickAndExpectNoAlert(ui().localConfigurationButton));
    ASSERT_NO_FATAL_FAILURE(clickAndExpectNoAlert(ui().webConfigButton));
    ASSERT_TRUE(spinUntil([&] { return browser.urls().size() == 3; }));
    EXPECT_EQ(browser.urls(),
              (QStringList{QString::fromStdString(MainViewController::onlineConfigurationURL(QUENDRAL_LAB_CID)),
                           address, address}));
    EXPECT_TRUE(logged("Webconfig is now on!"));
}

TEST_F(LabBoardButtonsTest, TheSerialMonitorsServiceButtonsGetAReply)
{
    launch();
    QTest::mouseClick(ui().serialMonitorButton, Qt::LeftButton);
    ASSERT_TRUE(spinUntil(
        [&] { return app->serialMonitorController() != nullptr && app->serialMonitorController()->isSerialOpen(); }));
    windows::SerialMonitor& monitor = *app->serialMonitorController();
    auto shown = [&] {
        monitor.flushPendingOutput();
        return monitor.ui().monitorWindow->toPlainText();
    };
    for (const int tag : {6, 3, 4, 5}) { // ok, clearpresets, debug, newmac
        monitor.buttonCommand(tag);
    }
    EXPECT_TRUE(spinUntil([&] { return shown().contains("New MAC address: "); }));
    const QString text = shown();
    EXPECT_TRUE(text.contains("ok\n")) << text.toStdString();
    EXPECT_TRUE(text.contains("Presets cleared")) << text.toStdString();
    EXPECT_TRUE(text.contains("Debug output on")) << text.toStdString();
    monitor.inputFieldChanged(); // an empty line is no command
    monitor.ui().inputField->setText("getVersion");
    monitor.inputFieldChanged();
    EXPECT_TRUE(spinUntil([&] { return shown().contains("VERSION:1.0.0"); }));
}
