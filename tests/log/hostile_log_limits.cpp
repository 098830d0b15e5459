// The log file against text of any size: an entry is cut to a few kilobytes
// with a visible note, the file is bounded in bytes as well as in lines when
// a run starts, and a flashing tool's output is bounded too.
#include "hostile_log.h"

using quendral::Logger;
using namespace quendral::test;

// --- one entry -----------------------------------------------------------------

TEST_F(HostileLog, AnEntryLongerThanTheLimitIsCutWithAVisibleNote)
{
    Logger::initLogPath();
    const std::string message(10 * 1024 * 1024, 'x');
    console.str("");
    Logger::log(message);

    const auto lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), 1U);
    const std::string& line = lines.front();
    EXPECT_LE(line.size(), 22 + kEntryLimit + 40);
    const std::string note = kCutMark + std::to_string(message.size() - kEntryLimit) + " bytes)";
    ASSERT_GE(line.size(), note.size());
    EXPECT_EQ(line.substr(line.size() - note.size()), note);
    EXPECT_EQ(line.substr(22, kEntryLimit), std::string(kEntryLimit, 'x'));
    // The console sees the same entry.
    EXPECT_LE(console.str().size(), 22 + kEntryLimit + 42);
    EXPECT_NE(console.str().find(note), std::string::npos);
}

TEST_F(HostileLog, AnEntryAtTheLimitIsKeptWhole)
{
    Logger::initLogPath();
    Logger::log(std::string(kEntryLimit, 'y'));
    const auto lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines.front().substr(22), std::string(kEntryLimit, 'y'));
}

TEST_F(HostileLog, TheCutNeverSplitsACharacter)
{
    Logger::initLogPath();
    std::string message = "a";
    for (int i = 0; i < 3000; ++i) {
        message += "\xC3\xA9"; // é, two bytes: the limit falls inside one
    }
    Logger::log(message);
    const std::string text = readFile(file());
    EXPECT_TRUE(isValidUtf8(text));
    EXPECT_NE(text.find(kCutMark), std::string::npos);
}

// --- the start-of-run trim ---------------------------------------------------------

TEST_F(HostileLog, AFewHugeLinesAreTrimmedToTheByteBound)
{
    // What an unbounded entry used to leave: three lines, one of them 5 MB.
    const std::string huge = "[2026-01-01 00:00:00] " + std::string(5 * 1024 * 1024, 'h') + "\n";
    const std::string tail = "[2026-01-01 00:00:01] the last entry of the run\n";
    writeFile(file(), "[2026-01-01 00:00:00] first\n" + huge + tail);

    Logger::initLogPath();
    const std::string text = readFile(file());
    EXPECT_LE(text.size(), kFileLimit + 200);
    const auto lines = linesOf(text);
    ASSERT_GE(lines.size(), 3U) << text.substr(0, 200);
    EXPECT_EQ(lines[0], ""); // the cut keeps the newline it was made at, as the line trim does
    EXPECT_EQ(lines[1] + "\n", tail);
    EXPECT_TRUE(std::regex_match(lines[2], entry("Truncated file to 1048576 bytes"))) << lines[2];
    EXPECT_EQ(text.find(std::string(100, 'h')), std::string::npos);
}

TEST_F(HostileLog, FiveHundredLongLinesAreTrimmedFurtherToTheByteBound)
{
    std::string old;
    for (int i = 0; i < 600; ++i) {
        old += "[2026-01-01 00:00:00] " + std::to_string(i) + " " + std::string(4000, 'l') + "\n";
    }
    writeFile(file(), old);
    Logger::initLogPath();
    const std::string text = readFile(file());
    EXPECT_LE(text.size(), kFileLimit + 200);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.front(), '\n');
    const auto lines = linesOf(text);
    ASSERT_GE(lines.size(), 3U);
    // Whole lines only, the newest kept, and the note of the cut last.
    EXPECT_EQ(lines[lines.size() - 2], "[2026-01-01 00:00:00] 599 " + std::string(4000, 'l'));
    for (std::size_t i = 1; i + 1 < lines.size(); ++i) {
        EXPECT_EQ(lines[i].size(), 22 + 4 + 4000) << "line " << i;
    }
    EXPECT_TRUE(std::regex_match(lines.back(), entry("Truncated file to 1048576 bytes"))) << lines.back();
}

TEST_F(HostileLog, ASmallFileOfManyLinesIsStillTrimmedTo500Lines)
{
    std::string old;
    for (int i = 0; i < 600; ++i) {
        old += "[2026-01-01 00:00:00] line " + std::to_string(i) + "\n";
    }
    writeFile(file(), old);
    Logger::initLogPath();
    const auto lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), 503U);
    EXPECT_EQ(lines[0], "");
    EXPECT_EQ(lines[1], "[2026-01-01 00:00:00] line 99");
    EXPECT_TRUE(std::regex_match(lines.back(), entry("Truncated file to 500 lines")));
}

// --- the tool-output buffer ----------------------------------------------------------

TEST_F(HostileLog, ToolOutputKeepsItsStartAndItsEndWithinABound)
{
    Logger::initLogPath();
    Logger::logBuffered("Bossac: the first chunk");
    for (int i = 0; i < 20000; ++i) {
        Logger::logBuffered("Bossac: [==============================] " + std::to_string(i) + "% of the pages");
    }
    Logger::logBuffered("Bossac: Verify failed");
    EXPECT_LE(Logger::logBuffer().size(), 64U * 1024 + 64);

    Logger::logCurrentBuffer();
    const std::string text = readFile(file());
    EXPECT_LE(text.size(), 64U * 1024 + 128);
    EXPECT_NE(text.find("] Bossac: the first chunk\n"), std::string::npos);
    EXPECT_NE(text.find("] Bossac: Verify failed\n"), std::string::npos);
    const auto mark = text.find(kCutMark);
    ASSERT_NE(mark, std::string::npos);
    EXPECT_LT(text.find("the first chunk"), mark);
    EXPECT_GT(text.find("Verify failed"), mark);
    // Whole lines around the note.
    EXPECT_EQ(text[mark - 1], '\n');
    EXPECT_TRUE(std::regex_search(text.substr(mark), std::regex(R"(^… \(cut, \d+ bytes\)\n\[)")));
    EXPECT_TRUE(Logger::logBuffer().empty());
}
