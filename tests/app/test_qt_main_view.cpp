#include "controller/view_feedback.h"
#include "qt_main_view.h"
#include "support/gui_test_support.h"
#include "ui_MasterView.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using quendral::Control;
using quendral::ViewFeedback;
using quendral::app::QtMainView;
using namespace quendral::test;

// The core's work talks to the window from its own thread through ViewFeedback,
// which brings each report to the main thread, where the view lives.
TEST(QtMainView, StatusTextSetFromABackgroundThreadAppearsOnTheMainThread)
{
    QtMainView view;
    ViewFeedback feedback(view, nullptr, ViewFeedback::ToolReports::Shown);
    std::thread([&] { feedback.status("Waiting for device to boot.. (20)"); }).join();
    EXPECT_TRUE(spinUntil([&] { return view.ui().uploadState->text() == "Waiting for device to boot.. (20)"; }));
}

TEST(QtMainView, StatusTextWithLinkLinksItsLastCharacters)
{
    QtMainView view;
    view.setStatusTextWithLink("A server error occured. Please go to the support website", 15,
                               "http://support.example/?id=170");
    ASSERT_TRUE(spinUntil([&] { return view.ui().uploadState->textFormat() == Qt::RichText; }));
    const QString html = view.ui().uploadState->text();
    EXPECT_TRUE(html.contains("<a href=\"http://support.example/?id=170\">support website</a>")) << html.toStdString();
    EXPECT_TRUE(html.startsWith("A server error occured. Please go to the ")) << html.toStdString();
}

TEST(QtMainView, AlertFromABackgroundThreadBlocksItUntilOkIsClicked)
{
    QtMainView view;
    view.show();
    std::atomic<bool> returned{false};
    MessageBoxAnswerer answerer("Ok");
    ViewFeedback feedback(view, nullptr, ViewFeedback::ToolReports::Shown);
    std::thread worker([&] {
        feedback.alert("Could not get device IP. Please contact support.");
        returned = true;
    });
    EXPECT_TRUE(spinUntil([&] { return returned.load(); }));
    worker.join();
    ASSERT_EQ(answerer.texts().size(), 1);
    EXPECT_EQ(answerer.texts().front(), "Could not get device IP. Please contact support.");
    EXPECT_EQ(answerer.buttonCounts().front(), 1);
}

TEST(QtMainView, AlertBlocksItsCallerWhileNobodyAnswers)
{
    QtMainView view;
    view.show();
    std::atomic<bool> returned{false};
    ViewFeedback feedback(view, nullptr, ViewFeedback::ToolReports::Shown);
    std::thread worker([&] {
        feedback.alert("Please select a device from the drop-down menu.");
        returned = true;
    });
    // Give the alert time to come up and stay; nobody clicks.
    QTimer::singleShot(300, [] {
        EXPECT_NE(activeMessageBox(), nullptr);
        clickMessageBoxButton("Ok");
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(returned.load());
    EXPECT_TRUE(spinUntil([&] { return returned.load(); }));
    worker.join();
}

TEST(QtMainView, DialogAnswersTrueForOkAndFalseForCancel)
{
    QtMainView view;
    view.show();
    for (const auto& [button, expected] : {std::pair{QString("Ok"), true}, std::pair{QString("Cancel"), false}}) {
        MessageBoxAnswerer answerer(button);
        std::atomic<int> answer{-1};
        ViewFeedback feedback(view, nullptr, ViewFeedback::ToolReports::Shown);
        std::thread worker([&] { answer = feedback.ask("Proceed?") ? 1 : 0; });
        EXPECT_TRUE(spinUntil([&] { return answer.load() != -1; }));
        worker.join();
        EXPECT_EQ(answer.load(), expected ? 1 : 0) << button.toStdString();
        ASSERT_EQ(answerer.buttonCounts().size(), 1U);
        EXPECT_EQ(answerer.buttonCounts().front(), 2);
    }
}

TEST(QtMainView, PortMenuIsReadableFromOtherThreads)
{
    QtMainView view;
    view.addPortMenuItem("ttyACM0");
    view.addPortMenuItem("ttyUSB0");
    EXPECT_EQ(view.selectedPortTitle(), std::nullopt);
    view.selectPortMenuItem("ttyUSB0");
    std::optional<std::string> seen;
    std::vector<std::string> titles;
    std::thread([&] {
        seen = view.selectedPortTitle();
        titles = view.portMenuTitles();
    }).join();
    EXPECT_EQ(seen, "ttyUSB0");
    EXPECT_EQ(titles, (std::vector<std::string>{"ttyACM0", "ttyUSB0"}));
    view.removeAllPortMenuItems();
    EXPECT_EQ(view.selectedPortTitle(), std::nullopt);
    EXPECT_TRUE(view.portMenuTitles().empty());
}

TEST(QtMainView, ControlsAreEnabledAndDisabled)
{
    QtMainView view;
    view.setControlEnabled(Control::UpdatesButton, false);
    EXPECT_FALSE(view.ui().updatesButton->isEnabled());
    EXPECT_FALSE(view.isControlEnabled(Control::UpdatesButton));
    EXPECT_TRUE(view.isControlEnabled(Control::PortMenu));
    view.setControlEnabled(Control::UpdatesButton, true);
    EXPECT_TRUE(view.ui().updatesButton->isEnabled());
}
