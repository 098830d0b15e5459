#pragma once
// OwnerFeedback shown in a MainView. The view lives on the main queue: every
// report makes exactly one hop there (an asynchronous one for status texts
// and progress, kept in order; a synchronous one for questions, alerts and
// the start of an upload, which the work waits for).
#include "controller/main_view.h"
#include "controller/owner_feedback.h"

#include <atomic>
#include <memory>

namespace quendral {

class ViewFeedback final : public OwnerFeedback {
public:
    enum class ToolReports {
        // The view takes the tools' status texts and progress from here.
        Shown,
        // The view is told them another way (the window observes the tools'
        // notifications): dropped here, so nothing is shown twice.
        Dropped,
    };

    // `appDelegate` may be null (no serial monitor to close).
    ViewFeedback(MainView& view, ApplicationDelegate* appDelegate, ToolReports toolReports);
    // On the main thread: reports still queued find the view gone.
    ~ViewFeedback() override;
    ViewFeedback(const ViewFeedback&) = delete;
    ViewFeedback& operator=(const ViewFeedback&) = delete;

    void status(std::string text) override;
    void statusWithLink(std::string text, std::size_t linkLength, std::string url) override;
    void alert(const std::string& message) override;
    bool ask(const std::string& message) override;
    void openURL(const std::string& url) override;
    void uploadBegins() override;
    void uploadState(std::string text) override;
    void uploadProgress(int percent) override;

private:
    // Runs `show` on the main queue, later, unless the view has gone by then.
    template <typename Show> void post(Show show);

    MainView& _view;
    ApplicationDelegate* _appDelegate;
    ToolReports _toolReports;
    std::shared_ptr<std::atomic<bool>> _alive = std::make_shared<std::atomic<bool>>(true);
};

} // namespace quendral
