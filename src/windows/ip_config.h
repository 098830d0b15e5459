#pragma once
// The IP configuration window's controller ("IPConfig"): shows the network
// settings from a Controller's IP dump, checks every address the user types,
// and writes the settings back with the fixed command sequence.
#include "serial/serial_port.h"

#include <QWidget>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Ui {
class IPConfig;
}
class QCheckBox;
class QLineEdit;

namespace quendral::windows {

class WindowHost;

class IPConfig final : public QWidget {
    Q_OBJECT
public:
    explicit IPConfig(WindowHost& host, QWidget* parent = nullptr);
    ~IPConfig() override;
    IPConfig(const IPConfig&) = delete;
    IPConfig& operator=(const IPConfig&) = delete;

    void setPort(const std::string& path) { _serialPort = path; }
    [[nodiscard]] const std::string& port() const { return _serialPort; }
    void loadData(const std::vector<std::string>& lines);
    void dhcpChanged(bool on);
    // Marks the field red with white text when its address is invalid (in the
    // theme's field colours, with the address normalised, when valid).
    bool verifyIPField(QLineEdit* field);
    void saveSettings();

    [[nodiscard]] Ui::IPConfig& ui() const { return *_ui; }
    [[nodiscard]] const std::vector<QLineEdit*>& ipFields() const { return _ipFields; }
    [[nodiscard]] const std::vector<QCheckBox*>& deviceEnable() const { return _deviceEnable; }

protected:
    void changeEvent(QEvent* event) override;

private:
    void setIPFieldsEnabled(bool enabled);
    // A modal message with one "Ok" button, its text shown as plain text.
    void showAlert(const std::string& message);
    void addDeviceRow(const std::string& label, const std::string& address, bool enabled);

    class PortDelegate;
    WindowHost& _host;
    std::unique_ptr<Ui::IPConfig> _ui;
    std::shared_ptr<PortDelegate> _portDelegate;
    std::vector<QLineEdit*> _ipFields;
    std::vector<QCheckBox*> _deviceEnable;
    std::string _serialPort;
    SerialPort::Ptr _serial;
};

} // namespace quendral::windows
