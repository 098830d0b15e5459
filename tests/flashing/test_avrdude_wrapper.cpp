// AvrdudeWrapper's reading of avrdude's output, replayed chunk by chunk
// through its data-available and termination steps (no process involved).
#include "../support/flashing_expectations.h"
#include "../support/scoped_log.h"
#include "../support/upload_recorder.h"
#include "flashing/avrdude_boards.h"
#include "flashing/avrdude_wrapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace quendral;
using namespace quendral::test;

namespace {

std::string marks(int n)
{
    return std::string(static_cast<std::size_t>(n), '#');
}

// What avrdude 7.1 prints for a small program when its output is a pipe,
// with the number of marks in each bar to choose.
std::string sessionOutput(int signatureMarks, int writeMarks, int verifyMarks, const std::string& tail = "")
{
    return "\navrdude: AVR device initialized and ready to accept instructions\n\nReading | " + marks(signatureMarks) +
           " | 100% 0.01s\n\navrdude: Device signature = 0x1e9801 (probably m2560)\n"
           "avrdude: reading input file \"blink.hex\"\navrdude: writing flash (502 bytes):\n\nWriting | " +
           marks(writeMarks) +
           " | 100% 0.10s\n\navrdude: 502 bytes of flash written\navrdude: verifying flash memory against blink.hex:\n"
           "\nReading | " +
           marks(verifyMarks) + " | 100% 0.05s\n\n" + tail + "avrdude done.  Thank you.\n\n";
}

// Splits `text` at random places, but always right before a bar's label and
// never inside one (avrdude writes each label in one go, long after the
// previous bar has ended).
std::vector<std::string> randomChunks(const std::string& text, unsigned seed)
{
    std::set<std::size_t> forbidden;
    std::set<std::size_t> cuts;
    for (const std::string label : {"Reading | ", "Writing | "}) {
        for (auto at = text.find(label); at != std::string::npos; at = text.find(label, at + 1)) {
            cuts.insert(at);
            for (std::size_t i = at + 1; i < at + label.size(); ++i) {
                forbidden.insert(i);
            }
        }
    }
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> position(1, text.size() - 1);
    for (int i = 0; i < 40; ++i) {
        if (const auto at = position(random); forbidden.count(at) == 0) {
            cuts.insert(at);
        }
    }
    std::vector<std::string> chunks;
    std::size_t start = 0;
    for (const auto cut : cuts) {
        if (cut > start) {
            chunks.push_back(text.substr(start, cut - start));
            start = cut;
        }
    }
    chunks.push_back(text.substr(start));
    return chunks;
}

class AvrdudeOutput : public ::testing::Test {
protected:
    void SetUp() override { wrapper.resetRunState(pipes.handle(out), pipes.handle(err)); }

    void feed(const std::vector<std::string>& chunks)
    {
        for (std::size_t i = 0; i < chunks.size(); ++i) {
            // Alternate the two pipes: both count.
            wrapper.readData(pipes.handle(i % 2 == 0 ? err : out), chunks[i]);
        }
    }

    static constexpr auto out = ChildProcess::Stream::StandardOutput;
    static constexpr auto err = ChildProcess::Stream::StandardError;
    ScopedLog log;
    AvrdudeWrapper wrapper;
    ChildProcess pipes; // never launched: it only lends this run its two pipe identifiers
    UploadRecorder recorder{&wrapper};
};

} // namespace

TEST_F(AvrdudeOutput, ThreeFullBarsInAnySplitMakeASuccessfulUpdate)
{
    for (unsigned seed = 1; seed <= 25; ++seed) {
        AvrdudeWrapper run;
        ChildProcess runPipes;
        UploadRecorder runRecorder(&run);
        run.resetRunState(runPipes.handle(out), runPipes.handle(err));
        const auto chunks = randomChunks(sessionOutput(50, 50, 50), seed);
        for (const auto& chunk : chunks) {
            run.readData(runPipes.handle(err), chunk);
        }
        run.terminated();

        EXPECT_EQ(run.totalHash(), 150U) << "seed " << seed;
        const std::vector<std::string> expectedStates{kVerifying, kWriting, kVerifying, kSuccess};
        EXPECT_EQ(runRecorder.states(), expectedStates) << "seed " << seed;
        const auto progress = runRecorder.progress();
        EXPECT_EQ(timesReaching100(progress), 3) << "seed " << seed;
        EXPECT_EQ(progress.size(), chunks.size()) << "one progress post per chunk";
        EXPECT_LE(*std::max_element(progress.begin(), progress.end()), 100);
        EXPECT_EQ(runRecorder.malformed(), 0);
    }
}

