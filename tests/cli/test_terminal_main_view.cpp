#include "terminal_main_view.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

using quendral::cli::TerminalMainView;

namespace {

TerminalMainView::Options options(std::ostringstream& out, std::istringstream& in, bool interactive,
                                  TerminalMainView::Answer answer = TerminalMainView::Answer::Ask)
{
    TerminalMainView::Options o;
    o.out = &out;
    o.status = &out; // one stream: the order of everything shown is what these tests check
    o.in = &in;
    o.interactive = interactive;
    o.progressBar = interactive;
    o.answer = answer;
    return o;
}

} // namespace

TEST(TerminalMainView, StatusTextsArePrintedOnTheirOwnLinesAndEmptyOnesSkipped)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView view(options(out, in, false));
    view.setStatusText("Waiting for device to boot.. (20)");
    view.setStatusText("");
    view.setStatusText("Please wait...");
    EXPECT_EQ(out.str(), "Waiting for device to boot.. (20)\nPlease wait...\n");
    EXPECT_EQ(view.statusTexts().size(), 3U);
}

TEST(TerminalMainView, StatusAndProgressGoToTheStatusStreamAlertsAndURLsToTheOutput)
{
    std::ostringstream out;
    std::ostringstream status;
    std::istringstream in;
    TerminalMainView::Options o;
    o.out = &out;
    o.status = &status;
    o.in = &in;
    o.progressBar = true;
    TerminalMainView view(o);
    view.setStatusText("Waiting for device to boot.. (20)");
    view.setProgress(30);
    view.showAlert("Could not get device IP configuration");
    view.openURL("http://192.168.10.99");
    view.setStatusTextWithLink("A server error occured. Please go to the support website", 15,
                               "https://support.example/");
    EXPECT_EQ(out.str(), "Could not get device IP configuration\nhttp://192.168.10.99\n");
    // The alert ends the open progress bar on its own stream first.
    EXPECT_EQ(status.str(), "Waiting for device to boot.. (20)\n\r[############                            ] 30%\n"
                            "A server error occured. Please go to the support website\n"
                            "  support website: https://support.example/\n");
}

TEST(TerminalMainView, ProgressIsPercentLinesWithoutATerminal)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView view(options(out, in, false));
    view.setProgress(0);
    view.setProgress(40);
    view.setProgress(40);
    view.setProgress(100);
    EXPECT_EQ(out.str(), "Progress: 0%\nProgress: 40%\nProgress: 100%\n");
}

TEST(TerminalMainView, ProgressIsABarOnATerminalAndTheNextLineStartsFresh)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView view(options(out, in, true));
    view.setProgress(50);
    view.setStatusText("Firmware successfully updated!");
    const std::string text = out.str();
    EXPECT_EQ(text.rfind('\r', 0), 0U);
    EXPECT_NE(text.find("] 50%\nFirmware successfully updated!\n"), std::string::npos) << text;
}

TEST(TerminalMainView, AlertsArePrintedVerbatimAndRemembered)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView view(options(out, in, false));
    const std::string message = "The connected controller is not fully registered yet. Please contact QUENDRAL "
                                "Support and include the serial number of the unit, attaching the controller "
                                "identification code:\n\n 0123456789abcdef0123456789abcdef";
    view.showAlert(message);
    EXPECT_EQ(out.str(), message + "\n");
    EXPECT_EQ(view.alerts(), std::vector<std::string>{message});
}

TEST(TerminalMainView, DialogIsAnsweredByYesAndNoOptions)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView yes(options(out, in, false, TerminalMainView::Answer::Yes));
    EXPECT_TRUE(yes.showDialog("Proceed?"));
    TerminalMainView no(options(out, in, true, TerminalMainView::Answer::No));
    EXPECT_FALSE(no.showDialog("Proceed?"));
}

TEST(TerminalMainView, DialogWithoutTerminalAndWithoutOptionIsNo)
{
    std::ostringstream out;
    std::istringstream in("y\n");
    TerminalMainView view(options(out, in, false));
    EXPECT_FALSE(view.showDialog("Proceed?"));
}

TEST(TerminalMainView, DialogOnATerminalReadsTheAnswer)
{
    std::ostringstream out;
    std::istringstream in("y\nn\n");
    TerminalMainView view(options(out, in, true));
    EXPECT_TRUE(view.showDialog("first?"));
    EXPECT_FALSE(view.showDialog("second?"));
    EXPECT_FALSE(view.showDialog("input ended?"));
}

TEST(TerminalMainView, URLIsPrintedWithoutDesktopAndHandedOverWithOne)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView plain(options(out, in, false));
    plain.openURL("https://config.example/?CID=abc");
    EXPECT_EQ(out.str(), "https://config.example/?CID=abc\n");

    std::ostringstream out2;
    auto o = options(out2, in, false);
    o.desktop = true;
    std::string handed;
    o.openOnDesktop = [&](const std::string& url) {
        handed = url;
        return true;
    };
    TerminalMainView desktop(o);
    desktop.openURL("http://192.168.10.99");
    EXPECT_EQ(handed, "http://192.168.10.99");
    EXPECT_EQ(out2.str(), "Opened http://192.168.10.99\n");
}

TEST(TerminalMainView, PortMenuSelectsOnlyListedTitles)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView view(options(out, in, false));
    view.addPortMenuItem("ttyACM0");
    view.selectPortMenuItem("ttyUSB9");
    EXPECT_EQ(view.selectedPortTitle(), std::nullopt);
    view.selectPortMenuItem("ttyACM0");
    EXPECT_EQ(view.selectedPortTitle(), "ttyACM0");
    view.removeAllPortMenuItems();
    EXPECT_TRUE(view.portMenuTitles().empty());
    EXPECT_EQ(view.selectedPortTitle(), std::nullopt);
}

TEST(TerminalMainView, StatusLinesFromSeveralThreadsAreNotInterleaved)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalMainView view(options(out, in, false));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&view, t] {
            for (int i = 0; i < 100; ++i) {
                view.setStatusText("thread " + std::to_string(t) + " line " + std::to_string(i));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::istringstream lines(out.str());
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_EQ(line.rfind("thread ", 0), 0U) << line;
    }
    EXPECT_EQ(count, 400);
}
