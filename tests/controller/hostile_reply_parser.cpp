// The reply parser against a Controller that never ends a line or a dump:
// what it keeps stays bounded, and each cut is logged once. Memory is also
// measured as the process sees it, in a child (support/peak_memory.h).
#include "controller/controller_state.h"
#include "controller/reply_parser.h"
#include "support/peak_memory.h"
#include "support/scoped_log.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>

using namespace quendral;

namespace {

constexpr std::size_t kChunk = 1024; // what the serial port hands over at most
constexpr std::size_t kLineLimit = 64 * 1024;
constexpr std::size_t kDumpLineLimit = 1000;
constexpr std::size_t kDumpByteLimit = 1024 * 1024;

std::size_t occurrences(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

std::size_t bytesIn(const std::vector<std::string>& lines)
{
    return std::accumulate(lines.begin(), lines.end(), std::size_t{0},
                           [](std::size_t sum, const std::string& line) { return sum + line.size(); });
}

class HostileReplies : public ::testing::Test {
protected:
    void feed(const std::string& bytes)
    {
        parser.receive(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
    }
    // `total` bytes of `fill`, in the port's chunk size; returns the most the
    // parser held at any point.
    std::size_t feedEndless(char fill, std::size_t total)
    {
        const std::string chunk(kChunk, fill);
        std::size_t most = 0;
        for (std::size_t sent = 0; sent < total; sent += chunk.size()) {
            feed(chunk);
            most = std::max(most, parser.serialInput().size());
        }
        return most;
    }

    test::ScopedLog log;
    ControllerState state;
    ControllerReplyParser parser{state};
};

} // namespace

TEST_F(HostileReplies, ALineWithoutEndIsHeldToTheLimitAndLoggedOnce)
{
    const std::size_t most = feedEndless('a', 8 * 1024 * 1024);
    EXPECT_LE(most, kLineLimit + kChunk);
    EXPECT_EQ(occurrences(log.text(), "Controller line longer than 65536 bytes: cut"), 1u) << log.text();

    // Once the line ends, the Controller is heard again.
    feed("\nVERSION:7\n\n");
    EXPECT_EQ(state.currentVersion(), "7");
    EXPECT_EQ(std::string(parser.serialInput().begin(), parser.serialInput().end()), "\n");
}

TEST_F(HostileReplies, AnOverlongLineCountsWithItsFirst64KiB)
{
    feed("VERSION:");
    feedEndless('9', 200 * 1024);
    feed("\n\n");
    ASSERT_TRUE(state.currentVersion());
    EXPECT_EQ(state.currentVersion()->size(), kLineLimit - std::string("VERSION:").size());
    EXPECT_EQ(state.currentVersion()->find_first_not_of('9'), std::string::npos);

    // The same line in one piece is cut the same way.
    feed("VERSION:" + std::string(100 * 1024, '8') + "\n\n");
    ASSERT_TRUE(state.currentVersion());
    EXPECT_EQ(state.currentVersion()->size(), kLineLimit - std::string("VERSION:").size());
    EXPECT_EQ(occurrences(log.text(), "Controller line longer than 65536 bytes: cut"), 2u) << log.text();
}

TEST_F(HostileReplies, LinesUpToTheLimitStayWhole)
{
    feed("VERSION:" + std::string(kLineLimit - 8, '5') + "\n\n");
    ASSERT_TRUE(state.currentVersion());
    EXPECT_EQ(state.currentVersion()->size(), kLineLimit - 8);
    EXPECT_FALSE(log.contains("cut")) << log.text();
}

TEST_F(HostileReplies, AnEndlessDumpKeepsItsFirstThousandLinesAndLogsOnce)
{
    feed("start_dump\n");
    std::string lines;
    for (int i = 0; i < 100; ++i) {
        lines += "ip;192.168.1." + std::to_string(i) + "\n";
    }
    for (int round = 0; round < 2000; ++round) { // 200,000 lines
        feed(lines);
    }
    EXPECT_TRUE(state.dumpingIP());
    const auto dump = state.ipDump();
    ASSERT_EQ(dump.size(), kDumpLineLimit);
    EXPECT_EQ(dump.front(), "ip;192.168.1.0");
    EXPECT_EQ(dump.back(), "ip;192.168.1.99");
    EXPECT_EQ(occurrences(log.text(), "IP dump longer than 1000 lines or 1048576 bytes: cut"), 1u) << log.text();

    // end_dump still ends it.
    feed("end_dump\nVERSION:2\n\n");
    EXPECT_FALSE(state.dumpingIP());
    EXPECT_EQ(state.currentVersion(), "2");
    EXPECT_EQ(state.ipDump().size(), kDumpLineLimit);
}

TEST_F(HostileReplies, ADumpOfLongLinesIsCutAtOneMebibyte)
{
    feed("start_dump\n");
    const std::string line(60 * 1024, 'x');
    for (int i = 0; i < 200; ++i) { // 12 MB
        feed(line + "\n");
    }
    const auto dump = state.ipDump();
    EXPECT_LE(bytesIn(dump), kDumpByteLimit);
    EXPECT_EQ(dump.size(), kDumpByteLimit / line.size());
    EXPECT_EQ(occurrences(log.text(), "IP dump longer than 1000 lines or 1048576 bytes: cut"), 1u) << log.text();
}

TEST_F(HostileReplies, ANewDumpIsCollectedAndCutAfresh)
{
    feed("start_dump\n");
    for (std::size_t i = 0; i < kDumpLineLimit + 5; ++i) {
        feed("line\n");
    }
    feed("end_dump\n");
    state.resetIPDump(); // as the next getIPConfig does
    feed("start_dump\nip;10.0.0.2\nend_dump\n\n");
    EXPECT_EQ(state.ipDump(), (std::vector<std::string>{"ip;10.0.0.2"}));
    feed("start_dump\n");
    for (std::size_t i = 0; i < kDumpLineLimit + 5; ++i) {
        feed("line\n");
    }
    feed("end_dump\n\n");
    EXPECT_EQ(state.ipDump().size(), kDumpLineLimit);
    EXPECT_EQ(occurrences(log.text(), "IP dump longer than 1000 lines or 1048576 bytes: cut"), 2u) << log.text();
}

TEST_F(HostileReplies, ARealDumpIsKeptWhole)
{
    feed("start_dump\nip;192.168.1.50\nsubnet;255.255.255.0\ngateway;192.168.1.1\ndns;8.8.8.8\nend_dump\n\n");
    EXPECT_EQ(state.ipDump().size(), 4u);
    EXPECT_FALSE(log.contains("cut")) << log.text();
}

TEST_F(HostileReplies, SixtyFourMegabytesOfOneLineCostLittleMemory)
{
    const auto measured = test::measurePeakMemory([this] {
        feedEndless('a', 64 * 1024 * 1024);
        return 0;
    });
    ASSERT_TRUE(measured) << "the child could not measure";
    EXPECT_LT(measured->peakGrowth, test::peakMemoryBound(2 * 1024 * 1024u));
}

TEST_F(HostileReplies, SixtyFourMegabytesOfOneDumpCostLittleMemory)
{
    const auto measured = test::measurePeakMemory([this] {
        feed("start_dump\n");
        const std::string lines = [] {
            std::string text;
            while (text.size() < kChunk - 20) {
                text += "dev;1;Living room;192.168.10.60;1\n";
            }
            return text;
        }();
        for (std::size_t sent = 0; sent < 64 * 1024 * 1024; sent += lines.size()) {
            feed(lines);
        }
        return static_cast<int>(state.ipDumpCount());
    });
    ASSERT_TRUE(measured) << "the child could not measure";
    EXPECT_EQ(measured->result, static_cast<int>(kDumpLineLimit));
    EXPECT_LT(measured->peakGrowth, test::peakMemoryBound(2 * 1024 * 1024u));
}
