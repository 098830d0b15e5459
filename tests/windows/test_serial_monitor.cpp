#include "support/device_window_fixture.h"
#include "ui_SerialMonitorView.h"
#include "windows/serial_monitor.h"

#include <QAbstractItemView>
#include <QComboBox>
#include <QPlainTextEdit>
#include <QScrollBar>
#include <QTest>
#include <QTextBlock>
#include <QTextDocument>
#include <QTimer>

#include <algorithm>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace quendral::test;
using quendral::windows::SerialMonitor;

namespace {

class SerialMonitorTest : public DeviceWindowTest {
protected:
    void openMonitor()
    {
        monitor.show();
        monitor.openPort("/dev/ttyACM0");
        ASSERT_TRUE(monitor.isSerialOpen());
        ASSERT_TRUE(simulator->waitForPortOpen(true, std::chrono::seconds(5)));
    }

    QString shownText()
    {
        monitor.flushPendingOutput();
        // toPlainText() would turn the no-break space into a plain one; the raw
        // text keeps it but shows line breaks as paragraph separators.
        return monitor.ui().monitorWindow->document()->toRawText().replace(QChar::ParagraphSeparator, '\n');
    }

    // What a chatty Controller sends: `count` numbered status lines.
    static QString statusLines(int count, const QString& lineEnd)
    {
        QString lines;
        for (int i = 0; i < count; ++i) {
            lines += QStringLiteral("%1 sensor=%2 temp=21.%3 relay=on link=up")
                         .arg(i, 6, 10, QChar('0'))
                         .arg(i * 7)
                         .arg(i % 10) +
                     lineEnd;
        }
        return lines;
    }

    // Hands `text` to the window as the port does: in chunks of 1024 bytes.
    void receiveInChunks(const QString& text)
    {
        const QByteArray bytes = text.toUtf8();
        for (qsizetype offset = 0; offset < bytes.size(); offset += 1024) {
            const QByteArray chunk = bytes.mid(offset, 1024);
            monitor.serialPortDidReceiveData(quendral::SerialData(chunk.begin(), chunk.end()));
        }
    }

    SerialMonitor monitor;
};

} // namespace

TEST_F(SerialMonitorTest, StartsWithANoBreakSpaceAtThe115200Entry)
{
    EXPECT_EQ(shownText(), QString(QChar(0x00A0)));
    EXPECT_EQ(monitor.ui().baudRate->currentIndex(), 3);
    EXPECT_TRUE(monitor.autoScroll());
}

TEST_F(SerialMonitorTest, ShowsItsFixedBaudRateInsteadOfOfferingAChoice)
{
    monitor.show();
    QComboBox* chooser = monitor.ui().baudRate;
    EXPECT_EQ(chooser->currentText(), "115200 baud");
    EXPECT_FALSE(chooser->isEnabled());
    EXPECT_EQ(chooser->toolTip(), "The serial monitor always runs at 115200 baud.");
    // A click opens no list of other rates.
    QTest::mouseClick(chooser, Qt::LeftButton);
    EXPECT_FALSE(chooser->view()->isVisible());
}

TEST_F(SerialMonitorTest, OpensAt115200WithItsLogLines)
{
    openMonitor();
    EXPECT_EQ(device->speed(), 115200UL);
    EXPECT_TRUE(device->lines().dtr);
    EXPECT_TRUE(device->lines().rts);
    EXPECT_TRUE(spinUntil([&] { return logged("Serial port was opened"); }));
    EXPECT_TRUE(logged("Opening serial port /dev/ttyACM0 with baud rate 115200"));
    EXPECT_TRUE(logged("Serial monitor appeared"));
}

TEST_F(SerialMonitorTest, AnswerInTwoChunksIsShownJoined)
{
    openMonitor();
    simulator->sendRaw("VERSION:");
    ASSERT_TRUE(spinUntil([&] { return shownText().endsWith("VERSION:"); }));
    simulator->sendRaw("2.4.1\n");
    EXPECT_TRUE(spinUntil([&] { return shownText() == QString(QChar(0x00A0)) + "VERSION:2.4.1\n"; }))
        << shownText().toStdString();
}

TEST_F(SerialMonitorTest, ChunkThatIsNotUtf8IsDroppedWhole)
{
    openMonitor();
    simulator->sendRaw("ab\xff\xfe");
    spinUntil([] { return false; }, std::chrono::milliseconds(300));
    simulator->sendRaw("ok\n");
    ASSERT_TRUE(spinUntil([&] { return shownText().endsWith("ok\n"); }));
    EXPECT_FALSE(shownText().contains("ab")) << shownText().toStdString();
}

