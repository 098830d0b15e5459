// BossacWrapper's reading of bossac's output, replayed chunk by chunk through
// its data-available and termination steps (no process involved).
#include "../support/flashing_expectations.h"
#include "../support/scoped_log.h"
#include "../support/upload_recorder.h"
#include "flashing/bossac_wrapper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quendral;
using namespace quendral::test;
using Event = UploadRecorder::Event;
using Reason = ChildProcess::TerminationReason;

namespace {

std::string bar(int done, int pages)
{
    const int width = 30;
    const int filled = done * width / pages;
    return "\r[" + std::string(static_cast<std::size_t>(filled), '=') +
           std::string(static_cast<std::size_t>(width - filled), ' ') + "] " + std::to_string(done * 100 / pages) +
           "% (" + std::to_string(done) + "/" + std::to_string(pages) + " pages)";
}

// A whole bossac 1.9.1 session for a four-page file, as the pipes deliver it.
std::vector<std::string> sessionChunks()
{
    std::vector<std::string> chunks{"Device       : ATSAM3X8\nVersion      : v1.1 Dec 15 2010 19:25:04\n"
                                    "Address      : 524288\nPages        : 2048\nPage Size    : 256 bytes\n",
                                    "Erase flash\n\nDone in 0.104 seconds\n", "Write 1024 bytes to flash (4 pages)\n"};
    for (int page = 0; page <= 4; ++page) {
        chunks.push_back(bar(page, 4));
    }
    chunks.emplace_back("\nDone in 0.060 seconds\n");
    chunks.emplace_back("Verify 1024 bytes of flash (4 pages)\n");
    for (int page = 0; page <= 4; ++page) {
        chunks.push_back(bar(page, 4));
    }
    chunks.emplace_back("\nVerify successful\nDone in 0.030 seconds\nSet boot flash true\n");
    return chunks;
}

class BossacOutput : public ::testing::Test {
protected:
    void SetUp() override { wrapper.resetRunState(pipes.handle(out), pipes.handle(err)); }

    static constexpr auto out = ChildProcess::Stream::StandardOutput;
    static constexpr auto err = ChildProcess::Stream::StandardError;
    ScopedLog log;
    BossacWrapper wrapper{"/dev/ttyACM0"};
    ChildProcess pipes; // never launched: it only lends this run its two pipe identifiers
    UploadRecorder recorder{&wrapper};
};

} // namespace

TEST_F(BossacOutput, APercentageAfterTheBarIsTheProgress)
{
    wrapper.readData(pipes.handle(out), "\r[============                  ] 40% (5/12 pages)");
    EXPECT_EQ(recorder.events(), std::vector<Event>{40});
}

TEST_F(BossacOutput, TheWordWriteWithoutAPercentageOnlyChangesTheState)
{
    wrapper.readData(pipes.handle(out), "Write 3036 bytes to flash (12 pages)\n");
    EXPECT_EQ(recorder.events(), std::vector<Event>{kWriting});
}

TEST_F(BossacOutput, VerifyAndAFullBarPostTheStateThenTheProgress)
{
    wrapper.readData(pipes.handle(out),
                     "\r[==============================] 100% (12/12 pages)\nVerify 3036 bytes of flash\n");
    EXPECT_EQ(recorder.events(), (std::vector<Event>{kVerifying, 100}));
}

TEST_F(BossacOutput, WriteAndVerifyInOneChunkPostBothInThatOrder)
{
    wrapper.readData(pipes.handle(err), "Verify after Write 7%");
    EXPECT_EQ(recorder.events(), (std::vector<Event>{kWriting, kVerifying, 7}));
}

TEST_F(BossacOutput, OnlyTheLastThreeDigitsBeforeThePercentSignCount)
{
    wrapper.readData(pipes.handle(out), "1234%");
    EXPECT_EQ(recorder.events(), std::vector<Event>{234});
}

TEST_F(BossacOutput, OnlyTheFirstPercentageOfAChunkCounts)
{
    wrapper.readData(pipes.handle(out), bar(1, 4) + bar(2, 4) + bar(3, 4));
    EXPECT_EQ(recorder.events(), std::vector<Event>{25});
}

TEST_F(BossacOutput, ChunksFromAnotherPipeAreIgnored)
{
    ChildProcess stranger;
    wrapper.readData(stranger.handle(out), "Write 40%");
    wrapper.readData(stranger.handle(err), "Verify 50%");
    wrapper.readData(0, "Write 60%");
    EXPECT_TRUE(recorder.events().empty());
    EXPECT_EQ(Logger::logBuffer(), "");
    wrapper.readData(pipes.handle(err), "70%");
    EXPECT_EQ(recorder.events(), std::vector<Event>{70});
}

