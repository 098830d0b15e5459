#include "qt_main_view.h"

#include "controller/keyboard_shortcuts.h"
#include "desktop_open.h"
#include "keyboard_locks.h"
#include "ui_MasterView.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

namespace quendral::app {
namespace {

QString qs(const std::string& text)
{
    return QString::fromStdString(text);
}

// Every text a box or label here shows may come from a peer (a server's
// message, a Controller's answer) and is set as plain text: Qt would take
// text that looks like markup for rich text, links and images included.

} // namespace

QtMainView::QtMainView(QWidget* parent) : QWidget(parent), _ui(std::make_unique<Ui::MasterView>())
{
    _ui->setupUi(this);
    _enabled.fill(true);
    // The maker's blue band along the top of the window.
    _ui->colorBar->setAutoFillBackground(true);
    _ui->colorBar->setStyleSheet(
        QStringLiteral("QFrame#colorBar { background-color: rgba(41, 71, 137, 255); }"
                       "QLabel#titleLabel { color: white; font-size: 16pt; font-weight: 600; }"));
    _ui->uploadState->setOpenExternalLinks(true);
    connect(_ui->portMenu, &QComboBox::currentIndexChanged, this, [this] { mirrorPortMenu(); });
    // Shortcuts work wherever the focus is inside the window.
    QCoreApplication::instance()->installEventFilter(this);
}

void QtMainView::setKeyHandler(std::function<void(std::uint64_t, std::uint16_t)> handler)
{
    _keyHandler = std::move(handler);
}

std::uint64_t QtMainView::modifierFlags(Qt::KeyboardModifiers modifiers, bool capsLock)
{
    std::uint64_t flags = capsLock ? std::uint64_t{keys::CapsLock} : 0;
    if (modifiers.testFlag(Qt::ControlModifier)) {
        flags |= keys::Command;
    }
    if (modifiers.testFlag(Qt::AltModifier)) {
        flags |= keys::Option;
    }
    if (modifiers.testFlag(Qt::ShiftModifier)) {
        flags |= keys::Shift;
    }
    if (modifiers.testFlag(Qt::MetaModifier)) {
        flags |= keys::Control;
    }
    return flags;
}

std::uint16_t QtMainView::keyCode(int qtKey)
{
    switch (qtKey) {
    case Qt::Key_S:
        return keys::S;
    case Qt::Key_C:
        return keys::C;
    case Qt::Key_U:
        return keys::U;
    case Qt::Key_L:
        return keys::L;
    case Qt::Key_M:
        return keys::M;
    case Qt::Key_W:
        return keys::W;
    case Qt::Key_B:
        return keys::B;
    default:
        return 0xFFFF;
    }
}

bool QtMainView::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::KeyPress && _keyHandler) {
        // The monitor sees key presses in every window of the application (the
        // serial monitor and the IP window too), as the main window's shortcuts
        // work whichever window is in front. A key press travels from the focus
        // widget up to its window: look at it once, where it starts.
        QWidget* first = QApplication::focusWidget();
        if (first == nullptr) {
            first = QApplication::activeWindow() != nullptr ? QApplication::activeWindow() : window();
        }
        if (watched == first) {
            const auto* key = static_cast<QKeyEvent*>(event);
            _keyHandler(modifierFlags(key->modifiers(), capsLockEngaged()), keyCode(key->key()));
        }
    }
    return false; // the event always goes on unchanged
}

QtMainView::~QtMainView() = default;

void QtMainView::setStatusText(const std::string& text)
{
    _ui->uploadState->setTextFormat(Qt::PlainText);
    _ui->uploadState->setText(qs(text));
}

void QtMainView::setStatusTextWithLink(const std::string& text, std::size_t linkLength, const std::string& url)
{
    const QString all = qs(text);
    const auto split = all.size() - static_cast<qsizetype>(std::min<std::size_t>(linkLength, all.size()));
    const QString html = all.left(split).toHtmlEscaped() + QStringLiteral("<a href=\"") + qs(url).toHtmlEscaped() +
                         QStringLiteral("\">") + all.mid(split).toHtmlEscaped() + QStringLiteral("</a>");
    _ui->uploadState->setTextFormat(Qt::RichText);
    _ui->uploadState->setText(html);
}

void QtMainView::setProgress(double percent)
{
    _ui->uploadProgress->setValue(static_cast<int>(percent));
}

void QtMainView::startProgressAnimation()
{
    // A determinate bar is already animated by its style; nothing more to start.
}

QWidget* QtMainView::widgetFor(Control control) const
{
    switch (control) {
    case Control::SerialMonitorButton:
        return _ui->serialMonitorButton;
    case Control::LoadFirmwareButton:
        return _ui->loadFirmwareButton;
    case Control::PortMenu:
        return _ui->portMenu;
    case Control::UpdatesButton:
        return _ui->updatesButton;
    case Control::ConfigurationButton:
        return _ui->configurationButton;
    case Control::LocalConfigurationButton:
        return _ui->localConfigurationButton;
    case Control::IpConfigButton:
        return _ui->ipconfigButton;
    case Control::WebConfigButton:
        return _ui->webConfigButton;
    }
    return nullptr;
}

