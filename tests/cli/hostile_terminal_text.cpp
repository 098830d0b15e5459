// What the command line prints of a peer's text (an alert with a server's
// message or a Controller's identifier, a status text, a URL built from a
// Controller's address) reaches the terminal with its control characters
// made visible: no title change, no screen clear, no line overwritten.
#include "terminal_feedback.h"

#include <gtest/gtest.h>

#include <sstream>

using quendral::cli::TerminalFeedback;

namespace {

const std::string kHostile = std::string("title\x1b]0;pwned\x07 clear\x1b[2J over\rwrite nul") + '\0' + "end";
const std::string kVisible = R"(title\x1b]0;pwned\x07 clear\x1b[2J over\rwrite nul\0end)";

struct Terminal {
    Terminal()
    {
        TerminalFeedback::Options options;
        options.out = &out;
        options.status = &status;
        options.in = &in;
        options.answer = TerminalFeedback::Answer::No;
        view = std::make_unique<TerminalFeedback>(options);
    }
    std::ostringstream out;
    std::ostringstream status;
    std::istringstream in;
    std::unique_ptr<TerminalFeedback> view;
};

} // namespace

TEST(HostileTerminalText, AnAlertsControlCharactersAreMadeVisible)
{
    Terminal terminal;
    terminal.view->alert(kHostile);
    EXPECT_EQ(terminal.out.str(), kVisible + "\n");
    // What the window would show is kept as it came.
    EXPECT_EQ(terminal.view->alerts(), std::vector<std::string>{kHostile});
}

TEST(HostileTerminalText, TheLineFeedsOfAnAlertStay)
{
    Terminal terminal;
    const std::string alert = "The connected controller is not fully registered yet. Please contact QUENDRAL Support "
                              "and include the serial number of the unit, attaching the controller identification "
                              "code:\n\n \x1b[2JCID";
    terminal.view->alert(alert);
    EXPECT_EQ(terminal.out.str(), alert.substr(0, alert.find('\x1b')) + "\\x1b[2JCID\n");
}

TEST(HostileTerminalText, StatusTextsDialogsAndURLsAreMadeVisible)
{
    Terminal terminal;
    terminal.view->status("Waiting.. " + kHostile);
    (void)terminal.view->ask("Proceed? " + kHostile);
    terminal.view->openURL("http://192.168.10.99\x1b[2J");
    EXPECT_EQ(terminal.status.str(), "Waiting.. " + kVisible + "\n");
    EXPECT_EQ(terminal.out.str(), "Proceed? " + kVisible + "\nAnswered no (--no).\nhttp://192.168.10.99\\x1b[2J\n");
}
