#include "ip_config_fixture.h"
#include "ui_IPConfig.h"

#include <QApplication>
#include <QCheckBox>
#include <QImage>
#include <QLineEdit>
#include <QPalette>
#include <QStyle>

using namespace quendral;
using namespace quendral::test;

namespace {

// The colour the field is drawn with at its right end, where no text is.
QColor drawnBackground(QLineEdit* field)
{
    field->ensurePolished();
    const QImage picture = field->grab().toImage();
    return picture.pixelColor(picture.width() - 6, picture.height() / 2);
}

bool isRed(QLineEdit* field)
{
    return drawnBackground(field) == QColor(Qt::red);
}

} // namespace

TEST_F(IPConfigTest, DumpFillsTheFieldsAndOneRowPerDevice)
{
    window.loadData(kDump);
    EXPECT_EQ(window.ui().ipField->text(), "192.168.10.50");
    EXPECT_EQ(window.ui().dnsField->text(), "192.168.10.2");
    ASSERT_EQ(window.ipFields().size(), 2U);
    EXPECT_EQ(window.ipFields()[1]->text(), "192.168.10.61");
    EXPECT_TRUE(window.deviceEnable()[0]->isChecked());
    EXPECT_FALSE(window.deviceEnable()[1]->isChecked());
    EXPECT_FALSE(window.ui().dhcpEnable->isChecked());
    EXPECT_TRUE(window.ui().ipField->isEnabled());
}

TEST_F(IPConfigTest, DhcpDumpDisablesTheFourAddressFields)
{
    window.loadData({"ip;0.0.0.0", "subnet;255.255.255.0", "gateway;0.0.0.0", "dns;0.0.0.0"});
    EXPECT_TRUE(window.ui().dhcpEnable->isChecked());
    for (QLineEdit* field :
         {window.ui().ipField, window.ui().subnetField, window.ui().gatewayField, window.ui().dnsField}) {
        EXPECT_FALSE(field->isEnabled());
    }
}

TEST_F(IPConfigTest, SwitchingDhcpOffProposesTheSameAddressEveryTime)
{
    window.loadData({"ip;0.0.0.0"});
    window.ui().dhcpEnable->click();
    EXPECT_EQ(window.ui().ipField->text(), "192.168.10.99");
    EXPECT_TRUE(window.ui().ipField->isEnabled());
    window.ui().dhcpEnable->click();
    EXPECT_EQ(window.ui().ipField->text(), "0.0.0.0");
    window.ui().ipField->setText("10.1.1.1");
    window.ui().dhcpEnable->click();
    EXPECT_EQ(window.ui().ipField->text(), "192.168.10.99");
}

TEST_F(IPConfigTest, SavingWritesTheExactSequenceAndClosesTheWindow)
{
    window.loadData(kDump);
    window.setPort("/dev/ttyACM0");
    window.ui().ipField->setText("192.168.10.77");
    window.deviceEnable()[1]->setChecked(true);
    window.ui().saveButton->click();

    EXPECT_EQ(savedLines(),
              (std::vector<std::string>{"bulkip", "ip=192.168.10.77", "subnet=255.255.255.0", "gateway=192.168.10.1",
                                        "dns=192.168.10.2", "ipDevice1=192.168.10.60", "enableDevice1=1",
                                        "ipDevice2=192.168.10.61", "enableDevice2=1", "store", "reset"}));
    EXPECT_EQ(host.monitorCloses, 1);
    EXPECT_EQ(host.ipConfigCloses, 1);
    EXPECT_TRUE(logged("User clicked save IP settings"));
    EXPECT_TRUE(logged("Opening serial port /dev/ttyACM0"));
}

TEST_F(IPConfigTest, ZeroDeviceRowsSendsOnlyAddressesStoreAndReset)
{
    window.loadData({"ip;0.0.0.0", "subnet;255.255.255.0", "gateway;192.168.10.1", "dns;192.168.10.2"});
    window.setPort("/dev/ttyACM0");
    window.saveSettings();
    EXPECT_EQ(savedLines(), (std::vector<std::string>{"bulkip", "ip=0.0.0.0", "subnet=255.255.255.0",
                                                      "gateway=192.168.10.1", "dns=192.168.10.2", "store", "reset"}));
}

TEST_F(IPConfigTest, InvalidFieldTurnsRedAndNothingIsSent)
{
    window.loadData(kDump);
    window.setPort("/dev/ttyACM0");
    window.ui().gatewayField->setText("192.168.1.300");
    window.ipFields()[0]->setText("also wrong");
    window.saveSettings();
    EXPECT_TRUE(isRed(window.ui().gatewayField));
    EXPECT_FALSE(isRed(window.ui().ipField));
    EXPECT_FALSE(isRed(window.ipFields()[0])) << "fields after the first bad one are not checked";
    EXPECT_EQ(window.ui().gatewayField->text(), "192.168.1.300");
    EXPECT_EQ(host.ipConfigCloses, 0);
    EXPECT_FALSE(simulator->waitForLine("bulkip", std::chrono::milliseconds(300)));
    EXPECT_EQ(simulator->openCount(), 0);
}