TEST_F(BossacOutput, AWholeSessionRunsTheBarTwiceAndEndsAt100)
{
    for (const auto& chunk : sessionChunks()) {
        wrapper.readData(pipes.handle(out), chunk);
    }
    wrapper.terminated({Reason::Exit, 0});
    const std::vector<Event> expected{kWriting, 0,  25, 50,  75,         100,      kVerifying, 0,
                                      25,       50, 75, 100, kVerifying, kSuccess, 100};
    EXPECT_EQ(recorder.events(), expected);
    EXPECT_EQ(recorder.malformed(), 0);
}

TEST_F(BossacOutput, ASuccessfulRunLeavesOnlyItsSummaryInTheLog)
{
    for (const auto& chunk : sessionChunks()) {
        wrapper.readData(pipes.handle(out), chunk);
    }
    wrapper.terminated({Reason::Exit, 0});
    const auto text = log.text();
    EXPECT_NE(text.find("] Bossac initiated\n"), std::string::npos);
    EXPECT_NE(text.find("] Bossac terminated successfully\n"), std::string::npos);
    EXPECT_EQ(text.find("Bossac: "), std::string::npos) << text;
    EXPECT_EQ(text.find("ATSAM3X8"), std::string::npos);
    EXPECT_EQ(Logger::logBuffer(), "");
}

TEST_F(BossacOutput, AFailedRunLeavesEveryChunkInTheLog)
{
    const std::vector<std::string> chunks{"Device       : ATSAM3X8\n", "Erase flash\n", "\nSAM-BA operation failed\n"};
    for (const auto& chunk : chunks) {
        wrapper.readData(pipes.handle(err), chunk);
    }
    wrapper.terminated({Reason::Exit, 1});
    EXPECT_EQ(recorder.events(), std::vector<Event>{kFailure});
    const auto text = log.text();
    const auto error = text.find("] ERROR: Bossac terminated with an error\n");
    ASSERT_NE(error, std::string::npos);
    std::size_t at = error;
    for (const auto& chunk : chunks) {
        const auto found = text.find("] Bossac: " + chunk, at);
        ASSERT_NE(found, std::string::npos) << "missing chunk: " << chunk;
        at = found + 1;
    }
    EXPECT_EQ(text.find("Bossac terminated successfully"), std::string::npos);
    EXPECT_EQ(Logger::logBuffer(), "");
}

TEST_F(BossacOutput, AToolKilledByASignalHasFailed)
{
    wrapper.terminated({Reason::UncaughtSignal, 9});
    EXPECT_EQ(recorder.events(), std::vector<Event>{kFailure});
    EXPECT_TRUE(log.contains("] ERROR: Bossac terminated with an error\n"));
}

TEST(BossacWrapper, ArgumentsNameThePortAndTheFile)
{
    const std::vector<std::string> expected{
        "-i", "--port=ttyACM0", "--usb-port=1", "-e", "-w", "-v", "-b", "/tmp/quendral-hexfile.hex", "-R"};
    EXPECT_EQ(BossacWrapper::uploadArguments("ttyACM0", "/tmp/quendral-hexfile.hex"), expected);
}

TEST(BossacWrapper, ThePortIsNamedBelowDev)
{
    ScopedLog log;
    EXPECT_EQ(BossacWrapper("/dev/ttyACM0").portName(), "ttyACM0");
    EXPECT_EQ(BossacWrapper("/dev/pts/7").portName(), "pts/7");
    EXPECT_EQ(BossacWrapper("/tmp/lab/sam3x").portName(), "/tmp/lab/sam3x");
    EXPECT_EQ(BossacWrapper("/dev/../tmp/x").portName(), "/dev/../tmp/x");
    const auto text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
    EXPECT_TRUE(log.contains("] Bossac initiated\n"));
}

TEST(BossacWrapper, DataFromTheSerialPortIsLoggedAsBytes)
{
    ScopedLog log;
    BossacWrapper wrapper("/dev/ttyACM0");
    wrapper.serialPortDidReceiveData(nullptr, quendral::SerialData{'H', 'e', 'l', 'l', 'o', 0x0A});
    EXPECT_TRUE(log.contains("] Bossac: Serialportdata: <48656c6c 6f0a>\n")) << log.text();
}
