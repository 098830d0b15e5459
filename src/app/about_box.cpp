#include "about_box.h"

#include "log/logger.h"
#include "platform/app_info.h"

#include <QAction>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QString>

#ifndef QUENDRAL_SUPPORT_URL
#error "QUENDRAL_SUPPORT_URL must be defined by the build"
#endif

namespace quendral::app {
namespace {

const char* const kAboutTitle = "About QUENDRAL Firmware Updater";

struct Shortcut {
    const char* keys;
    const char* action;
};

// The shortcuts the main window answers (controller/keyboard_shortcuts.cpp,
// Ctrl standing for Command) and File > Quit. The ones that ask the server for
// a particular build are for the maker's own testing and stay unlisted.
constexpr Shortcut kShortcuts[] = {
    {"Ctrl+Shift+U", "Check for update"},
    {"Ctrl+Shift+C", "Online configuration"},
    {"Ctrl+Shift+L", "Web configuration on/off"},
    {"Ctrl+Shift+M", "Serial monitor"},
    {"Ctrl+Shift+S", "Stop waiting for the Controller"},
    {"Ctrl+Q", "Quit"},
};

// Rich text for the link; everything that comes from outside the program (the
// log's folder is the user's $XDG_DATA_HOME) is escaped.
QString aboutText()
{
    const QString support = QStringLiteral(QUENDRAL_SUPPORT_URL).toHtmlEscaped();
    QString text = QStringLiteral("<p><b>QUENDRAL Firmware Updater</b><br>Version %1</p>")
                       .arg(QString::fromStdString(appinfo::shortVersion()).toHtmlEscaped());
    text += QStringLiteral("<p>Log file: %1<br>Support: <a href=\"%2\">%2</a></p>")
                .arg(QString::fromStdString(Logger::getLogPath()).toHtmlEscaped(), support);
    text += QStringLiteral("<p>Keyboard shortcuts:</p><table>");
    for (const Shortcut& shortcut : kShortcuts) {
        text += QStringLiteral("<tr><td>%1 </td><td>%2</td></tr>")
                    .arg(QString::fromLatin1(shortcut.keys), QString::fromLatin1(shortcut.action));
    }
    return text + QStringLiteral("</table>");
}

} // namespace

void addHelpMenu(QMenuBar& menuBar, QWidget* parent)
{
    QMenu* help = menuBar.addMenu(QStringLiteral("&Help"));
    QAction* about = help->addAction(QString::fromLatin1(kAboutTitle));
    about->setMenuRole(QAction::AboutRole);
    QObject::connect(about, &QAction::triggered, help, [parent] { showAboutBox(parent); });
}

void showAboutBox(QWidget* parent)
{
    QMessageBox box(parent);
    box.setWindowTitle(QString::fromLatin1(kAboutTitle));
    box.setIcon(QMessageBox::Information);
    box.setTextFormat(Qt::RichText);
    box.setText(aboutText());
    // Links open in the browser (by mouse or Tab and Enter); the rest can be
    // selected and copied into a message to the maker.
    box.setTextInteractionFlags(Qt::TextBrowserInteraction);
    box.setStandardButtons(QMessageBox::Close);
    box.exec();
}

} // namespace quendral::app
