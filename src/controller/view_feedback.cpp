#include "controller/view_feedback.h"

#include "platform/dispatch.h"

namespace quendral {

ViewFeedback::ViewFeedback(MainView& view, ApplicationDelegate* appDelegate, ToolReports toolReports)
    : _view(view), _appDelegate(appDelegate), _toolReports(toolReports)
{
}

ViewFeedback::~ViewFeedback()
{
    _alive->store(false);
}

template <typename Show> void ViewFeedback::post(Show show)
{
    dispatch::mainQueue()->async([alive = _alive, show = std::move(show)] {
        if (alive->load()) {
            show();
        }
    });
}

void ViewFeedback::status(std::string text)
{
    post([this, text = std::move(text)] { _view.setStatusText(text); });
}

void ViewFeedback::statusWithLink(std::string text, std::size_t linkLength, std::string url)
{
    post([this, text = std::move(text), linkLength, url = std::move(url)] {
        _view.setStatusTextWithLink(text, linkLength, url);
    });
}

void ViewFeedback::alert(const std::string& message)
{
    dispatch::mainQueue()->sync([&] { _view.showAlert(message); });
}

bool ViewFeedback::ask(const std::string& message)
{
    bool proceed = false;
    dispatch::mainQueue()->sync([&] { proceed = _view.showDialog(message); });
    return proceed;
}

void ViewFeedback::openURL(const std::string& url)
{
    post([this, url] { _view.openURL(url); });
}

void ViewFeedback::uploadBegins()
{
    dispatch::mainQueue()->sync([this] {
        if (_appDelegate != nullptr) {
            _appDelegate->closeSerialMonitor();
        }
        _view.setProgress(0.0);
        _view.startProgressAnimation();
    });
}

void ViewFeedback::uploadState(std::string text)
{
    if (_toolReports == ToolReports::Shown) {
        status(std::move(text));
    }
}

void ViewFeedback::uploadProgress(int percent)
{
    if (_toolReports == ToolReports::Shown) {
        post([this, percent] { _view.setProgress(percent); });
    }
}

} // namespace quendral
