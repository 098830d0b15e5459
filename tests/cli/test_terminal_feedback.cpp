#include "terminal_feedback.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

using quendral::cli::TerminalFeedback;

namespace {

TerminalFeedback::Options options(std::ostringstream& out, std::istringstream& in, bool interactive,
                                  TerminalFeedback::Answer answer = TerminalFeedback::Answer::Ask)
{
    TerminalFeedback::Options o;
    o.out = &out;
    o.status = &out; // one stream: the order of everything shown is what these tests check
    o.in = &in;
    o.interactive = interactive;
    o.progressBar = interactive;
    o.answer = answer;
    return o;
}

} // namespace

TEST(TerminalFeedback, StatusTextsArePrintedOnTheirOwnLinesAndEmptyOnesSkipped)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback view(options(out, in, false));
    view.status("Waiting for device to boot.. (20)");
    view.status("");
    view.status("Please wait...");
    EXPECT_EQ(out.str(), "Waiting for device to boot.. (20)\nPlease wait...\n");
    EXPECT_EQ(view.statusTexts().size(), 3U);
}

TEST(TerminalFeedback, StatusAndProgressGoToTheStatusStreamAlertsAndURLsToTheOutput)
{
    std::ostringstream out;
    std::ostringstream status;
    std::istringstream in;
    TerminalFeedback::Options o;
    o.out = &out;
    o.status = &status;
    o.in = &in;
    o.progressBar = true;
    TerminalFeedback view(o);
    view.status("Waiting for device to boot.. (20)");
    view.uploadProgress(30);
    view.alert("Could not get device IP configuration");
    view.openURL("http://192.168.10.99");
    view.statusWithLink("A server error occured. Please go to the support website", 15, "https://support.example/");
    EXPECT_EQ(out.str(), "Could not get device IP configuration\nhttp://192.168.10.99\n");
    // The alert ends the open progress bar on its own stream first.
    EXPECT_EQ(status.str(), "Waiting for device to boot.. (20)\n\r[############                            ] 30%\n"
                            "A server error occured. Please go to the support website\n"
                            "  support website: https://support.example/\n");
}

TEST(TerminalFeedback, ProgressIsPercentLinesWithoutATerminal)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback view(options(out, in, false));
    view.uploadProgress(0);
    view.uploadProgress(40);
    view.uploadProgress(40);
    view.uploadProgress(100);
    EXPECT_EQ(out.str(), "Progress: 0%\nProgress: 40%\nProgress: 100%\n");
}

// Into a pipe or a file, an upload's progress is a line at each tenth reached
// (the tools report every chunk: one update once wrote 273 lines).
TEST(TerminalFeedback, ProgressIntoAPipeIsALineAtEachTenthAtMost)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback view(options(out, in, false));
    view.uploadBegins();
    for (int percent = 0; percent <= 100; ++percent) {
        view.uploadProgress(percent);
        view.uploadProgress(percent); // reported twice, shown at most once
    }
    view.uploadProgress(37); // a second bar (the verification) starts lower
    view.uploadProgress(55);
    std::string expected = "Progress: 0%\n";
    for (int tenth = 0; tenth <= 100; tenth += 10) {
        expected += "Progress: " + std::to_string(tenth) + "%\n";
    }
    expected += "Progress: 37%\nProgress: 55%\n";
    EXPECT_EQ(out.str(), expected);
}

// --quiet: results and errors only (failures, the server error, alerts and
// questions); no waiting texts, no tool states, no progress.
TEST(TerminalFeedback, QuietShowsErrorsButNoWaitingTextsAndNoProgress)
{
    std::ostringstream out;
    std::istringstream in;
    auto quiet = options(out, in, false, TerminalFeedback::Answer::No);
    quiet.quiet = true;
    TerminalFeedback view(quiet);
    view.uploadBegins();
    view.status("Waiting for device to boot.. (20)");
    view.uploadState("Writing firmware...");
    view.uploadProgress(50);
    view.uploadState("An error occured during the firmware update");
    view.failure("An error occured during firmware upload.");
    view.statusWithLink("A server error occured. Please go to the support website", 15, "http://support.example/");
    view.alert("Could not get device IP configuration");
    EXPECT_FALSE(view.ask("Proceed?"));
    EXPECT_EQ(out.str(), "An error occured during the firmware update\n"
                         "An error occured during firmware upload.\n"
                         "A server error occured. Please go to the support website\n"
                         "  support website: http://support.example/\n"
                         "Could not get device IP configuration\n"
                         "Proceed?\n"
                         "Answered no (--no).\n");
}

TEST(TerminalFeedback, ProgressIsABarOnATerminalAndTheNextLineStartsFresh)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback view(options(out, in, true));
    view.uploadProgress(50);
    view.status("Firmware successfully updated!");
    const std::string text = out.str();
    EXPECT_EQ(text.rfind('\r', 0), 0U);
    EXPECT_NE(text.find("] 50%\nFirmware successfully updated!\n"), std::string::npos) << text;
}

