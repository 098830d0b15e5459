#pragma once
// A top-level window whose content a controller's view is put into, and that
// tells when it is about to close.
#include <QCloseEvent>
#include <QVBoxLayout>
#include <QWidget>

namespace quendral::app {

class HostWindow final : public QWidget {
    Q_OBJECT
public:
    explicit HostWindow(const QString& title, QWidget* parent = nullptr) : QWidget(parent, Qt::Window)
    {
        setWindowTitle(title);
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
    }

    // Replaces the window's content; the old content is deleted.
    void setContent(QWidget* content)
    {
        if (_content != nullptr) {
            layout()->removeWidget(_content);
            _content->deleteLater();
        }
        _content = content;
        layout()->addWidget(content);
    }
    [[nodiscard]] QWidget* content() const { return _content; }

Q_SIGNALS:
    void willClose();

protected:
    void closeEvent(QCloseEvent* event) override
    {
        Q_EMIT willClose();
        QWidget::closeEvent(event);
    }

private:
    QWidget* _content = nullptr;
};

} // namespace quendral::app
