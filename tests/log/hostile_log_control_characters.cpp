// Control characters in a logged text (a server's message, a Controller's
// identifier, a tool's output) reach the log file and its console echo made
// visible: a terminal showing the log, or `tail -f`, runs no escape sequence
// from a peer. Line feeds stay: entries of several lines are described so.
#include "hostile_log.h"

using quendral::Logger;
using namespace quendral::test;

namespace {

const std::string kHostile = std::string("title\x1b]0;pwned\x07 clear\x1b[2J over\rwrite nul") + '\0' + "end";
const std::string kVisible = R"(title\x1b]0;pwned\x07 clear\x1b[2J over\rwrite nul\0end)";

} // namespace

TEST_F(HostileLog, ControlCharactersOfAnEntryAreMadeVisibleInTheFileAndOnTheConsole)
{
    Logger::initLogPath();
    console.str("");
    Logger::log("Custom message: " + kHostile);
    const auto lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines.front().substr(22), "Custom message: " + kVisible);
    EXPECT_NE(console.str().find("Custom message: " + kVisible + "\n"), std::string::npos) << console.str();
    EXPECT_EQ(console.str().find('\x1b'), std::string::npos);
}

TEST_F(HostileLog, LineFeedsAndTabsOfAnEntryStay)
{
    Logger::initLogPath();
    Logger::log("first\n\tsecond");
    const std::string text = readFile(file());
    EXPECT_NE(text.find("] first\n\tsecond\n"), std::string::npos) << text;
}

TEST_F(HostileLog, ToolOutputIsMadeVisibleToo)
{
    Logger::initLogPath();
    Logger::logBuffered("Bossac: " + kHostile);
    Logger::logCurrentBuffer();
    const std::string text = readFile(file());
    EXPECT_NE(text.find("] Bossac: " + kVisible + "\n"), std::string::npos) << text;
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

TEST_F(HostileLog, BytesThatAreNoUtf8AndC1ControlsAreMadeVisible)
{
    Logger::initLogPath();
    // A lone continuation byte, a byte that starts no character, an
    // unfinished character, and CSI as a C1 control (U+009B).
    Logger::log(std::string("a\x80"
                            "b\xff"
                            "c\xc3") +
                "\xc2\x9b" + "2J \xc3\xa9t\xc3\xa9");
    const auto lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines.front().substr(22), R"(a\x80b\xffc\xc3\u009b2J )"
                                        "\xc3\xa9t\xc3\xa9");
}

TEST_F(HostileLog, TheCutCountsTheBytesOfTheMessageNotOfItsEscapes)
{
    Logger::initLogPath();
    Logger::log(std::string(10000, '\x1b'));
    const auto lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), 1U);
    const std::string& line = lines.front();
    EXPECT_LE(line.size(), 22 + kEntryLimit + 40);
    // 4096 bytes of escapes hold 1024 of the message's bytes.
    EXPECT_EQ(line.substr(line.size() - std::string(" (cut, 8976 bytes)").size()), " (cut, 8976 bytes)") << line;
}
