#pragma once
#include "poll_until.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <functional>
#include <vector>

namespace quendral::test {

// Spins the Qt event loop (and so the main queue) until `done` or the timeout.
inline bool spinUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    return sim::pollUntil(done, timeout, [] {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QTest::qWait(1);
    });
}

// The modal message box on screen now, if any.
inline QMessageBox* activeMessageBox()
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* box = qobject_cast<QMessageBox*>(widget); box != nullptr && box->isVisible()) {
            return box;
        }
    }
    return nullptr;
}

// Clicks the button titled `title` of the message box on screen.
inline bool clickMessageBoxButton(const QString& title)
{
    QMessageBox* box = activeMessageBox();
    if (box == nullptr) {
        return false;
    }
    for (QAbstractButton* button : box->buttons()) {
        if (button->text() == title) {
            button->click();
            return true;
        }
    }
    return false;
}

// Answers message boxes as they appear. A modal box runs its own nested event
// loop, so the answer has to come from inside that loop: a timer does it.
class MessageBoxAnswerer {
public:
    explicit MessageBoxAnswerer(QString button) : _button(std::move(button))
    {
        QObject::connect(&_timer, &QTimer::timeout, [this] {
            if (QMessageBox* box = activeMessageBox()) {
                _texts.push_back(box->text());
                _buttonCounts.push_back(static_cast<int>(box->buttons().size()));
                _selectable.push_back(box->textInteractionFlags().testFlag(Qt::TextSelectableByMouse));
                clickMessageBoxButton(_button);
            }
        });
        _timer.start(10);
    }
    void setButton(QString button) { _button = std::move(button); }
    [[nodiscard]] const QStringList& texts() const { return _texts; }
    [[nodiscard]] const std::vector<int>& buttonCounts() const { return _buttonCounts; }
    // Whether each box's text could be selected (and so copied) with the mouse.
    [[nodiscard]] const std::vector<bool>& selectable() const { return _selectable; }

private:
    QString _button;
    QTimer _timer;
    QStringList _texts;
    std::vector<int> _buttonCounts;
    std::vector<bool> _selectable;
};

} // namespace quendral::test
