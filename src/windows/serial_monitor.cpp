#include "serial_monitor.h"

#include "controller/controller_port.h"
#include "log/logger.h"
#include "serial_error_text.h"
#include "ui_SerialMonitorView.h"

#include <QAbstractTextDocumentLayout>
#include <QHideEvent>
#include <QPointer>
#include <QScrollBar>
#include <QShowEvent>
#include <QStringDecoder>
#include <QTextCursor>

#include <algorithm>
#include <array>
#include <cerrno>

namespace quendral::windows {

// The port holds its delegate weakly and calls it on the main queue; this
// forwards to the window for as long as the window exists.
class SerialMonitor::PortDelegate final : public SerialPortDelegate {
public:
    explicit PortDelegate(SerialMonitor* monitor) : _monitor(monitor) {}

    [[nodiscard]] bool respondsTo(SerialPortDelegateCallback callback) const override
    {
        switch (callback) {
        case SerialPortDelegateCallback::DidReceiveData:
        case SerialPortDelegateCallback::DidEncounterError:
        case SerialPortDelegateCallback::WasOpened:
        case SerialPortDelegateCallback::WasClosed:
        case SerialPortDelegateCallback::WasRemovedFromSystem:
            return true;
        default:
            return false;
        }
    }
    void serialPortDidReceiveData(const SerialPort::Ptr& /*port*/, const SerialData& data) override
    {
        if (_monitor) {
            _monitor->serialPortDidReceiveData(data);
        }
    }
    void serialPortDidEncounterError(const SerialPort::Ptr& /*port*/, const SerialError& error) override
    {
        if (_monitor) {
            _monitor->serialPortDidEncounterError(error);
        }
    }
    void serialPortWasOpened(const SerialPort::Ptr& /*port*/) override
    {
        if (_monitor) {
            _monitor->serialPortWasOpened();
        }
    }
    void serialPortWasClosed(const SerialPort::Ptr& /*port*/) override
    {
        if (_monitor) {
            _monitor->serialPortWasClosed();
        }
    }
    // Removal needs nothing here: the port list notices it and reopens the
    // monitor on the next device.
    void serialPortWasRemovedFromSystem(const SerialPort::Ptr& /*port*/) override {}

private:
    QPointer<SerialMonitor> _monitor;
};

namespace {

// The service buttons' commands by tag.
constexpr std::array<const char*, 7> kServiceCommands = {"reset", "config", "configd", "clearpresets",
                                                         "debug", "newmac", "ok"};

} // namespace

SerialMonitor::SerialMonitor(QWidget* parent)
    : QWidget(parent), _ui(std::make_unique<Ui::SerialMonitorView>()),
      _portDelegate(std::make_shared<PortDelegate>(this))
{
    _ui->setupUi(this);
    _ui->monitorWindow->setPlainText(QString(QChar(0x00A0)));
    QFont courier(QStringLiteral("Courier"), 10);
    courier.setStyleHint(QFont::TypeWriter);
    // A Controller's output is plain Latin text in a fixed-pitch font: it has
    // nothing to gain from shaping (ligatures, kerning), which took a fifth of
    // drawing it. Scripts that need shaping to be legible still get it.
    courier.setStyleStrategy(QFont::PreferNoShaping);
    _ui->monitorWindow->setFont(courier);
    // Output is never undone; an undo history would keep every chunk (and every
    // trim) of a chatty Controller alive and make each append slower.
    _ui->monitorWindow->setUndoRedoEnabled(false);
    // The Controller's line speed is fixed: the chooser shows it, disabled,
    // rather than offering rates the monitor would not use.
    _ui->baudRate->setCurrentIndex(3);
    _autoScroll = true;
    _ui->autoScrollCheckbox->setChecked(true);

    _flushTimer.setSingleShot(true);
    _flushTimer.setInterval(kCoalesceMilliseconds);
    connect(&_flushTimer, &QTimer::timeout, this, &SerialMonitor::drawNextStep);
    connect(_ui->inputField, &QLineEdit::returnPressed, this, &SerialMonitor::inputFieldChanged);
    connect(_ui->autoScrollCheckbox, &QCheckBox::toggled, this, &SerialMonitor::autoScrollChanged);
    for (QAbstractButton* button : _ui->serviceGroup->findChildren<QAbstractButton*>()) {
        connect(button, &QAbstractButton::clicked, this,
                [this, button] { buttonCommand(button->property("tag").toInt()); });
    }
}

SerialMonitor::~SerialMonitor()
{
    // A monitor that replaced this one in the window shares the port object
    // (one per path) and has made itself its delegate: the port is its now.
    if (_serial && _serial->delegate() == _portDelegate) {
        _serial->setDelegate(nullptr);
        if (_serial->isOpen()) {
            _serial->close();
        }
    }
}

std::optional<std::string> SerialMonitor::serviceCommandForTag(int tag)
{
    if (tag < 0 || static_cast<std::size_t>(tag) >= kServiceCommands.size()) {
        return std::nullopt;
    }
    return std::string(kServiceCommands.at(static_cast<std::size_t>(tag)));
}

void SerialMonitor::openPort(const std::string& path)
{
    if (isSerialOpen()) {
        _serial->close();
    }
    openSerial(path, 115200);
}

void SerialMonitor::openSerial(const std::string& path, unsigned long baudRate)
{
    Logger::log("Opening serial port " + path + " with baud rate " + std::to_string(baudRate));
    _serial = SerialPort::serialPortWithPath(path);
    if (!_serial) {
        return; // the device is gone; the port list reopens the monitor when one comes back
    }
    _serial->setDelegate(_portDelegate);
    openControllerPort(*_serial, baudRate);
}

bool SerialMonitor::isSerialOpen() const
{
    return _serial && _serial->isOpen();
}

void SerialMonitor::closeSerial()
{
    Logger::log("Closing serial port..");
    if (_serial) {
        if (_serial->isOpen()) {
            _serial->close();
        }
        _serial->setDelegate(nullptr);
    }
}

void SerialMonitor::send(const QString& line)
{
    // Text that is not ASCII gives no bytes at all, so nothing goes out.
    const QString text = line + QLatin1Char('\n');
    for (const QChar c : text) {
        if (c.unicode() > 0x7F) {
            _serial->sendData(std::string_view());
            return;
        }
    }
    _serial->sendData(text.toLatin1().toStdString());
}

void SerialMonitor::inputFieldChanged()
{
    if (!isSerialOpen()) {
        return;
    }
    send(_ui->inputField->text());
    _ui->inputField->clear();
}

void SerialMonitor::buttonCommand(int tag)
{
    if (!isSerialOpen()) {
        return;
    }
    if (const auto command = serviceCommandForTag(tag)) {
        send(QString::fromStdString(*command));
    }
}

void SerialMonitor::autoScrollChanged(bool on)
{
    _autoScroll = on;
}

void SerialMonitor::serialPortDidReceiveData(const SerialData& bytes)
{
    // A chunk that is not valid UTF-8 on its own is dropped whole.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(QByteArrayView(bytes.data(), static_cast<qsizetype>(bytes.size())));
    if (decoder.hasError()) {
        return;
    }
    _pendingOutput += text;
    // A flood is drawn a few times a second, not once per chunk. What waits is
    // cut back only once it is twice what the window keeps, so that a flood
    // costs a copy now and then rather than one per chunk.
    if (_pendingOutput.size() > 2 * kMaximumCharacters) {
        _pendingOutput = _pendingOutput.right(kMaximumCharacters);
    }
    if (!_flushTimer.isActive()) {
        _flushTimer.start(kCoalesceMilliseconds);
    }
}

void SerialMonitor::flushPendingOutput()
{
    _flushTimer.stop();
    beginBatch();
    drawPendingOutput(_pendingOutput.size());
    finishBatch();
}

void SerialMonitor::drawNextStep()
{
    if (!_drawingBatch) {
        // What arrives while a batch is drawn waits for the next one.
        _batchLeft = _pendingOutput.size();
        beginBatch();
    }
    const qsizetype before = _pendingOutput.size();
    drawPendingOutput(std::min({kCharactersPerTurn, _batchLeft, before}));
    // Drawing may drop what the window would not keep: that was batch too.
    _batchLeft = std::min(std::max<qsizetype>(0, _batchLeft - (before - _pendingOutput.size())), _pendingOutput.size());
    if (_batchLeft > 0) {
        _flushTimer.start(0);
        return;
    }
    finishBatch();
    if (!_pendingOutput.isEmpty()) {
        _flushTimer.start(kCoalesceMilliseconds);
    }
}

void SerialMonitor::beginBatch()
{
    if (_drawingBatch) {
        return;
    }
    // The steps of a batch are shown as one draw: painting and following the
    // end after each step cost more than the steps themselves.
    _drawingBatch = true;
    _ui->monitorWindow->setUpdatesEnabled(false);
    // The output re-measures its end for the scroll bar whenever its line
    // count changes (it lays out a screenful of the newest lines to do so):
    // a third of a flood's drawing when done after every step. Its layout
    // keeps quiet until the batch is drawn and is then asked once.
    _ui->monitorWindow->document()->documentLayout()->blockSignals(true);
}

void SerialMonitor::finishBatch()
{
    if (!_drawingBatch) {
        return;
    }
    QAbstractTextDocumentLayout* layout = _ui->monitorWindow->document()->documentLayout();
    layout->blockSignals(false);
    Q_EMIT layout->documentSizeChanged(layout->documentSize());
    if (_autoScroll) {
        QScrollBar* bar = _ui->monitorWindow->verticalScrollBar();
        bar->setValue(bar->maximum());
    }
    _drawingBatch = false;
    _batchLeft = 0;
    _ui->monitorWindow->setUpdatesEnabled(true);
}

void SerialMonitor::drawPendingOutput(qsizetype limit)
{
    if (_pendingOutput.isEmpty() || limit <= 0) {
        return;
    }
    QTextDocument* document = _ui->monitorWindow->document();
    QScrollBar* bar = _ui->monitorWindow->verticalScrollBar();
    const int keptPosition = bar->value();
    if (_pendingOutput.size() >= kMaximumCharacters) {
        // More came than the window keeps: the old text would be cut away at once.
        document->clear();
        _pendingOutput = _pendingOutput.right(kMaximumCharacters);
    }
    qsizetype count = std::min(limit, _pendingOutput.size());
    if (count < _pendingOutput.size() && _pendingOutput.at(count - 1).isHighSurrogate()) {
        ++count; // a character outside the BMP stays in one piece
    }
    QTextCursor cursor(document);
    cursor.movePosition(QTextCursor::End);
    if (count == _pendingOutput.size()) {
        cursor.insertText(_pendingOutput);
        _pendingOutput.clear();
    } else {
        cursor.insertText(_pendingOutput.left(count));
        _pendingOutput.remove(0, count);
    }

    // Keep the scroll-back bounded, also when the Controller never sends a line feed.
    const qsizetype length = document->characterCount();
    if (length > kMaximumCharacters) {
        QTextCursor head(document);
        // setPosition jumps there; moving character by character would lay out
        // every line on the way (hundreds of milliseconds in a flood).
        head.setPosition(0);
        head.setPosition(static_cast<int>(length - kMaximumCharacters * 3 / 4), QTextCursor::KeepAnchor);
        head.removeSelectedText();
    }
    if (!_autoScroll) {
        bar->setValue(std::min(keptPosition, bar->maximum()));
    }
}

void SerialMonitor::serialPortDidEncounterError(const SerialError& error)
{
    if (error.code == EBUSY) {
        Logger::log("Serial port error: Resource Busy");
        QPointer<SerialMonitor> self(this);
        const std::string path = error.path;
        QMetaObject::invokeMethod(
            this,
            [self, path] {
                if (self) {
                    self->openSerial(path, 115200);
                }
            },
            Qt::QueuedConnection);
        return;
    }
    Logger::log("Serial port error: " + describe(error));
}

void SerialMonitor::serialPortWasOpened()
{
    Logger::log("Serial port was opened");
}

void SerialMonitor::serialPortWasClosed()
{
    Logger::log("Serial port was closed");
}

void SerialMonitor::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    // A spontaneous show is the window system mapping a minimised window again:
    // the monitor never went away.
    if (event->spontaneous()) {
        return;
    }
    Logger::log("Serial monitor appeared");
}

void SerialMonitor::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    // Minimising the window reaches here as a spontaneous hide. The user still
    // watches the Controller then, and a port closed behind a minimised window
    // would leave a dead monitor when it comes back: only a real close or hide
    // lets the port go.
    if (event->spontaneous()) {
        return;
    }
    Logger::log("Serial monitor disappeared.");
    if (_serial && _serial->isOpen()) {
        _serial->close();
    }
}

} // namespace quendral::windows