TEST_F(SerialMonitorTest, EnteringAWordSendsItWithALineFeedAndEmptiesTheField)
{
    openMonitor();
    monitor.ui().inputField->setText("getVersion");
    QTest::keyClick(monitor.ui().inputField, Qt::Key_Return);
    EXPECT_TRUE(simulator->waitForLine("getVersion", std::chrono::seconds(5)));
    EXPECT_TRUE(monitor.ui().inputField->text().isEmpty());
}

TEST_F(SerialMonitorTest, WithThePortClosedNothingIsSentAndTheTextStays)
{
    monitor.ui().inputField->setText("getVersion");
    QTest::keyClick(monitor.ui().inputField, Qt::Key_Return);
    EXPECT_EQ(monitor.ui().inputField->text(), "getVersion");
    EXPECT_FALSE(simulator->waitForLine("getVersion", std::chrono::milliseconds(300)));
}

TEST_F(SerialMonitorTest, ServiceButtonsSendTheirCommandsByTag)
{
    openMonitor();
    const std::vector<std::pair<QString, std::string>> buttons = {{"resetButton", "reset"},
                                                                  {"configButton", "config"},
                                                                  {"configdButton", "configd"},
                                                                  {"clearPresetsButton", "clearpresets"},
                                                                  {"debugButton", "debug"},
                                                                  {"newMacButton", "newmac"},
                                                                  {"okButton", "ok"}};
    for (const auto& [name, command] : buttons) {
        auto* button = monitor.findChild<QPushButton*>(name);
        ASSERT_NE(button, nullptr) << name.toStdString();
        button->click();
        EXPECT_TRUE(simulator->waitForLine(command, std::chrono::seconds(5))) << command;
    }
    EXPECT_EQ(SerialMonitor::serviceCommandForTag(6), "ok");
    EXPECT_EQ(SerialMonitor::serviceCommandForTag(7), std::nullopt);
    const auto before = simulator->receivedLines().size();
    monitor.buttonCommand(7);
    spinUntil([] { return false; }, std::chrono::milliseconds(200));
    EXPECT_EQ(simulator->receivedLines().size(), before);
}

TEST_F(SerialMonitorTest, WithAutoScrollOffNewOutputDoesNotMoveTheView)
{
    monitor.resize(600, 300);
    openMonitor();
    std::string lots;
    for (int i = 0; i < 200; ++i) {
        lots += "line " + std::to_string(i) + "\n";
    }
    simulator->sendRaw(lots);
    ASSERT_TRUE(spinUntil([&] { return shownText().contains("line 199"); }));
    QScrollBar* bar = monitor.ui().monitorWindow->verticalScrollBar();
    EXPECT_EQ(bar->value(), bar->maximum());

    monitor.ui().autoScrollCheckbox->click();
    EXPECT_FALSE(monitor.autoScroll());
    bar->setValue(10);
    simulator->sendRaw(lots);
    ASSERT_TRUE(spinUntil([&] { return shownText().count("line 199") == 2; }));
    EXPECT_EQ(bar->value(), 10);
}

TEST_F(SerialMonitorTest, LongOutputWithoutLineFeedsIsCapped)
{
    openMonitor();
    const std::string block(64 * 1024, 'x');
    for (int i = 0; i < 8; ++i) {
        simulator->sendRaw(block);
    }
    simulator->sendRaw("END");
    ASSERT_TRUE(spinUntil([&] { return shownText().endsWith("END"); }, std::chrono::seconds(20)));
    EXPECT_LE(monitor.ui().monitorWindow->document()->characterCount(), SerialMonitor::kMaximumCharacters + 1);
}

TEST_F(SerialMonitorTest, AFloodIsDrawnInBoundedStepsAndKeepsTheNewestTextInOrder)
{
    // A flood gathers a lot of text between two draws. Inserting it all in one
    // go kept the event loop from its turn for longer than a frame; the window
    // draws it in bounded steps, with the event loop turning between them, and
    // ends up with the newest text in order, no more than it keeps.
    monitor.resize(600, 300);
    monitor.show();
    const QString all = statusLines(6000, QStringLiteral("\n"));
    qsizetype largestInsert = 0;
    QObject::connect(monitor.ui().monitorWindow->document(), &QTextDocument::contentsChange,
                     [&](int /*position*/, int /*removed*/, int added) {
                         largestInsert = std::max<qsizetype>(largestInsert, added);
                     });
    int turns = 0;
    int changesSeenByTurns = 0;
    qsizetype lastLength = -1;
    QTimer turn;
    QObject::connect(&turn, &QTimer::timeout, [&] {
        ++turns;
        const qsizetype length = monitor.ui().monitorWindow->document()->characterCount();
        if (length != lastLength) {
            ++changesSeenByTurns;
            lastLength = length;
        }
    });
    turn.start(0);
    receiveInChunks(all);
    const QString last = all.right(60);
    ASSERT_TRUE(spinUntil([&] { return monitor.ui().monitorWindow->document()->toPlainText().endsWith(last); }));
    turn.stop();

    EXPECT_LE(largestInsert, 64 * 1024);
    EXPECT_GE(changesSeenByTurns, 3) << "turns " << turns;
    const QString shown = shownText();
    EXPECT_LE(monitor.ui().monitorWindow->document()->characterCount(), SerialMonitor::kMaximumCharacters + 1);
    EXPECT_GE(shown.size(), SerialMonitor::kMaximumCharacters / 2);
    EXPECT_TRUE(all.endsWith(shown)) << "the shown text is not the newest text in order";
}