TEST_F(AvrdudeOutput, ProgressIsTwiceTheMarksOfTheCurrentBar)
{
    feed({"Reading | " + marks(10), marks(15), " | 100%\n\nWriting | " + marks(3)});
    EXPECT_EQ(recorder.progress(), (std::vector<int>{20, 50, 6}));
    EXPECT_EQ(wrapper.countHash(), 3U);
    EXPECT_EQ(wrapper.totalHash(), 28U);
    EXPECT_TRUE(wrapper.isReading());
    EXPECT_TRUE(wrapper.isWriting());
}

TEST_F(AvrdudeOutput, ASuccessfulRunLeavesOnlyItsSummaryInTheLog)
{
    feed(randomChunks(sessionOutput(50, 50, 50), 7));
    wrapper.terminated();
    const auto text = log.text();
    EXPECT_NE(text.find("] Avrdude initiated\n"), std::string::npos);
    EXPECT_NE(text.find("] 150\n"), std::string::npos);
    EXPECT_NE(text.find("] Avrdude terminated successfully\n"), std::string::npos);
    EXPECT_EQ(text.find("Avrdude: "), std::string::npos) << text;
    EXPECT_EQ(text.find("Device signature"), std::string::npos);
    EXPECT_EQ(Logger::logBuffer(), "");
}

TEST_F(AvrdudeOutput, OneMarkTooFewIsAFailedUpdateWithTheOutputInTheLog)
{
    const auto chunks = randomChunks(sessionOutput(50, 49, 50), 3);
    feed(chunks);
    wrapper.terminated();
    EXPECT_EQ(wrapper.totalHash(), 149U);
    EXPECT_EQ(recorder.states().back(), kFailure);
    const auto text = log.text();
    EXPECT_NE(text.find("] 149\n"), std::string::npos);
    EXPECT_NE(text.find("] ERROR: Avrdude terminated with an error\n"), std::string::npos);
    // Every chunk is in the log, each as its own 12-hour stamped "Avrdude: " line.
    std::size_t at = 0;
    for (const auto& chunk : chunks) {
        const auto found = text.find("] Avrdude: " + chunk, at);
        ASSERT_NE(found, std::string::npos) << "missing chunk: " << chunk;
        at = found + 1;
    }
    EXPECT_EQ(Logger::logBuffer(), "");
}

TEST_F(AvrdudeOutput, OneMarkTooManyIsAFailedUpdate)
{
    feed(randomChunks(sessionOutput(51, 50, 50), 11));
    wrapper.terminated();
    EXPECT_EQ(wrapper.totalHash(), 151U);
    EXPECT_EQ(recorder.states().back(), kFailure);
    EXPECT_TRUE(log.contains("] 151\n"));
    EXPECT_TRUE(log.contains("Avrdude: "));
}

TEST_F(AvrdudeOutput, AChunkWithBothBarsCountsAsAWriteBarOnly)
{
    feed({"Writing | " + marks(2) + " | 100%\n\nReading | " + marks(3)});
    EXPECT_EQ(recorder.states(), std::vector<std::string>{kWriting});
    EXPECT_TRUE(wrapper.isWriting());
    EXPECT_FALSE(wrapper.isReading());
    EXPECT_EQ(wrapper.countHash(), 5U);
    EXPECT_EQ(recorder.progress(), std::vector<int>{10});
}

TEST_F(AvrdudeOutput, AVerificationErrorFailsTheUpdateDespite150Marks)
{
    feed(randomChunks(sessionOutput(50, 50, 50,
                                    "avrdude: verification error, first mismatch at byte 0x0010\n"
                                    "         0x00 != 0x01\navrdude: verification error; content mismatch\n\n"),
                      5));
    wrapper.terminated();
    EXPECT_EQ(wrapper.totalHash(), 150U);
    EXPECT_TRUE(wrapper.verificationError());
    EXPECT_EQ(recorder.states().back(), kFailure);
    EXPECT_TRUE(log.contains("] ERROR: Avrdude terminated with an error\n"));
    EXPECT_TRUE(log.contains("Avrdude: "));
}

