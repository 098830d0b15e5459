#include "terminal_feedback.h"

#include "flashing/upload_status.h"
#include "log/visible_text.h"

#include <algorithm>
#include <iostream>
#include <string>

namespace quendral::cli {
namespace {

constexpr int kBarWidth = 40;

std::string progressBar(int percent)
{
    const int filled = percent * kBarWidth / 100;
    return "\r[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(kBarWidth - filled), ' ') + "] " + std::to_string(percent) + "%";
}

} // namespace

TerminalFeedback::TerminalFeedback(Options options) : _options(std::move(options))
{
    if (_options.out == nullptr) {
        _options.out = &std::cout;
    }
    if (_options.status == nullptr) {
        _options.status = &std::cerr;
    }
    if (_options.in == nullptr) {
        _options.in = &std::cin;
    }
}

void TerminalFeedback::write(std::ostream& stream, const std::string& text)
{
    std::unique_lock<std::mutex> lock;
    if (_options.streamLock) {
        lock = std::unique_lock(*_options.streamLock);
    }
    stream << text << std::flush;
}

void TerminalFeedback::endProgressLine()
{
    if (_progressLineOpen) {
        write(*_options.status, "\n");
        _progressLineOpen = false;
    }
}

// Alerts, status texts and URLs carry peer text (a server's message, a
// Controller's identifier or address): printed made visible.
void TerminalFeedback::printLine(const std::string& line)
{
    endProgressLine();
    write(*_options.out, _options.prefix + visibleText(line) + '\n');
}

void TerminalFeedback::printStatusLine(const std::string& line)
{
    endProgressLine();
    write(*_options.status, _options.prefix + visibleText(line) + '\n');
}

void TerminalFeedback::status(std::string text)
{
    std::lock_guard lock(_mutex);
    _statusTexts.push_back(text);
    // The window clears its status line with an empty text; a terminal has nothing to clear.
    if (!text.empty() && !_options.quiet) {
        printStatusLine(text);
    }
}

void TerminalFeedback::failure(std::string text)
{
    std::lock_guard lock(_mutex);
    _statusTexts.push_back(text);
    printStatusLine(text);
}

void TerminalFeedback::statusWithLink(std::string text, std::size_t linkLength, std::string url)
{
    std::lock_guard lock(_mutex);
    _statusTexts.push_back(text);
    printStatusLine(text);
    const std::string linked = text.substr(text.size() - std::min(linkLength, text.size()));
    printStatusLine("  " + linked + ": " + url);
}

void TerminalFeedback::uploadProgress(int percent)
{
    std::lock_guard lock(_mutex);
    const int value = std::clamp(percent, 0, 100);
    if (_options.quiet || value == _lastProgress) {
        return;
    }
    // Lines (a pipe, a file) come at each tenth reached; a bar that starts
    // again lower (the verification after the write) starts its lines again.
    const bool sameTenth = _lastProgress >= 0 && value > _lastProgress && value / 10 == _lastProgress / 10;
    if (!_options.progressBar && sameTenth) {
        return;
    }
    _lastProgress = value;
    if (_options.progressBar) {
        write(*_options.status, progressBar(value));
        _progressLineOpen = true;
    } else {
        write(*_options.status, _options.prefix + "Progress: " + std::to_string(value) + "%\n");
    }
}

// A new upload: the progress goes back to 0 and its next value is shown
// whatever it is (there is no serial monitor to close).
void TerminalFeedback::uploadBegins()
{
    uploadProgress(0);
    std::lock_guard lock(_mutex);
    _lastProgress = -1;
}

void TerminalFeedback::alert(const std::string& message)
{
    std::lock_guard lock(_mutex);
    _alerts.push_back(message);
    printLine(message);
}

bool TerminalFeedback::ask(const std::string& message)
{
    std::unique_lock<std::mutex> oneQuestion;
    if (_options.questionLock) {
        oneQuestion = std::unique_lock(*_options.questionLock);
    }
    std::lock_guard lock(_mutex);
    printLine(message);
    switch (_options.answer) {
    case Answer::Yes:
        printLine("Answered yes (--yes).");
        return true;
    case Answer::No:
        printLine("Answered no (--no).");
        return false;
    case Answer::Ask:
        break;
    }
    if (!_options.interactive) {
        printLine("Answered no: there is no terminal to ask (use --yes to agree).");
        return false;
    }
    write(*_options.out, _options.prefix + "[y/N] ");
    std::string reply;
    if (!std::getline(*_options.in, reply)) {
        write(*_options.out, "\n");
        return false;
    }
    return reply == "y" || reply == "Y" || reply == "yes" || reply == "Yes";
}

void TerminalFeedback::uploadState(std::string text)
{
    if (text == upload::kUpdateFailed) {
        failure(std::move(text));
    } else {
        status(std::move(text));
    }
}

void TerminalFeedback::openURL(const std::string& url)
{
    std::lock_guard lock(_mutex);
    _openedURLs.push_back(url);
    if (_options.desktop && _options.openOnDesktop && _options.openOnDesktop(url)) {
        printLine("Opened " + url);
        return;
    }
    printLine(url);
}

std::vector<std::string> TerminalFeedback::alerts() const
{
    std::lock_guard lock(_mutex);
    return _alerts;
}

std::vector<std::string> TerminalFeedback::statusTexts() const
{
    std::lock_guard lock(_mutex);
    return _statusTexts;
}

std::vector<std::string> TerminalFeedback::openedURLs() const
{
    std::lock_guard lock(_mutex);
    return _openedURLs;
}

} // namespace quendral::cli
