// Peer text in the window is shown as the text it is: a server message or a
// Controller's line that looks like markup ("<b>x</b>", a link, an image) is
// never rendered as rich text. Qt labels and message boxes guess rich text
// from the text itself unless told otherwise.
#include "qt_main_view.h"
#include "support/gui_test_support.h"
#include "windows/ip_config.h"
#include "windows/window_host.h"

#include <QLabel>
#include <QTextDocument>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

using quendral::app::QtMainView;
using quendral::windows::IPConfig;
using namespace quendral::test;

namespace {

const QString kMarkup = QStringLiteral("<b>x</b> <a href=\"https://evil.example\">update here</a>");

// What a label shows a reader: its text as it is, or rendered when the label
// takes it for rich text (QLabel's own rule: RichText, or AutoText with text
// that might be rich).
QString shownText(const QLabel* label)
{
    const bool rich = label->textFormat() == Qt::RichText ||
                      (label->textFormat() == Qt::AutoText && Qt::mightBeRichText(label->text()));
    if (!rich) {
        return label->text();
    }
    QTextDocument document;
    document.setHtml(label->text());
    return document.toPlainText();
}

// Answers each message box as it comes up, noting what its text label shows.
class ShownTextRecorder {
public:
    explicit ShownTextRecorder(QString button) : _button(std::move(button))
    {
        QObject::connect(&_timer, &QTimer::timeout, [this] {
            if (QMessageBox* box = activeMessageBox()) {
                if (const auto* label = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_label"))) {
                    _shown.push_back(shownText(label));
                }
                clickMessageBoxButton(_button);
            }
        });
        _timer.start(10);
    }
    [[nodiscard]] const QStringList& shown() const { return _shown; }

private:
    QString _button;
    QTimer _timer;
    QStringList _shown;
};

struct NoWindowHost : quendral::windows::WindowHost {
    void closeSerialMonitor() override {}
    void closeIPConfig() override {}
};

} // namespace

namespace {

// What the message box that `ask` brings up from a background thread shows,
// answered with `button`.
QStringList shownByBox(const QString& button, const std::function<void(QtMainView&)>& ask)
{
    QtMainView view;
    view.show();
    ShownTextRecorder recorder(button);
    ask(view); // on the main thread, where the view lives; the recorder answers the box
    return recorder.shown();
}

} // namespace

TEST(HostilePlainText, AnAlertShowsMarkupLiterally)
{
    const QStringList shown = shownByBox("Ok", [](QtMainView& view) { view.showAlert(kMarkup.toStdString()); });
    ASSERT_EQ(shown.size(), 1);
    EXPECT_EQ(shown.front().toStdString(), kMarkup.toStdString());
}

TEST(HostilePlainText, ADialogShowsMarkupLiterally)
{
    const QStringList shown =
        shownByBox("Cancel", [](QtMainView& view) { (void)view.showDialog(kMarkup.toStdString()); });
    ASSERT_EQ(shown.size(), 1);
    EXPECT_EQ(shown.front().toStdString(), kMarkup.toStdString());
}

TEST(HostilePlainText, ADeviceLabelFromTheIpDumpShowsMarkupLiterally)
{
    NoWindowHost host;
    IPConfig window(host);
    window.loadData({"ip;192.168.10.50", "dev;1;" + kMarkup.toStdString() + ";192.168.10.60;1"});
    QStringList shown;
    for (const QLabel* label : window.findChildren<QLabel*>()) {
        if (label->text() == kMarkup) {
            shown.push_back(shownText(label));
        }
    }
    ASSERT_EQ(shown.size(), 1);
    EXPECT_EQ(shown.front().toStdString(), kMarkup.toStdString());
}
