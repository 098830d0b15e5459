#include "ip_config.h"

#include "controller/ip_settings.h"
#include "controller/ip_settings_writer.h"
#include "log/logger.h"
#include "ui_IPConfig.h"
#include "window_host.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QStyle>
#include <QStyleOptionFrame>

#include <iostream>

namespace quendral::windows {

// The window owns the port only while saving; it needs nothing from it but
// to be its delegate (removal is noticed by the port list).
class IPConfig::PortDelegate final : public SerialPortDelegate {
public:
    [[nodiscard]] bool respondsTo(SerialPortDelegateCallback callback) const override
    {
        return callback == SerialPortDelegateCallback::WasRemovedFromSystem;
    }
    void serialPortWasRemovedFromSystem(const SerialPort::Ptr& /*port*/) override {}
};

namespace {

// Set on a field once it has been checked: whether its address was valid.
const char* const kCheckedValidProperty = "quendralAddressValid";

// A checked field keeps the theme's own field colours (white and black in a
// light theme, and dark in a dark one); an invalid one is red with white text
// in every theme.
QString checkedFieldStyle(bool valid, const QPalette& theme)
{
    const QColor background = valid ? theme.color(QPalette::Base) : QColor(Qt::red);
    const QColor text = valid ? theme.color(QPalette::Text) : QColor(Qt::white);
    return QStringLiteral("QLineEdit { background-color: %1; color: %2; }").arg(background.name(), text.name());
}

// Wide enough for the longest address in the field's own font, with room for
// the cursor after it.
int addressFieldWidth(const QLineEdit& field)
{
    const QFontMetrics metrics = field.fontMetrics();
    const QMargins margins = field.textMargins();
    // QLineEdit keeps a fixed inner margin of 2 on each side of its text.
    const QSize text(metrics.horizontalAdvance(QStringLiteral("255.255.255.255")) + metrics.averageCharWidth() + 4 +
                         margins.left() + margins.right(),
                     metrics.height());
    QStyleOptionFrame option;
    option.initFrom(&field);
    option.lineWidth = field.style()->pixelMetric(QStyle::PM_DefaultFrameWidth, &option, &field);
    return field.style()->sizeFromContents(QStyle::CT_LineEdit, &option, text, &field).width();
}

} // namespace

IPConfig::IPConfig(WindowHost& host, QWidget* parent)
    : QWidget(parent), _host(host), _ui(std::make_unique<Ui::IPConfig>()),
      _portDelegate(std::make_shared<PortDelegate>())
{
    _ui->setupUi(this);
    connect(_ui->dhcpEnable, &QCheckBox::clicked, this, [this](bool on) { dhcpChanged(on); });
    connect(_ui->saveButton, &QPushButton::clicked, this, [this] { saveSettings(); });
    for (QLineEdit* field : {_ui->ipField, _ui->subnetField, _ui->gatewayField, _ui->dnsField}) {
        connect(field, &QLineEdit::editingFinished, this, [this, field] { verifyIPField(field); });
    }
}

IPConfig::~IPConfig() = default;

void IPConfig::addDeviceRow(const std::string& label, const std::string& address, bool enabled)
{
    auto* row = new QWidget(_ui->stackViewHost);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* name = new QLabel(QString::fromStdString(label), row);
    name->setTextFormat(Qt::PlainText); // the Controller's text, never markup
    name->setFixedWidth(140);
    auto* field = new QLineEdit(QString::fromStdString(address), row);
    field->resize(100, 20);
    field->setFixedWidth(addressFieldWidth(*field));
    auto* enable = new QCheckBox(QStringLiteral("Enabled"), row);
    enable->setChecked(enabled);
    layout->addWidget(name);
    layout->addWidget(field);
    layout->addWidget(enable);
    layout->addStretch(1);
    connect(field, &QLineEdit::editingFinished, this, [this, field] { verifyIPField(field); });
    _ipFields.push_back(field);
    _deviceEnable.push_back(enable);
    // Rows go above the spacer that keeps them at the top.
    _ui->stackView->insertWidget(_ui->stackView->count() - 1, row);
}

void IPConfig::loadData(const std::vector<std::string>& lines)
{
    const auto dump = ipsettings::parseIpDump(lines);
    if (dump.ip) {
        _ui->ipField->setText(QString::fromStdString(*dump.ip));
    }
    if (dump.subnet) {
        _ui->subnetField->setText(QString::fromStdString(*dump.subnet));
    }
    if (dump.gateway) {
        _ui->gatewayField->setText(QString::fromStdString(*dump.gateway));
    }
    if (dump.dns) {
        _ui->dnsField->setText(QString::fromStdString(*dump.dns));
    }
    for (const auto& device : dump.devices) {
        addDeviceRow(device.label, device.address, device.enabled);
    }
    const bool dhcp = _ui->ipField->text() == QLatin1String(ipsettings::IpDump::kDhcpAddress);
    setIPFieldsEnabled(!dhcp);
    _ui->dhcpEnable->setChecked(dhcp);
}

void IPConfig::setIPFieldsEnabled(bool enabled)
{
    for (QLineEdit* field : {_ui->ipField, _ui->subnetField, _ui->gatewayField, _ui->dnsField}) {
        field->setEnabled(enabled);
    }
}

void IPConfig::dhcpChanged(bool on)
{
    _ui->ipField->setText(QLatin1String(on ? ipsettings::IpDump::kDhcpAddress : ipsettings::kSuggestedStaticAddress));
    setIPFieldsEnabled(!on);
}

bool IPConfig::verifyIPField(QLineEdit* field)
{
    const auto address = ipsettings::verifyIP(field->text().toStdString());
    field->setProperty(kCheckedValidProperty, address.has_value());
    field->setStyleSheet(checkedFieldStyle(address.has_value(), palette()));
    if (address) {
        field->setText(QString::fromStdString(*address));
    } else {
        // The system log: the log file is for what the user did, not what they typed.
        std::cerr << "Invalid: " << field->text().toStdString() << std::endl;
    }
    field->clearFocus();
    if (QWidget* focused = window()->focusWidget()) {
        focused->clearFocus();
    }
    return address.has_value();
}

void IPConfig::changeEvent(QEvent* event)
{
    // The desktop switched themes: checked fields follow.
    if (event->type() == QEvent::PaletteChange) {
        for (auto* field : findChildren<QLineEdit*>()) {
            const QVariant valid = field->property(kCheckedValidProperty);
            if (valid.isValid()) {
                field->setStyleSheet(checkedFieldStyle(valid.toBool(), palette()));
            }
        }
    }
    QWidget::changeEvent(event);
}

void IPConfig::saveSettings()
{
    Logger::log("User clicked save IP settings");
    _host.closeSerialMonitor();

    std::vector<QLineEdit*> fields = {_ui->ipField, _ui->subnetField, _ui->gatewayField, _ui->dnsField};
    fields.insert(fields.end(), _ipFields.begin(), _ipFields.end());
    for (QLineEdit* field : fields) {
        if (!verifyIPField(field)) {
            return; // the first bad field stays red; nothing is sent
        }
    }

    ipsettings::Settings settings{_ui->ipField->text().toStdString(),
                                  _ui->subnetField->text().toStdString(),
                                  _ui->gatewayField->text().toStdString(),
                                  _ui->dnsField->text().toStdString(),
                                  {}};
    for (std::size_t i = 0; i < _ipFields.size(); ++i) {
        settings.devices.push_back({_ipFields[i]->text().toStdString(), _deviceEnable[i]->isChecked()});
    }
    const auto written = ipsettings::writeSettings(_serialPort, settings, _portDelegate);
    _serial = written.port;
    if (written.outcome == ipsettings::WriteResult::Outcome::LineFailed) {
        showAlert(written.failureText());
    }
    _host.closeIPConfig();
}

void IPConfig::showAlert(const std::string& message)
{
    QMessageBox box(QMessageBox::NoIcon, window()->windowTitle(), QString::fromStdString(message),
                    QMessageBox::NoButton, this);
    box.setTextFormat(Qt::PlainText);
    box.addButton(QStringLiteral("Ok"), QMessageBox::AcceptRole);
    box.exec();
}

} // namespace quendral::windows