TEST_F(AvrdudeOutput, AChunkWithoutMarksPostsTheUnchangedProgress)
{
    feed({"Reading | " + marks(20), "\navrdude: still here\n", "", marks(1)});
    EXPECT_EQ(recorder.progress(), (std::vector<int>{40, 40, 40, 42}));
}

TEST_F(AvrdudeOutput, ChunksFromAnotherPipeAreIgnored)
{
    ChildProcess stranger;
    wrapper.readData(stranger.handle(out), "Writing | " + marks(50));
    wrapper.readData(stranger.handle(err), "verification error");
    wrapper.readData(0, "Reading | ###");
    EXPECT_TRUE(recorder.events().empty());
    EXPECT_EQ(wrapper.totalHash(), 0U);
    EXPECT_FALSE(wrapper.isWriting());
    EXPECT_FALSE(wrapper.verificationError());
    EXPECT_EQ(Logger::logBuffer(), "");

    wrapper.readData(pipes.handle(out), "Reading | #");
    EXPECT_EQ(wrapper.totalHash(), 1U);
    EXPECT_EQ(recorder.states(), std::vector<std::string>{kVerifying});
}

TEST_F(AvrdudeOutput, NothingCountsAfterTheRunHasTerminated)
{
    feed({"Reading | " + marks(50)});
    wrapper.terminated();
    wrapper.readData(pipes.handle(err), marks(50));
    EXPECT_EQ(wrapper.totalHash(), 50U);
}

TEST_F(AvrdudeOutput, ResettingForANewRunClearsCountersAndFlags)
{
    feed({"Writing | " + marks(30) + " verification error"});
    ChildProcess next;
    wrapper.resetRunState(next.handle(out), next.handle(err));
    EXPECT_EQ(wrapper.countHash(), 0U);
    EXPECT_EQ(wrapper.totalHash(), 0U);
    EXPECT_FALSE(wrapper.isWriting());
    EXPECT_FALSE(wrapper.isReading());
    EXPECT_FALSE(wrapper.verificationError());
    wrapper.readData(pipes.handle(out), marks(5)); // the previous run's pipe
    EXPECT_EQ(wrapper.totalHash(), 0U);
}

TEST(AvrdudeWrapper, AnUnknownBoardFailsWithoutStartingAnything)
{
    ScopedLog log;
    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    // An ATmega32U4 board running its firmware rather than its boot loader.
    EXPECT_FALSE(wrapper.startUpload("/tmp/firmware.hex", "/dev/ttyACM0", 0x23418037));
    EXPECT_TRUE(log.contains("] ERROR: Could not identify device type\n"));
    EXPECT_FALSE(log.contains("Identified"));
    EXPECT_TRUE(recorder.events().empty());
}

TEST(AvrdudeWrapper, TheHexFilePropertyKeepsItsValue)
{
    ScopedLog log;
    AvrdudeWrapper wrapper;
    EXPECT_EQ(wrapper.hexFile(), "");
    wrapper.setHexFile("/tmp/quendral-hexfile.hex");
    EXPECT_EQ(wrapper.hexFile(), "/tmp/quendral-hexfile.hex");
    EXPECT_TRUE(log.contains("] Avrdude initiated\n"));
}