TEST(TerminalFeedback, AlertsArePrintedVerbatimAndRemembered)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback view(options(out, in, false));
    const std::string message = "The connected controller is not fully registered yet. Please contact QUENDRAL "
                                "Support and include the serial number of the unit, attaching the controller "
                                "identification code:\n\n 0123456789abcdef0123456789abcdef";
    view.alert(message);
    EXPECT_EQ(out.str(), message + "\n");
    EXPECT_EQ(view.alerts(), std::vector<std::string>{message});
}

TEST(TerminalFeedback, DialogIsAnsweredByYesAndNoOptions)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback yes(options(out, in, false, TerminalFeedback::Answer::Yes));
    EXPECT_TRUE(yes.ask("Proceed?"));
    TerminalFeedback no(options(out, in, true, TerminalFeedback::Answer::No));
    EXPECT_FALSE(no.ask("Proceed?"));
}

TEST(TerminalFeedback, DialogWithoutTerminalAndWithoutOptionIsNo)
{
    std::ostringstream out;
    std::istringstream in("y\n");
    TerminalFeedback view(options(out, in, false));
    EXPECT_FALSE(view.ask("Proceed?"));
}

TEST(TerminalFeedback, DialogOnATerminalReadsTheAnswer)
{
    std::ostringstream out;
    std::istringstream in("y\nn\n");
    TerminalFeedback view(options(out, in, true));
    EXPECT_TRUE(view.ask("first?"));
    EXPECT_FALSE(view.ask("second?"));
    EXPECT_FALSE(view.ask("input ended?"));
}

// The intermediate-firmware question already ends in "Proceed?": the prompt
// asks for the answer only, so the question reads once.
TEST(TerminalFeedback, AQuestionOnATerminalIsPrintedOnceWithTheAnswersToType)
{
    std::ostringstream out;
    std::istringstream in("y\n");
    TerminalFeedback view(options(out, in, true));
    const std::string question = "An intermediate software version will be uploaded to your controller, then it will "
                                 "reboot, generate and install the final firmware version. Proceed?";
    EXPECT_TRUE(view.ask(question));
    EXPECT_EQ(out.str(), question + "\n[y/N] ");
}

TEST(TerminalFeedback, URLIsPrintedWithoutDesktopAndHandedOverWithOne)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback plain(options(out, in, false));
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
    TerminalFeedback desktop(o);
    desktop.openURL("http://192.168.10.99");
    EXPECT_EQ(handed, "http://192.168.10.99");
    EXPECT_EQ(out2.str(), "Opened http://192.168.10.99\n");
}

TEST(TerminalFeedback, StatusLinesFromSeveralThreadsAreNotInterleaved)
{
    std::ostringstream out;
    std::istringstream in;
    TerminalFeedback view(options(out, in, false));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&view, t] {
            for (int i = 0; i < 100; ++i) {
                view.status("thread " + std::to_string(t) + " line " + std::to_string(i));
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

TEST(TerminalFeedback, SeveralControllersWriteWholeLinesEachStartingWithItsPort)
{
    // One feedback per Controller, on one shared stream, as `update --all` runs them.
    std::ostringstream out;
    std::istringstream in;
    auto streamLock = std::make_shared<std::mutex>();
    std::vector<std::unique_ptr<TerminalFeedback>> views;
    for (const char* port : {"ttyACM0", "ttyACM1", "ttyUSB0"}) {
        TerminalFeedback::Options o = options(out, in, false);
        o.prefix = std::string(port) + ": ";
        o.streamLock = streamLock;
        views.push_back(std::make_unique<TerminalFeedback>(o));
    }
    std::vector<std::thread> threads;
    for (auto& view : views) {
        threads.emplace_back([&view] {
            for (int i = 0; i < 100; ++i) {
                view->status("Writing firmware...");
                view->uploadProgress(i);
                view->alert("An error occured during firmware upload.");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::istringstream lines(out.str());
    std::map<std::string, int> perPort;
    for (std::string line; std::getline(lines, line);) {
        const std::string port = line.substr(0, line.find(": "));
        const std::string text = line.substr(std::min(line.size(), port.size() + 2));
        EXPECT_TRUE(text == "Writing firmware..." || text == "An error occured during firmware upload." ||
                    text.starts_with("Progress: "))
            << line;
        ++perPort[port];
    }
    // Each port's lines: 100 status texts, 100 alerts, a progress line at each tenth.
    EXPECT_EQ(perPort, (std::map<std::string, int>{{"ttyACM0", 210}, {"ttyACM1", 210}, {"ttyUSB0", 210}}));
}
