// Entries are appended to the log file, never the whole file rewritten, and
// a full disk never leaves a partial line behind.
#include "hostile_log.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using quendral::Logger;
using namespace quendral::test;

// --- appending -----------------------------------------------------------------

TEST_F(HostileLog, AnEntryIsAppendedWithoutReadingOrRewritingTheFile)
{
    std::string old;
    while (old.size() < 4 * kFileLimit) {
        old += "[2026-01-01 00:00:00] an old entry of a long log file\n";
    }
    writeFile(file(), old);
    Logger::setLogPath(file()); // no start-of-run trim: the file stays this long

    const auto before = ioCounters();
    Logger::log("one more");
    const auto after = ioCounters();
    EXPECT_LT(after.first - before.first, 64 * 1024) << "bytes read for one entry";
    EXPECT_LT(after.second - before.second, 64 * 1024) << "bytes written for one entry";
    const std::string text = readFile(file());
    EXPECT_EQ(text.substr(0, old.size()), old);
    EXPECT_TRUE(std::regex_match(text.substr(old.size()), entry("one more\n")));
}

TEST_F(HostileLog, AnEntryAfterABrokenLastLineStartsOnALineOfItsOwn)
{
    writeFile(file(), "[2026-01-01 00:00:00] whole\n[2026-");
    Logger::setLogPath(file());
    Logger::log("next");
    const auto lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "[2026-");
    EXPECT_TRUE(std::regex_match(lines[2], entry("next")));
}

// A full disk, as a process sees it: RLIMIT_FSIZE makes every write beyond
// the size fail with EFBIG (SIGXFSZ ignored), exactly like ENOSPC on a full
// file system. Run in a child so that the limit stays there.
TEST_F(HostileLog, AFullDiskNeverLeavesAPartialLine)
{
    Logger::initLogPath();
    constexpr rlim_t kLimit = 1000;
    const std::string message(60, 'm'); // 83-byte lines: the 13th no longer fits whole

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        const rlim_t unlimited = limit.rlim_max;
        limit.rlim_cur = kLimit;
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            ::_exit(10);
        }
        for (int i = 0; i < 20; ++i) {
            Logger::log(message);
        }
        // Space again, and later entries land on lines of their own.
        limit.rlim_cur = unlimited;
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            ::_exit(11);
        }
        Logger::log("after the disk was full");
        const bool reported = console.str().find("Unexpected error: File too large.") != std::string::npos;
        ::_exit(reported ? 0 : 12);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "the child ended by a signal: " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10/11: setrlimit failed, 12: the failure was not reported";

    const std::string text = readFile(file());
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    const auto lines = linesOf(text);
    ASSERT_EQ(lines.size(), 13U) << text;
    for (std::size_t i = 0; i < 12; ++i) {
        EXPECT_EQ(lines[i].substr(22), message) << "line " << i << ": " << lines[i];
        EXPECT_TRUE(std::regex_match(lines[i], entry(message))) << lines[i];
    }
    EXPECT_TRUE(std::regex_match(lines[12], entry("after the disk was full"))) << lines[12];
}
