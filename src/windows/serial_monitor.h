#pragma once
// The serial monitor window's controller ("SerialMonitorView"): a terminal on
// the Controller's port at 115200 baud, an input line and the Controller's
// service commands.
#include "serial/serial_port.h"

#include <QString>
#include <QTimer>
#include <QWidget>

#include <memory>
#include <optional>

namespace Ui {
class SerialMonitorView;
}
class QAbstractButton;

namespace quendral::windows {

class SerialMonitor final : public QWidget {
    Q_OBJECT
public:
    explicit SerialMonitor(QWidget* parent = nullptr);
    ~SerialMonitor() override;
    SerialMonitor(const SerialMonitor&) = delete;
    SerialMonitor& operator=(const SerialMonitor&) = delete;

    // The line sent for a service button's tag; none for unknown tags.
    static std::optional<std::string> serviceCommandForTag(int tag);
    // How much output the window keeps (older text is dropped).
    static constexpr qsizetype kMaximumCharacters = 256 * 1024;
    // How long received text is gathered before it is drawn.
    static constexpr int kCoalesceMilliseconds = 30;
    // How much of it one turn of the event loop draws at most: a flood is
    // drawn in steps, the event loop turning between them, so that the window
    // keeps answering (one insert of a flood's worth took longer than a frame).
    static constexpr qsizetype kCharactersPerTurn = 32 * 1024;

    void openPort(const std::string& path);
    void openSerial(const std::string& path, unsigned long baudRate);
    [[nodiscard]] bool isSerialOpen() const;
    void closeSerial();

    void inputFieldChanged();
    void buttonCommand(int tag);
    void autoScrollChanged(bool on);
    [[nodiscard]] bool autoScroll() const { return _autoScroll; }

    [[nodiscard]] Ui::SerialMonitorView& ui() const { return *_ui; }
    [[nodiscard]] const SerialPort::Ptr& serial() const { return _serial; }
    // Draws what has been received but not yet drawn (the coalescing timer does it otherwise).
    void flushPendingOutput();

    // Port events, on the main thread.
    void serialPortDidReceiveData(const SerialData& bytes);
    void serialPortDidEncounterError(const SerialError& error);
    void serialPortWasOpened();
    void serialPortWasClosed();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void send(const QString& line);
    // The coalescing timer's work: the next step of what waited when it fired.
    void drawNextStep();
    // Around the steps of a batch: the window paints (and follows the end of
    // the output) once the batch is drawn.
    void beginBatch();
    void finishBatch();
    // Draws up to `limit` characters of the oldest output waiting.
    void drawPendingOutput(qsizetype limit);

    class PortDelegate;
    std::unique_ptr<Ui::SerialMonitorView> _ui;
    std::shared_ptr<PortDelegate> _portDelegate;
    SerialPort::Ptr _serial;
    bool _autoScroll = true;
    QString _pendingOutput;
    // What is left of the batch being drawn in steps (the oldest characters of _pendingOutput).
    qsizetype _batchLeft = 0;
    bool _drawingBatch = false;
    QTimer _flushTimer;
};

} // namespace quendral::windows