void QtMainView::setControlEnabled(Control control, bool enabled)
{
    {
        std::lock_guard lock(_enabledMutex);
        _enabled.at(static_cast<std::size_t>(control)) = enabled;
    }
    if (QWidget* widget = widgetFor(control)) {
        widget->setEnabled(enabled);
    }
}

bool QtMainView::isControlEnabled(Control control) const
{
    std::lock_guard lock(_enabledMutex);
    return _enabled.at(static_cast<std::size_t>(control));
}

void QtMainView::mirrorPortMenu()
{
    std::vector<std::string> titles;
    for (int i = 0; i < _ui->portMenu->count(); ++i) {
        titles.push_back(_ui->portMenu->itemText(i).toStdString());
    }
    std::optional<std::string> selected;
    if (_ui->portMenu->currentIndex() >= 0) {
        selected = _ui->portMenu->currentText().toStdString();
    }
    std::lock_guard lock(_menuMutex);
    _menuTitles = std::move(titles);
    _selectedTitle = std::move(selected);
}

std::vector<std::string> QtMainView::portMenuTitles() const
{
    std::lock_guard lock(_menuMutex);
    return _menuTitles;
}

std::optional<std::string> QtMainView::selectedPortTitle() const
{
    std::lock_guard lock(_menuMutex);
    return _selectedTitle;
}

void QtMainView::removeAllPortMenuItems()
{
    _ui->portMenu->clear();
    mirrorPortMenu();
}

void QtMainView::addPortMenuItem(const std::string& title)
{
    const QSignalBlocker quiet(_ui->portMenu); // adding must not select by itself
    _ui->portMenu->addItem(qs(title));
    if (_ui->portMenu->count() == 1) {
        _ui->portMenu->setCurrentIndex(-1);
    }
    mirrorPortMenu();
}

void QtMainView::selectPortMenuItem(const std::string& title)
{
    _ui->portMenu->setCurrentIndex(_ui->portMenu->findText(qs(title), Qt::MatchExactly));
    mirrorPortMenu();
}

void QtMainView::showAlert(const std::string& message)
{
    QMessageBox box(QMessageBox::NoIcon, window()->windowTitle(), qs(message), QMessageBox::NoButton, this);
    box.setTextFormat(Qt::PlainText);
    box.addButton(QStringLiteral("Ok"), QMessageBox::AcceptRole);
    box.exec();
}

bool QtMainView::showDialog(const std::string& message)
{
    QMessageBox box(QMessageBox::NoIcon, window()->windowTitle(), qs(message), QMessageBox::NoButton, this);
    box.setTextFormat(Qt::PlainText);
    QPushButton* ok = box.addButton(QStringLiteral("Ok"), QMessageBox::AcceptRole);
    box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    box.setDefaultButton(ok);
    box.exec();
    return box.clickedButton() == ok;
}

std::optional<std::string> QtMainView::askForText(const std::string& message, const std::string& informativeText)
{
    QDialog dialog(this);
    dialog.setWindowTitle(window()->windowTitle());
    auto* layout = new QVBoxLayout(&dialog);
    auto* title = new QLabel(qs(message), &dialog);
    title->setTextFormat(Qt::PlainText);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    layout->addWidget(title);
    auto* informative = new QLabel(qs(informativeText), &dialog);
    informative->setTextFormat(Qt::PlainText);
    layout->addWidget(informative);
    auto* field = new QLineEdit(&dialog);
    field->setFixedSize(300, 24);
    layout->addWidget(field);
    auto* buttons = new QDialogButtonBox(&dialog);
    buttons->addButton(QStringLiteral("Ok"), QDialogButtonBox::AcceptRole);
    buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    layout->addWidget(buttons);
    if (dialog.exec() != QDialog::Accepted) {
        return std::nullopt;
    }
    return field->text().toStdString();
}

bool QtMainView::showDriverAlert(const std::string& message, const std::string& informativeText,
                                 const std::string& defaultButton, const std::string& alternateButton)
{
    QMessageBox box(QMessageBox::Warning, window()->windowTitle(), qs(message), QMessageBox::NoButton, this);
    box.setTextFormat(Qt::PlainText);
    box.setInformativeText(qs(informativeText));
    QPushButton* first = box.addButton(qs(defaultButton), QMessageBox::AcceptRole);
    box.addButton(qs(alternateButton), QMessageBox::RejectRole);
    box.exec();
    return box.clickedButton() == first;
}

std::optional<std::string> QtMainView::chooseFirmwareFile()
{
    const QString file = QFileDialog::getOpenFileName(this, QStringLiteral("Choose a firmware file"), QString(),
                                                      QStringLiteral("Firmware (*.hex)"));
    if (file.isEmpty()) {
        return std::nullopt;
    }
    return file.toStdString();
}

void QtMainView::openURL(const std::string& url)
{
    openOnDesktop(QUrl(qs(url)), this);
}

} // namespace quendral::app
