#pragma once
// The main window as a terminal sees it: status texts and alerts are printed
// as lines, progress is a bar on a terminal and percentage lines otherwise,
// questions are asked on the terminal or answered by --yes/--no.
//
// Two streams: what the window shows only while work goes on (status texts,
// progress) goes to `status`, standard error by default; what the user has to
// read or a script wants (alerts, questions, opened URLs) goes to `out`. So
// `quendral-cli ip > settings.txt` keeps only the settings.
#include "controller/main_view.h"

#include <array>
#include <cstdio>
#include <functional>
#include <iosfwd>
#include <mutex>

namespace quendral::cli {

class TerminalMainView final : public MainView {
public:
    enum class Answer { Ask, Yes, No };

    struct Options {
        std::ostream* out = nullptr;    // alerts, questions, URLs (standard output by default)
        std::ostream* status = nullptr; // status texts and progress (standard error by default)
        std::istream* in = nullptr;     // where answers come from
        bool interactive = false;       // `in` and `out` are a terminal: questions are asked
        bool progressBar = false;       // `status` is a terminal: progress is one redrawn bar
        Answer answer = Answer::Ask;    // --yes / --no
        bool desktop = false;           // a desktop session can open URLs
        // Opens a URL on the desktop; true when it was handed over.
        std::function<bool(const std::string&)> openOnDesktop;
        std::optional<std::string> firmwareFile; // what the file panel "chooses"
    };

    explicit TerminalMainView(Options options);

    void setStatusText(const std::string& text) override;
    void setStatusTextWithLink(const std::string& text, std::size_t linkLength, const std::string& url) override;
    void setProgress(double percent) override;
    void startProgressAnimation() override;

    void setControlEnabled(Control control, bool enabled) override;
    [[nodiscard]] bool isControlEnabled(Control control) const override;

    [[nodiscard]] std::vector<std::string> portMenuTitles() const override;
    [[nodiscard]] std::optional<std::string> selectedPortTitle() const override;
    void removeAllPortMenuItems() override;
    void addPortMenuItem(const std::string& title) override;
    void selectPortMenuItem(const std::string& title) override;

    void showAlert(const std::string& message) override;
    bool showDialog(const std::string& message) override;
    std::optional<std::string> askForText(const std::string& message, const std::string& informativeText) override;
    bool showDriverAlert(const std::string& message, const std::string& informativeText,
                         const std::string& defaultButton, const std::string& alternateButton) override;
    std::optional<std::string> chooseFirmwareFile() override;

    void openURL(const std::string& url) override;

    // Every alert shown so far, in order (the exit code depends on them).
    [[nodiscard]] std::vector<std::string> alerts() const;
    [[nodiscard]] std::vector<std::string> statusTexts() const;
    [[nodiscard]] std::vector<std::string> openedURLs() const;

private:
    void endProgressLine();
    void printLine(const std::string& line);
    void printStatusLine(const std::string& line);

    Options _options;
    mutable std::mutex _mutex;
    std::array<bool, kControlCount> _enabled{};
    std::vector<std::string> _titles;
    std::optional<std::string> _selected;
    std::vector<std::string> _alerts;
    std::vector<std::string> _statusTexts;
    std::vector<std::string> _openedURLs;
    int _lastProgress = -1;
    bool _progressLineOpen = false;
};

} // namespace quendral::cli
