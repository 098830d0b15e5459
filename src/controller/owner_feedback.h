#pragma once
// What the core's long pieces of work (the Controller link, the firmware
// uploader, the update job) tell the owner on the way. Each front end has
// one: the window shows it in its main view, the command line on the terminal.
//
// Threading: called from the background thread the work runs on. status()
// and the upload reports return at once and are shown in the order they were
// made; alert() and ask() block the work until the owner has answered.
#include <cstddef>
#include <string>
#include <utility>

namespace quendral {

class OwnerFeedback {
public:
    virtual ~OwnerFeedback() = default;

    // The one-line status text.
    virtual void status(std::string text) = 0;
    // A status text that says what went wrong. The window shows it like any
    // other; a terminal keeps it when it shows results and errors only.
    virtual void failure(std::string text) { status(std::move(text)); }
    // The server-error text whose last `linkLength` characters link to `url`.
    virtual void statusWithLink(std::string text, std::size_t linkLength, std::string url) = 0;
    // A message with one "Ok" button.
    virtual void alert(const std::string& message) = 0;
    // "Ok"/"Cancel"; true for "Ok".
    virtual bool ask(const std::string& message) = 0;
    // A page for the owner's browser (returns at once).
    virtual void openURL(const std::string& url) = 0;

    // An upload begins: nothing else may hold the port (the serial monitor
    // closes), the progress starts again from 0. Returns once that is done.
    virtual void uploadBegins() = 0;
    // A flashing tool's status line and progress in percent, as it runs.
    virtual void uploadState(std::string text) = 0;
    virtual void uploadProgress(int percent) = 0;
};

} // namespace quendral