TEST(AvrdudeBoards, EachKnownBoardHasItsSevenArguments)
{
    struct Expected {
        std::uint32_t id;
        std::string logLine;
        std::vector<std::string> arguments;
    };
    const auto arguments = [](const std::string& part, const std::string& programmer, const std::string& baud) {
        return std::vector<std::string>{"-C/r/avrdude.conf", "-p" + part, "-c" + programmer,       "-P/dev/ttyACM0",
                                        "-b" + baud,         "-D",        "-Uflash:w:/tmp/f.hex:i"};
    };
    const std::vector<Expected> table{
        {0x26BA0003, "Identified Arduino Mega 2560 device type.", arguments("atmega2560", "wiring", "115200")},
        {0x23410037, "Identified Arduino Micro device type.", arguments("atmega32u4", "avr109", "57600")},
        {0x2A030037, "Identified Arduino Micro device type.", arguments("atmega32u4", "avr109", "57600")},
        {0x04036001, "Identified KORBATEK device type.", arguments("atmega1284p", "arduino", "115200")},
    };
    for (const auto& row : table) {
        const auto* board = quendral::avrdudeBoardFor(row.id);
        ASSERT_NE(board, nullptr) << std::hex << row.id;
        EXPECT_EQ(board->logLine, row.logLine);
        EXPECT_EQ(quendral::avrdudeFlashArguments(*board, "/r/avrdude.conf", "/dev/ttyACM0", "/tmp/f.hex"),
                  row.arguments);
    }
    for (const std::uint32_t unknown : {0U, 0x23418037U, 0x23418036U, 0x26BA0004U, 0x04036015U}) {
        EXPECT_EQ(quendral::avrdudeBoardFor(unknown), nullptr) << std::hex << unknown;
    }
}

namespace {

// What avrdude 7.1 prints: no bar for the signature read, and a failed
// comparison is a "verification mismatch".
std::string sessionOutput7(int writeMarks, int verifyMarks, const std::string& tail = "")
{
    return "avrdude: AVR device initialized and ready to accept instructions\n"
           "avrdude: device signature = 0x1e9801 (probably m2560)\n"
           "avrdude: reading input file blink.hex for flash\n"
           "         with 502 bytes in 1 section within [0, 0x1f5]\n"
           "avrdude: writing 502 bytes flash ...\n\nWriting | " +
           marks(writeMarks) +
           " | 100% 0.10s\n\navrdude: 502 bytes of flash written\navrdude: verifying flash memory against blink.hex\n"
           "\nReading | " +
           marks(verifyMarks) + " | 100% 0.05s\n\n" + tail + "\navrdude done.  Thank you.\n\n";
}

} // namespace

TEST_F(AvrdudeOutput, AvrdudeSevenWithAFullWriteAndVerifyBarIsASuccess)
{
    feed(randomChunks(sessionOutput7(50, 50), 13));
    wrapper.terminated();
    EXPECT_EQ(wrapper.totalHash(), 100U);
    const std::vector<std::string> expected{kWriting, kVerifying, kSuccess};
    EXPECT_EQ(recorder.states(), expected);
    EXPECT_EQ(timesReaching100(recorder.progress()), 2);
    EXPECT_TRUE(log.contains("] 100\n"));
    EXPECT_FALSE(log.contains("Avrdude: "));
}

TEST_F(AvrdudeOutput, AvrdudeSevenWithAShortBarIsAFailure)
{
    feed(randomChunks(sessionOutput7(50, 49), 17));
    wrapper.terminated();
    EXPECT_EQ(recorder.states().back(), kFailure);
}

TEST_F(AvrdudeOutput, AHundredMarksInOtherBarsAreAFailure)
{
    // A signature bar and a write bar, then nothing verified.
    feed({"Reading | " + marks(50), "Writing | " + marks(50)});
    wrapper.terminated();
    EXPECT_EQ(wrapper.totalHash(), 100U);
    EXPECT_EQ(recorder.states().back(), kFailure);
}

TEST_F(AvrdudeOutput, AvrdudeSevensVerificationMismatchIsAVerificationError)
{
    feed(randomChunks(sessionOutput7(50, 50,
                                     "avrdude error: verification mismatch\n"
                                     "        device 0xff != input 0x0c at addr 0x0010 (error)\n"
                                     "avrdude error: verification mismatch\n"),
                      19));
    wrapper.terminated();
    EXPECT_TRUE(wrapper.verificationError());
    EXPECT_EQ(recorder.states().back(), kFailure);
}

TEST_F(AvrdudeOutput, AVerificationPhraseSplitOverTwoChunksIsSeen)
{
    feed({"Reading | " + marks(50) + "\navrdude error: v", "erification mismatch\n"});
    EXPECT_TRUE(wrapper.verificationError());
}

TEST_F(AvrdudeOutput, TheSplitPhraseLooksOnlyAtThisRunsChunks)
{
    feed({"avrdude error: verification"});
    ChildProcess next;
    wrapper.resetRunState(next.handle(out), next.handle(err));
    wrapper.readData(next.handle(err), " mismatch");
    EXPECT_FALSE(wrapper.verificationError());
}
