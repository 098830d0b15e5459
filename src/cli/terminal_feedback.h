#pragma once
// What the core tells the owner, on a terminal: status texts and alerts are
// printed as lines, progress is a bar on a terminal and percentage lines
// otherwise, questions are asked on the terminal or answered by --yes/--no.
// Safe to call from any thread: each report is printed whole, in call order.
//
// Two streams: what the window shows only while work goes on (status texts,
// progress) goes to `status`, standard error by default; what the user has to
// read or a script wants (alerts, questions, opened URLs) goes to `out`. So
// `quendral-cli ip > settings.txt` keeps only the settings.
#include "controller/owner_feedback.h"

#include <cstdio>
#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral::cli {

class TerminalFeedback final : public OwnerFeedback {
public:
    enum class Answer { Ask, Yes, No };

    struct Options {
        std::ostream* out = nullptr;    // alerts, questions, URLs (standard output by default)
        std::ostream* status = nullptr; // status texts and progress (standard error by default)
        std::istream* in = nullptr;     // where answers come from
        bool interactive = false;       // `in` and `out` are a terminal: questions are asked
        bool progressBar = false;       // `status` is a terminal: progress is one redrawn bar
        Answer answer = Answer::Ask;    // --yes / --no
        bool quiet = false;             // --quiet: results and errors only
        bool desktop = false;           // a desktop session can open URLs
        // Opens a URL on the desktop; true when it was handed over.
        std::function<bool(const std::string&)> openOnDesktop;
        // Several Controllers at once: each has a feedback of its own whose
        // lines start with `prefix` (its port), and all of them share the
        // streams (`streamLock`: whole lines) and the one terminal to ask
        // on (`questionLock`: one question at a time).
        std::string prefix;
        std::shared_ptr<std::mutex> streamLock;
        std::shared_ptr<std::mutex> questionLock;
    };

    explicit TerminalFeedback(Options options);

    void status(std::string text) override;
    void failure(std::string text) override;
    void statusWithLink(std::string text, std::size_t linkLength, std::string url) override;
    void alert(const std::string& message) override;
    bool ask(const std::string& message) override;
    void uploadBegins() override;
    void uploadState(std::string text) override;
    void uploadProgress(int percent) override;

    // Prints the URL, or hands it to the desktop's browser where there is one.
    void openURL(const std::string& url) override;

    // Every alert shown so far, in order (the exit code depends on them).
    [[nodiscard]] std::vector<std::string> alerts() const;
    [[nodiscard]] std::vector<std::string> statusTexts() const;
    [[nodiscard]] std::vector<std::string> openedURLs() const;

private:
    void endProgressLine();
    void printLine(const std::string& line);
    void printStatusLine(const std::string& line);
    // Writes `text` to `stream` whole, among the other Controllers' lines.
    void write(std::ostream& stream, const std::string& text);

    Options _options;
    mutable std::mutex _mutex;
    std::vector<std::string> _alerts;
    std::vector<std::string> _statusTexts;
    std::vector<std::string> _openedURLs;
    int _lastProgress = -1;
    bool _progressLineOpen = false;
};

} // namespace quendral::cli
