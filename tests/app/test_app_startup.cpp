// The application's start-up as main() runs it: the main view is loaded first
// (whatever its wiring logs comes before the log file is prepared), then the
// log file is prepared and trimmed, then the hyphen line and the banner.
#include "app_window_fixture.h"
#include "platform/app_info.h"

#include <ctime>
#include <fstream>
#include <streambuf>

using namespace quendral;
using namespace quendral::test;

namespace {

const std::string kHyphens(65, '-');

// What the application looked like at the moment a log entry was written.
struct Entry {
    std::string message;
    bool mainViewLoaded = false;
    bool logFilePrepared = false;
};

// A console that hands every complete line to a callback as it is written.
class LineConsole final : public std::streambuf {
public:
    explicit LineConsole(std::function<void(const std::string&)> onLine) : _onLine(std::move(onLine)) {}

protected:
    int_type overflow(int_type c) override
    {
        if (c == traits_type::eof()) {
            return c;
        }
        if (c == '\n') {
            if (!_line.empty()) {
                _onLine(_line);
            }
            _line.clear();
        } else {
            _line += static_cast<char>(c);
        }
        return c;
    }

private:
    std::function<void(const std::string&)> _onLine;
    std::string _line;
};

class StartupTest : public AppWindowTest {
protected:
    void SetUp() override
    {
        AppWindowTest::SetUp();
        // Every entry carries the same, known local time.
        std::tm local{};
        local.tm_year = 2026 - 1900;
        local.tm_mon = 10;
        local.tm_mday = 22;
        local.tm_hour = 15;
        local.tm_min = 4;
        local.tm_sec = 5;
        local.tm_isdst = -1;
        const auto fixed = std::chrono::system_clock::from_time_t(std::mktime(&local));
        Logger::setClock([fixed] { return fixed; });
        Logger::setConsole(&watchingConsole);
    }
    void TearDown() override
    {
        AppWindowTest::TearDown();
        Logger::setClock(nullptr);
    }

    void onConsoleLine(const std::string& line)
    {
        console << line << '\n'; // the fixture's own record
        const auto close = line.find("] ");
        if (line.rfind('[', 0) != 0 || close == std::string::npos) {
            return; // the log file's location, printed by the set-up
        }
        Entry entry;
        entry.message = line.substr(close + 2);
        entry.mainViewLoaded = app && app->mainView() != nullptr && app->mainWindow() != nullptr &&
                               app->mainWindow()->centralWidget() == app->mainView();
        entry.logFilePrepared = !Logger::getLogPath().empty();
        entries.push_back(entry);
    }

    [[nodiscard]] std::vector<std::string> messages() const
    {
        std::vector<std::string> all;
        for (const auto& entry : entries) {
            all.push_back(entry.message);
        }
        return all;
    }

    [[nodiscard]] std::string logFileText() const
    {
        std::ifstream in(Logger::getLogPath(), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    // A log from earlier runs, long enough to be trimmed at start.
    void writeOldLog(int lines) const
    {
        std::filesystem::create_directories(logFolder.path() / "QuendralFirmwareUpdater");
        std::ofstream out(logFolder.path() / "QuendralFirmwareUpdater" / "log.txt", std::ios::binary);
        for (int i = 0; i < lines; ++i) {
            out << "[2026-11-21 09:00:00] earlier run, line " << i << "\n";
        }
    }

    const std::string stamp = "[2026-11-22 15:04:05] ";
    const std::string banner = "Starting QUENDRAL Firmware Updater mac_" + appinfo::shortVersion() + " for macOS";
    std::vector<Entry> entries;
    LineConsole lineConsole{[this](const std::string& line) { onConsoleLine(line); }};
    std::ostream watchingConsole{&lineConsole};
};

class StartupWithoutDriverTest : public StartupTest {
protected:
    // Linux always has the FTDI driver; this machine pretends it has not.
    void beforeLaunch(app::AppDelegate& delegate) override
    {
        delegate.setFTDIDriverCheck([] { return false; });
    }
};

} // namespace

TEST_F(StartupTest, HyphenLineAndBannerFollowTheLogSetUpAndTheMainView)
{
    writeOldLog(600);
    launch();

    const auto all = messages();
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(std::count(all.begin(), all.end(), "FTDI driver not installed"), 0) << "Linux has the driver";
    // The set-up trims the old log, and says so, before the hyphen line.
    const std::vector<std::string> startup(all.begin(), all.begin() + 3);
    EXPECT_EQ(startup, (std::vector<std::string>{"Truncated file to 500 lines", kHyphens, banner}));
    for (const auto& entry : entries) {
        EXPECT_TRUE(entry.mainViewLoaded) << entry.message;
        EXPECT_TRUE(entry.logFilePrepared) << entry.message;
    }

    const std::string text = logFileText();
    const std::string tail = stamp + "Truncated file to 500 lines\n" + stamp + kHyphens + "\n" + stamp + banner + "\n";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    // The trim kept the newest lines and dropped the oldest.
    EXPECT_NE(text.find("earlier run, line 599\n"), std::string::npos);
    EXPECT_EQ(text.find("earlier run, line 0\n"), std::string::npos);
}

TEST_F(StartupTest, FirstStartWritesTheHyphenLineAndTheBannerIntoANewLogFile)
{
    launch();
    EXPECT_EQ(logFileText(), stamp + kHyphens + "\n" + stamp + banner + "\n");
    EXPECT_EQ(Logger::getLogPath(), (logFolder.path() / "QuendralFirmwareUpdater" / "log.txt").string());
    ASSERT_GE(entries.size(), 2U);
    EXPECT_EQ(entries[0].message, kHyphens);
    EXPECT_EQ(entries[1].message, banner);
}

TEST_F(StartupWithoutDriverTest, DriverWarningComesFromTheMainViewBeforeTheLogFileIsPrepared)
{
    QStringList alertTexts;
    QStringList alertDetails;
    QStringList alertButtons;
    QTimer answerer;
    QObject::connect(&answerer, &QTimer::timeout, [&] {
        if (QMessageBox* box = activeMessageBox()) {
            alertTexts << box->text();
            alertDetails << box->informativeText();
            for (QAbstractButton* button : box->buttons()) {
                alertButtons << button->text();
            }
            clickMessageBoxButton("Close");
        }
    });
    answerer.start(10);
    launch();

    const auto all = messages();
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + 3),
              (std::vector<std::string>{"FTDI driver not installed", kHyphens, banner}));
    EXPECT_TRUE(entries[0].mainViewLoaded);
    EXPECT_FALSE(entries[0].logFilePrepared);
    EXPECT_TRUE(entries[1].logFilePrepared);

    EXPECT_EQ(alertTexts, QStringList{"FTDI driver not installed"});
    ASSERT_EQ(alertDetails.size(), 1);
    EXPECT_TRUE(alertDetails.front().startsWith("Please install the USB Serial driver from "));
    EXPECT_EQ(alertButtons, (QStringList{"Go to download", "Close"}));
    EXPECT_TRUE(browser.urls().isEmpty()) << "Close does not open the download page";
    // Written before there was a file to write it to.
    EXPECT_EQ(logFileText(), stamp + kHyphens + "\n" + stamp + banner + "\n");
}
