#include "../support/logger_fixture.h"
#include "log/logger.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>

using quendral::Logger;

namespace {

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::size_t countNewlines(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::chrono::system_clock::time_point localTime(int year, int month, int day, int hour, int minute, int second)
{
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&tm));
}

using LoggerTest = quendral::test::LoggerFixture;

const std::regex kLine24(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\] (.*))");

} // namespace

TEST_F(LoggerTest, FirstLaunchCreatesFolderWithoutConsoleErrorAndFirstEntryCreatesFileWithOneLine)
{
    ASSERT_FALSE(std::filesystem::exists(folder()));
    const auto path = Logger::initLogPath();
    ASSERT_TRUE(path.has_value());
    EXPECT_EQ(*path, file());
    EXPECT_TRUE(std::filesystem::is_directory(folder()));
    EXPECT_FALSE(std::filesystem::exists(file()));
    // Only the file URL is printed: no folder path and no error text.
    EXPECT_EQ(console.str(), "file://" + file().string() + "\n");

    Logger::log("hello");
    const std::string text = readFile(file());
    EXPECT_EQ(countNewlines(text), 1U);
    std::smatch match;
    const std::string line = text.substr(0, text.size() - 1);
    ASSERT_TRUE(std::regex_match(line, match, kLine24)) << text;
    EXPECT_EQ(match[1], "hello");
}

TEST_F(LoggerTest, SecondLaunchPrintsFolderErrorAndLogsNormally)
{
    std::filesystem::create_directories(folder());
    Logger::initLogPath();
    const std::string out = console.str();
    EXPECT_NE(out.find(folder().string() + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find("File exists\n"), std::string::npos) << out;
    EXPECT_LT(out.find(folder().string() + "\n"), out.find("File exists\n"));

    Logger::log("second");
    EXPECT_NE(readFile(file()).find("] second\n"), std::string::npos);
}

TEST_F(LoggerTest, FileWithAtMost500NewlinesBeforeItsLastByteIsUntouched)
{
    std::filesystem::create_directories(folder());
    std::string original;
    for (int i = 1; i <= 501; ++i) { // 500 newlines before the final one
        original += "line " + std::to_string(i) + "\n";
    }
    {
        std::ofstream(file(), std::ios::binary) << original;
    }
    Logger::initLogPath();
    EXPECT_EQ(readFile(file()), original);
    EXPECT_EQ(console.str().find("Truncated file to 500 lines"), std::string::npos);
}

TEST_F(LoggerTest, SixHundredLineFileIsTrimmedToEmptyLineThenLast501LinesThenTruncationEntry)
{
    std::filesystem::create_directories(folder());
    std::string original;
    for (int i = 1; i <= 600; ++i) {
        original += "line " + std::to_string(i) + "\n";
    }
    {
        std::ofstream(file(), std::ios::binary) << original;
    }
    Logger::initLogPath();

    std::istringstream lines(readFile(file()));
    std::vector<std::string> all;
    for (std::string line; std::getline(lines, line);) {
        all.push_back(line);
    }
    ASSERT_EQ(all.size(), 1U + 501U + 1U);
    EXPECT_EQ(all.front(), "");
    EXPECT_EQ(all[1], "line 100");
    EXPECT_EQ(all[501], "line 600");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(all.back(), match, kLine24)) << all.back();
    EXPECT_EQ(match[1], "Truncated file to 500 lines");
}

TEST_F(LoggerTest, BufferedEntriesAreWrittenAsOneEntryWithBothTimestampFormats)
{
    Logger::initLogPath();
    Logger::setClock([] { return localTime(2026, 3, 7, 14, 5, 9); });
    Logger::logBuffered("a");
    Logger::logBuffered("b");
    EXPECT_FALSE(std::filesystem::exists(file())) << "buffering must not touch the file";
    Logger::logCurrentBuffer();

    EXPECT_EQ(readFile(file()), "[2026-03-07 14:05:09] [2026-03-07 02:05:09] a\n"
                                "[2026-03-07 02:05:09] b\n"
                                "\n");
    EXPECT_EQ(Logger::logBuffer(), "");
}

TEST_F(LoggerTest, AfternoonTimeReads1405InEntriesAnd0205InBufferedLines)
{
    Logger::setClock([] { return localTime(2026, 11, 22, 14, 5, 0); });
    Logger::initLogPath();
    Logger::log("entry");
    Logger::logBuffered("buffered");
    EXPECT_EQ(readFile(file()), "[2026-11-22 14:05:00] entry\n");
    EXPECT_EQ(Logger::logBuffer(), "[2026-11-22 02:05:00] buffered\n");
}

TEST_F(LoggerTest, LoggingBeforeInitLogPathPrintsButWritesNothing)
{
    Logger::log("too early");
    EXPECT_NE(console.str().find("] too early\n\n"), std::string::npos) << console.str();
    EXPECT_FALSE(std::filesystem::exists(folder()));
    EXPECT_EQ(Logger::getLogPath(), "");
}

TEST_F(LoggerTest, ClearCurrentBufferDropsBufferedOutput)
{
    Logger::initLogPath();
    Logger::logBuffered("tool output");
    Logger::clearCurrentBuffer();
    EXPECT_EQ(Logger::logBuffer(), "");
    Logger::logCurrentBuffer();
    EXPECT_EQ(readFile(file()).find("tool output"), std::string::npos);
}

TEST_F(LoggerTest, FailedAppendIsReportedOnTheConsoleOnly)
{
    Logger::initLogPath();
    std::filesystem::create_directories(file()); // a folder where the file should be
    console.str("");
    Logger::log("lost");
    EXPECT_NE(console.str().find("Unexpected error: Is a directory."), std::string::npos) << console.str();
}