TEST_F(IPConfigTest, ValidFieldIsNormalisedAndLeadingZerosStay)
{
    window.ui().ipField->setText("ip 10.0.0.5x");
    EXPECT_TRUE(window.verifyIPField(window.ui().ipField));
    EXPECT_EQ(window.ui().ipField->text(), "10.0.0.5");
    window.ui().ipField->setText("192.168.001.010");
    EXPECT_TRUE(window.verifyIPField(window.ui().ipField));
    EXPECT_EQ(window.ui().ipField->text(), "192.168.001.010");
    EXPECT_FALSE(isRed(window.ui().ipField));
}

TEST_F(IPConfigTest, PortThatCannotBeOpenedClosesTheWindowSilently)
{
    window.loadData(kDump);
    window.setPort("/dev/ttyACM7");
    window.saveSettings();
    EXPECT_EQ(host.ipConfigCloses, 1);
    EXPECT_EQ(simulator->openCount(), 0);
}

namespace {

// A dark theme for the application while it exists.
class DarkTheme {
public:
    DarkTheme() : _previous(QApplication::palette())
    {
        QPalette dark;
        dark.setColor(QPalette::Window, QColor(0x30, 0x30, 0x30));
        dark.setColor(QPalette::WindowText, QColor(0xee, 0xee, 0xee));
        dark.setColor(QPalette::Base, QColor(0x20, 0x20, 0x20));
        dark.setColor(QPalette::Text, QColor(0xee, 0xee, 0xee));
        dark.setColor(QPalette::Button, QColor(0x38, 0x38, 0x38));
        dark.setColor(QPalette::ButtonText, QColor(0xee, 0xee, 0xee));
        dark.setColor(QPalette::BrightText, QColor(0xff, 0xff, 0xff));
        QApplication::setPalette(dark);
    }
    ~DarkTheme() { QApplication::setPalette(_previous); }
    DarkTheme(const DarkTheme&) = delete;
    DarkTheme& operator=(const DarkTheme&) = delete;

private:
    QPalette _previous;
};

} // namespace

TEST(IPConfigTheme, CheckedFieldsKeepADarkThemesColoursAndInvalidOnesTurnRed)
{
    DarkTheme theme;
    RecordingWindowHost host;
    windows::IPConfig window{host};
    window.loadData(kDump);
    window.show();
    QLineEdit* valid = window.ui().ipField;
    QLineEdit* invalid = window.ui().gatewayField;
    invalid->setText("192.168.1.300");
    EXPECT_TRUE(window.verifyIPField(valid));
    EXPECT_FALSE(window.verifyIPField(invalid));

    const QColor validBackground = drawnBackground(valid);
    EXPECT_LT(validBackground.lightness(), 80) << validBackground.name().toStdString();
    EXPECT_EQ(valid->palette().color(QPalette::Text), QColor(0xee, 0xee, 0xee));
    const QColor invalidBackground = drawnBackground(invalid);
    EXPECT_GT(invalidBackground.red(), 180) << invalidBackground.name().toStdString();
    EXPECT_LT(invalidBackground.green(), 60);
    EXPECT_LT(invalidBackground.blue(), 60);
    EXPECT_EQ(invalid->palette().color(QPalette::Text), QColor(Qt::white));

    // Corrected, the field goes back to the theme's colours.
    invalid->setText("192.168.1.30");
    EXPECT_TRUE(window.verifyIPField(invalid));
    EXPECT_LT(drawnBackground(invalid).lightness(), 80);
}

TEST(IPConfigTheme, CheckedFieldsInALightThemeAreWhiteWithBlackText)
{
    RecordingWindowHost host;
    windows::IPConfig window{host};
    window.show();
    window.ui().ipField->setText("10.0.0.5");
    ASSERT_TRUE(window.verifyIPField(window.ui().ipField));
    EXPECT_EQ(drawnBackground(window.ui().ipField), QApplication::palette().color(QPalette::Base));
    EXPECT_EQ(window.ui().ipField->palette().color(QPalette::Text), QApplication::palette().color(QPalette::Text));
}

TEST_F(IPConfigTest, DeviceAddressFieldsFitTheLongestAddressInTheDesktopsFont)
{
    const QFont desktopFont = QApplication::font();
    for (const int points : {9, 16}) {
        QFont font = desktopFont;
        font.setPointSize(points);
        QApplication::setFont(font);
        RecordingWindowHost rowHost;
        windows::IPConfig sized{rowHost};
        sized.loadData({"dev;1;Light;255.255.255.255;1"});
        sized.show();
        QLineEdit* field = sized.ipFields().at(0);
        // What QLineEdit needs around its text: the frame, and its fixed inner margin of 2 on each side.
        const int frame = field->style()->pixelMetric(QStyle::PM_DefaultFrameWidth, nullptr, field);
        const QMargins margins = field->textMargins();
        const int needed = field->fontMetrics().horizontalAdvance(QStringLiteral("255.255.255.255")) + 2 * frame + 4 +
                           margins.left() + margins.right();
        EXPECT_GE(field->width(), needed) << points << " pt";
        EXPECT_EQ(field->width(), field->minimumWidth()) << "the field does not stretch with the window";
    }
    QApplication::setFont(desktopFont);
}