TEST_F(SerialMonitorTest, BusyPortIsOpenedAgainOnceItIsFree)
{
    // Another program holds the port.
    const int holder = ::open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);

    monitor.show();
    monitor.openPort("/dev/ttyACM0");
    EXPECT_FALSE(monitor.isSerialOpen());
    ASSERT_TRUE(spinUntil([&] { return logged("Serial port error: Resource Busy"); }));

    ::flock(holder, LOCK_UN);
    ::close(holder);
    EXPECT_TRUE(spinUntil([&] { return monitor.isSerialOpen(); }));
    EXPECT_EQ(device->speed(), 115200UL);
}

TEST_F(SerialMonitorTest, HidingTheWindowClosesThePort)
{
    openMonitor();
    monitor.hide();
    EXPECT_TRUE(spinUntil([&] { return !monitor.isSerialOpen(); }));
    EXPECT_TRUE(logged("Serial monitor disappeared."));
    EXPECT_TRUE(spinUntil([&] { return logged("Serial port was closed"); }));
}

TEST_F(SerialMonitorTest, CloseSerialLogsAndClosesThePort)
{
    openMonitor();
    monitor.closeSerial();
    EXPECT_TRUE(spinUntil([&] { return !monitor.isSerialOpen(); }));
    EXPECT_TRUE(logged("Closing serial port.."));
    // The monitor lets go of the port as it closes it.
    EXPECT_EQ(monitor.serial()->delegate(), nullptr);
}

TEST_F(SerialMonitorTest, AFloodBatchSetsTheScrollBarOnceAndEndsAtTheNewestLine)
{
    // Each step of a batch used to make the output re-measure its end (laying
    // out a screenful of new lines) and set its scroll bar, though nothing is
    // shown before the batch is drawn: the batch does that once, at its end.
    monitor.resize(600, 300);
    monitor.show();
    QPlainTextEdit* output = monitor.ui().monitorWindow;
    int steps = 0;
    QObject::connect(output->document(), &QTextDocument::contentsChange,
                     [&](int /*position*/, int /*removed*/, int added) { steps += added > 0 ? 1 : 0; });
    int rangeChanges = 0;
    QObject::connect(output->verticalScrollBar(), &QScrollBar::rangeChanged, [&] { ++rangeChanges; });
    receiveInChunks(statusLines(3000, QStringLiteral("\r\n")));
    const QString last = QStringLiteral("002999 sensor=20993 temp=21.9 relay=on link=up");
    ASSERT_TRUE(spinUntil([&] { return output->document()->toPlainText().endsWith(last + "\n"); }));
    QTest::qWait(50);

    EXPECT_GE(steps, 5) << "the batch was not drawn in steps";
    EXPECT_LE(rangeChanges, 2) << "over " << steps << " steps";
    // Following the output, the window shows its newest line at the bottom.
    EXPECT_EQ(output->verticalScrollBar()->value(), output->verticalScrollBar()->maximum());
    const QTextCursor bottom = output->cursorForPosition(QPoint(5, output->viewport()->height() - 8));
    EXPECT_GE(bottom.blockNumber(), output->document()->blockCount() - 2);
    EXPECT_EQ(output->document()->findBlockByNumber(output->document()->blockCount() - 2).text(), last);
}

TEST_F(SerialMonitorTest, ShowsTheOutputInAFixedPitchFontThatSkipsShapingLatinTextNeedsNot)
{
    const QFont font = monitor.ui().monitorWindow->font();
    EXPECT_TRUE(QFontInfo(font).fixedPitch()) << font.family().toStdString();
    EXPECT_TRUE(font.styleStrategy() & QFont::PreferNoShaping);
    // The Controller's lines still take one fixed-width cell per character.
    const QFontMetricsF metrics(font);
    EXPECT_DOUBLE_EQ(metrics.horizontalAdvance(QStringLiteral("ffi fl ->")),
                     9 * metrics.horizontalAdvance(QLatin1Char('m')));
}
