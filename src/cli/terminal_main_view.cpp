#include "terminal_main_view.h"

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

TerminalMainView::TerminalMainView(Options options) : _options(std::move(options))
{
    _enabled.fill(true);
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

void TerminalMainView::endProgressLine()
{
    if (_progressLineOpen) {
        *_options.status << '\n';
        _progressLineOpen = false;
    }
}

// Alerts, status texts and URLs carry peer text (a server's message, a
// Controller's identifier or address): printed made visible.
void TerminalMainView::printLine(const std::string& line)
{
    endProgressLine();
    *_options.out << visibleText(line) << '\n' << std::flush;
}

void TerminalMainView::printStatusLine(const std::string& line)
{
    endProgressLine();
    *_options.status << visibleText(line) << '\n' << std::flush;
}

void TerminalMainView::setStatusText(const std::string& text)
{
    std::lock_guard lock(_mutex);
    _statusTexts.push_back(text);
    // The window clears its status line with an empty text; a terminal has nothing to clear.
    if (!text.empty()) {
        printStatusLine(text);
    }
}

void TerminalMainView::setStatusTextWithLink(const std::string& text, std::size_t linkLength, const std::string& url)
{
    std::lock_guard lock(_mutex);
    _statusTexts.push_back(text);
    printStatusLine(text);
    const std::string linked = text.substr(text.size() - std::min(linkLength, text.size()));
    printStatusLine("  " + linked + ": " + url);
}

void TerminalMainView::setProgress(double percent)
{
    std::lock_guard lock(_mutex);
    const int value = std::clamp(static_cast<int>(percent), 0, 100);
    if (value == _lastProgress) {
        return;
    }
    _lastProgress = value;
    if (_options.progressBar) {
        *_options.status << progressBar(value) << std::flush;
        _progressLineOpen = true;
    } else {
        *_options.status << "Progress: " << value << "%\n" << std::flush;
    }
}

void TerminalMainView::startProgressAnimation()
{
    std::lock_guard lock(_mutex);
    _lastProgress = -1;
}

void TerminalMainView::setControlEnabled(Control control, bool enabled)
{
    std::lock_guard lock(_mutex);
    _enabled.at(static_cast<std::size_t>(control)) = enabled;
}

bool TerminalMainView::isControlEnabled(Control control) const
{
    std::lock_guard lock(_mutex);
    return _enabled.at(static_cast<std::size_t>(control));
}

std::vector<std::string> TerminalMainView::portMenuTitles() const
{
    std::lock_guard lock(_mutex);
    return _titles;
}

std::optional<std::string> TerminalMainView::selectedPortTitle() const
{
    std::lock_guard lock(_mutex);
    return _selected;
}

void TerminalMainView::removeAllPortMenuItems()
{
    std::lock_guard lock(_mutex);
    _titles.clear();
    _selected.reset();
}

void TerminalMainView::addPortMenuItem(const std::string& title)
{
    std::lock_guard lock(_mutex);
    _titles.push_back(title);
}

void TerminalMainView::selectPortMenuItem(const std::string& title)
{
    std::lock_guard lock(_mutex);
    if (std::find(_titles.begin(), _titles.end(), title) != _titles.end()) {
        _selected = title;
    }
}

void TerminalMainView::showAlert(const std::string& message)
{
    std::lock_guard lock(_mutex);
    _alerts.push_back(message);
    printLine(message);
}

bool TerminalMainView::showDialog(const std::string& message)
{
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
    *_options.out << "Proceed? [y/N] " << std::flush;
    std::string reply;
    if (!std::getline(*_options.in, reply)) {
        *_options.out << '\n';
        return false;
    }
    return reply == "y" || reply == "Y" || reply == "yes" || reply == "Yes";
}

std::optional<std::string> TerminalMainView::askForText(const std::string& message, const std::string& informativeText)
{
    std::lock_guard lock(_mutex);
    printLine(message);
    printLine(informativeText);
    if (!_options.interactive) {
        return std::nullopt;
    }
    std::string reply;
    if (!std::getline(*_options.in, reply)) {
        return std::nullopt;
    }
    return reply;
}

bool TerminalMainView::showDriverAlert(const std::string& message, const std::string& informativeText,
                                       const std::string& /*defaultButton*/, const std::string& /*alternateButton*/)
{
    std::lock_guard lock(_mutex);
    _alerts.push_back(message);
    printLine(message);
    printLine(informativeText);
    return false;
}

std::optional<std::string> TerminalMainView::chooseFirmwareFile()
{
    std::lock_guard lock(_mutex);
    return _options.firmwareFile;
}

void TerminalMainView::openURL(const std::string& url)
{
    std::lock_guard lock(_mutex);
    _openedURLs.push_back(url);
    if (_options.desktop && _options.openOnDesktop && _options.openOnDesktop(url)) {
        printLine("Opened " + url);
        return;
    }
    printLine(url);
}

std::vector<std::string> TerminalMainView::alerts() const
{
    std::lock_guard lock(_mutex);
    return _alerts;
}

std::vector<std::string> TerminalMainView::statusTexts() const
{
    std::lock_guard lock(_mutex);
    return _statusTexts;
}

std::vector<std::string> TerminalMainView::openedURLs() const
{
    std::lock_guard lock(_mutex);
    return _openedURLs;
}

} // namespace quendral::cli
