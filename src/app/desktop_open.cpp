#include "desktop_open.h"

#include <QDesktopServices>
#include <QMessageBox>
#include <QUrl>
#include <QWidget>

namespace quendral::app {

void openOnDesktop(const QUrl& url, QWidget* parent)
{
    if (QDesktopServices::openUrl(url)) {
        return;
    }
    const QString text =
        url.isLocalFile()
            ? QStringLiteral("No program could be opened for the log file. It is here:\n\n") + url.toLocalFile()
            : QStringLiteral("No web browser could be opened for this address. Copy it into one:\n\n") + url.toString();
    QMessageBox box(QMessageBox::Information, parent != nullptr ? parent->window()->windowTitle() : QString(), text,
                    QMessageBox::NoButton, parent);
    box.setTextFormat(Qt::PlainText);
    box.setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    box.addButton(QStringLiteral("Ok"), QMessageBox::AcceptRole);
    box.exec();
}

} // namespace quendral::app
