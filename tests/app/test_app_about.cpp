// Help > About in the real application window: what an owner needs when
// asking the maker for help (the version, where the log file is, the support
// page) and the keyboard shortcuts, which no menu shows otherwise.
#include "app_window_fixture.h"
#include "platform/app_info.h"

#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QTextDocument>

#ifndef QUENDRAL_TEST_SUPPORT_URL
#error "QUENDRAL_TEST_SUPPORT_URL must be defined by the build"
#endif

using namespace quendral;
using namespace quendral::test;

namespace {

class AboutBoxTest : public AppWindowTest {
protected:
    // The Help menu's item that opens the About box, or nullptr.
    [[nodiscard]] QAction* aboutItem() const
    {
        for (QAction* menu : app->mainWindow()->menuBar()->actions()) {
            if (menu->text().remove('&') != "Help" || menu->menu() == nullptr) {
                continue;
            }
            for (QAction* item : menu->menu()->actions()) {
                if (item->text() == "About QUENDRAL Firmware Updater") {
                    return item;
                }
            }
        }
        return nullptr;
    }

    // Opens the box from the menu and returns what it showed; `whileOpen`
    // runs inside the box's own modal loop before it is closed.
    QString openAboutBox(const std::function<void(QMessageBox&)>& whileOpen = {})
    {
        QAction* item = aboutItem();
        EXPECT_NE(item, nullptr) << "no Help > About QUENDRAL Firmware Updater";
        if (item == nullptr) {
            return {};
        }
        QString shown;
        QTimer answer;
        QObject::connect(&answer, &QTimer::timeout, [&] {
            QMessageBox* box = activeMessageBox();
            if (box == nullptr) {
                return;
            }
            answer.stop();
            QTextDocument rendered;
            rendered.setHtml(box->text());
            shown = box->windowTitle() + "\n" + rendered.toPlainText();
            if (whileOpen) {
                whileOpen(*box);
            }
            box->accept();
        });
        answer.start(10);
        item->trigger();
        return shown;
    }
};

TEST_F(AboutBoxTest, ShowsTheVersionTheLogFileTheSupportPageAndTheShortcuts)
{
    launch();
    const QString shown = openAboutBox();
    EXPECT_TRUE(shown.startsWith("About QUENDRAL Firmware Updater\n")) << shown.toStdString();
    EXPECT_TRUE(shown.contains(QString::fromStdString("Version " + appinfo::shortVersion()))) << shown.toStdString();

    const std::string logFile = (logFolder.path() / "QuendralFirmwareUpdater" / "log.txt").string();
    ASSERT_EQ(Logger::getLogPath(), logFile);
    EXPECT_TRUE(shown.contains(QString::fromStdString("Log file: " + logFile))) << shown.toStdString();
    EXPECT_TRUE(shown.contains(QStringLiteral("Support: " QUENDRAL_TEST_SUPPORT_URL))) << shown.toStdString();

    // The box ends with the shortcuts, each beside what it does, in this order
    // and no others (white space as it reads, whatever the table's layout).
    const qsizetype at = shown.indexOf("Keyboard shortcuts:");
    ASSERT_GE(at, 0) << shown.toStdString();
    EXPECT_EQ(shown.mid(at).simplified().toStdString(), "Keyboard shortcuts: "
                                                        "Ctrl+Shift+U Check for update "
                                                        "Ctrl+Shift+C Online configuration "
                                                        "Ctrl+Shift+L Web configuration on/off "
                                                        "Ctrl+Shift+M Serial monitor "
                                                        "Ctrl+Shift+S Stop waiting for the Controller "
                                                        "Ctrl+Q Quit");
}

// The support page opens in the browser from the box, by keyboard as well.
TEST_F(AboutBoxTest, TheSupportPageOpensFromTheBox)
{
    launch();
    openAboutBox([](QMessageBox& box) {
        auto* label = box.findChild<QLabel*>(QStringLiteral("qt_msgbox_label"));
        ASSERT_NE(label, nullptr);
        label->setFocus();
        QTest::keyClick(label, Qt::Key_Tab);
        QTest::keyClick(label, Qt::Key_Return);
    });
    EXPECT_EQ(browser.urls(), QStringList{QStringLiteral(QUENDRAL_TEST_SUPPORT_URL)});
}

// A data folder whose name looks like markup is still shown as the path it is.
TEST_F(AboutBoxTest, ALogPathThatLooksLikeMarkupIsShownAsText)
{
    const auto odd = logFolder.path() / "<b>bold</b> & co";
    std::filesystem::create_directories(odd);
    Logger::setDataFolder(odd);
    launch();
    const QString shown = openAboutBox();
    EXPECT_TRUE(
        shown.contains(QString::fromStdString("Log file: " + (odd / "QuendralFirmwareUpdater" / "log.txt").string())))
        << shown.toStdString();
}

} // namespace
