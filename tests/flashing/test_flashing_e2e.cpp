// The real avrdude and bossac, run by the wrappers, flash the device lab's
// simulated boards: ATmega2560 and ATmega1284P in simavr with their real boot
// loaders, and the SAM3X8E's SAM-BA monitor. Then the flashed program answers.
#include "../support/flashing_expectations.h"
#include "../support/scoped_log.h"
#include "../support/temp_dir.h"
#include "../support/upload_recorder.h"
#include "flashing/avrdude_wrapper.h"
#include "flashing/bossac_wrapper.h"
#include "platform/paths.h"

#include "avr_board.h"
#include "board_on_pty.h"
#include "intel_hex.h"
#include "line_client.h"
#include "pty.h"
#include "sam_board.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <regex>
#include <unistd.h>

using namespace quendral;
using namespace quendral::test;
using Event = UploadRecorder::Event;

namespace {

constexpr std::uint32_t kMega2560 = 0x26BA0003;
constexpr std::uint32_t kKorbatek = 0x04036001;

std::string avrFirmware(const std::string& name)
{
    return std::string(QUENDRAL_AVR_FIRMWARE_DIR) + "/" + name + ".hex";
}
std::string samImage(const std::string& name)
{
    return std::string(QUENDRAL_SAM_IMAGE_DIR) + "/" + name;
}

std::vector<std::uint8_t> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Asks the program on the line for its identity. The stk500v2 boot loader
// stays put while bytes keep arriving after the open, so the first request
// waits a moment.
bool identify(const std::string& port, std::string& cid, std::string& version)
{
    sim::LineClient client(port);
    if (!client.isOpen()) {
        return false;
    }
    client.waitForLine("\x01never", 2.0);
    // Three quiet seconds after each try: a request that still reaches the
    // boot loader (a slow simulation on a loaded machine) keeps it waiting for
    // more, so the next one must come after its window has run out.
    cid = client.askUntilAnswered("getCID\ngetVersion\n", "CID:", 6, 3.0);
    if (cid.empty()) {
        return false;
    }
    version = client.waitForLine("VERSION:", 2.0);
    return !version.empty();
}

class FlashingEndToEnd : public ::testing::Test {
protected:
    void SetUp() override { quendral::paths::setResourceFolder(std::nullopt); }
    ScopedLog log;
};

void expectAvrBoardFlashedAndRunning(const ScopedLog& log, sim::AvrBoardKind kind, std::uint32_t idx,
                                     const std::string& firmware, const std::string& cid, const std::string& version)
{
    sim::AvrBoardOptions options;
    options.kind = kind;
    sim::BoardOnPty<sim::AvrBoard> lab(options);
    ASSERT_TRUE(lab.start());

    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    EXPECT_TRUE(wrapper.startUpload(avrFirmware(firmware), lab.pty.slavePath, idx)) << log.text();

    // avrdude 7.1 draws no bar for the signature read: a write bar and a
    // verifying bar of 50 marks each.
    EXPECT_EQ(wrapper.totalHash(), 100U) << log.text();
    const std::vector<std::string> expectedStates{kPreparing, kWriting, kVerifying, kSuccess};
    EXPECT_EQ(recorder.states(), expectedStates);
    // The bar's last marks may come in one chunk with the next label; they
    // are then counted for the new bar (every mark of a chunk counts), so a
    // bar need not show exactly 100 at its end, but the last one ends full.
    const auto progress = recorder.progress();
    ASSERT_FALSE(progress.empty());
    EXPECT_GE(progress.back(), 100);
    EXPECT_LE(progress.back(), 200);
    EXPECT_EQ(recorder.malformed(), 0);
    EXPECT_TRUE(log.contains("] 100\n"));
    EXPECT_TRUE(log.contains("] Avrdude terminated successfully\n"));
    EXPECT_FALSE(log.contains("Avrdude: ")) << "a good run leaves no tool output in the log";

    // The board holds the program and runs it.
    const auto image = sim::readIntelHexFile(avrFirmware(firmware));
    ASSERT_TRUE(image.has_value());
    const auto flash = lab.board.flash();
    std::size_t mismatches = 0;
    for (const auto& [address, byte] : *image) {
        ASSERT_LT(address, flash.size());
        mismatches += flash[address] != byte ? 1 : 0;
    }
    EXPECT_EQ(mismatches, 0U);
    std::string answeredCid;
    std::string answeredVersion;
    ASSERT_TRUE(identify(lab.pty.slavePath, answeredCid, answeredVersion));
    EXPECT_EQ(answeredCid, "CID:" + cid);
    EXPECT_EQ(answeredVersion, "VERSION:" + version);
}

} // namespace

TEST_F(FlashingEndToEnd, AvrdudeFlashesTheMega2560)
{
    expectAvrBoardFlashedAndRunning(log, sim::AvrBoardKind::Mega2560, kMega2560, "identity_a_2560",
                                    "A2560AAAAAAAAAAAAAAAAAAAAAAAAAAA", "2560-A.1");
}

TEST_F(FlashingEndToEnd, AvrdudeFlashesThe1284P)
{
    expectAvrBoardFlashedAndRunning(log, sim::AvrBoardKind::Mega1284P, kKorbatek, "identity_a_1284p",
                                    "A1284PAAAAAAAAAAAAAAAAAAAAAAAAAA", "1284P-A.1");
}

TEST_F(FlashingEndToEnd, AnAvrBoardThatKeepsAByteWrongFailsVerification)
{
    sim::AvrBoardOptions options;
    options.kind = sim::AvrBoardKind::Mega2560;
    options.stuckFlashByte = 0x10;
    sim::BoardOnPty<sim::AvrBoard> lab(options);
    ASSERT_TRUE(lab.start());

    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(avrFirmware("identity_a_2560"), lab.pty.slavePath, kMega2560));
    EXPECT_TRUE(wrapper.verificationError());
    EXPECT_EQ(recorder.states().back(), kFailure);
    EXPECT_TRUE(log.contains("] ERROR: Avrdude terminated with an error\n"));
    EXPECT_NE(toolOutput(log.text(), "Avrdude: ").find("verification mismatch"), std::string::npos) << log.text();
}

TEST_F(FlashingEndToEnd, TheSignatureProbeReadsTheSimulatedChip)
{
    sim::AvrBoardOptions options;
    options.kind = sim::AvrBoardKind::Mega1284P;
    sim::BoardOnPty<sim::AvrBoard> lab(options);
    ASSERT_TRUE(lab.start());
    AvrdudeWrapper wrapper;
    // The key phrase is looked for in each 64-byte block on its own, as the
    // probe is meant to; avrdude writes its line in one piece and the
    // signature's bytes after it, but on a loaded machine a read can still
    // catch the phrase in two pieces ("d" | "evice signature = 0x"), and the
    // probe then reports none. Three tries before that counts as a failure.
    std::optional<std::string> signature;
    std::size_t lastAttemptLogged = 0; // where the last try's log lines begin
    for (int attempt = 0; attempt < 3 && !signature; ++attempt) {
        lastAttemptLogged = log.text().size();
        signature = wrapper.getDeviceSignature(lab.pty.slavePath);
    }
    ASSERT_TRUE(signature.has_value()) << log.text();
    EXPECT_EQ(*signature, "0x1e9705");
    const std::string lastAttempt = log.text().substr(lastAttemptLogged);
    EXPECT_NE(lastAttempt.find("] Signature: 0x1e9705\n"), std::string::npos) << lastAttempt;
    EXPECT_EQ(lastAttempt.find("Timeout using arduino type"), std::string::npos) << lastAttempt;
}

TEST_F(FlashingEndToEnd, BossacFlashesTheSam3x)
{
    sim::SamBoardOptions options;
    sim::BoardOnPty<sim::SamBoard> lab(options);
    ASSERT_TRUE(lab.start());

    BossacWrapper wrapper(lab.pty.slavePath);
    UploadRecorder recorder(&wrapper);
    const std::string image = samImage("identity_a.bin");
    EXPECT_TRUE(wrapper.startUpload(image)) << log.text();

    const auto events = recorder.events();
    ASSERT_GE(events.size(), 4U);
    EXPECT_EQ(events[0], Event{kPreparing});
    EXPECT_EQ(events[1], Event{0});
    EXPECT_EQ(events[events.size() - 2], Event{kSuccess});
    EXPECT_EQ(events.back(), Event{100});
    const auto states = recorder.states();
    const auto writing = std::find(states.begin(), states.end(), kWriting);
    const auto verifying = std::find(states.begin(), states.end(), kVerifying);
    EXPECT_NE(writing, states.end());
    EXPECT_NE(verifying, states.end());
    EXPECT_LT(writing, verifying);
    // Up to 100 for writing, again for verifying, then the closing 100.
    // Percentages that arrive in one chunk count once (the first), so not
    // every step shows; that the bar started over between the two does.
    auto progress = recorder.progress();
    progress.pop_back();
    ASSERT_GT(progress.size(), 10U);
    EXPECT_EQ(progress.front(), 0);
    EXPECT_EQ(*std::max_element(progress.begin(), progress.end()), 100);
    EXPECT_GE(timesReaching100(progress), 1);
    int restarts = 0;
    for (std::size_t i = 1; i < progress.size(); ++i) {
        restarts += progress[i] < progress[i - 1] ? 1 : 0;
    }
    EXPECT_EQ(restarts, 1) << "writing, then verifying";
    EXPECT_LT(writing, verifying);
    EXPECT_TRUE(log.contains("] Bossac terminated successfully\n"));
    EXPECT_FALSE(log.contains("Bossac: ")) << "a good run leaves no tool output in the log";

    const auto bytes = readFile(image);
    const auto flash = lab.board.flash();
    ASSERT_FALSE(bytes.empty());
    ASSERT_GE(flash.size(), bytes.size());
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), flash.begin()));

    // bossac reset the board into what it wrote, which answers with its identity.
    // Asked again until it answers: on a loaded machine the reboot may still
    // be under way when the first request arrives.
    sim::LineClient client(lab.pty.slavePath);
    ASSERT_TRUE(client.isOpen());
    EXPECT_EQ(client.askUntilAnswered("getCID\ngetVersion\n", "CID:", 5, 2), "CID:SAMAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
    EXPECT_EQ(client.waitForLine("VERSION:", 5), "VERSION:3.1.0");
}

TEST_F(FlashingEndToEnd, ASamBoardThatKeepsAByteWrongFailsWithBossacsOutputInTheLog)
{
    sim::SamBoardOptions options;
    options.stuckFlashByte = 0x100;
    sim::BoardOnPty<sim::SamBoard> lab(options);
    ASSERT_TRUE(lab.start());

    BossacWrapper wrapper(lab.pty.slavePath);
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(samImage("identity_a.bin")));
    EXPECT_EQ(recorder.states().back(), kFailure);
    const auto text = log.text();
    const auto error = text.find("] ERROR: Bossac terminated with an error\n");
    ASSERT_NE(error, std::string::npos) << text;
    EXPECT_NE(toolOutput(text.substr(error), "Bossac: ").find("Verify failed"), std::string::npos) << text;
}

TEST_F(FlashingEndToEnd, ASamBoardThatNeverAnswersFails)
{
    sim::SamBoardOptions options;
    options.mute = true;
    sim::BoardOnPty<sim::SamBoard> lab(options);
    ASSERT_TRUE(lab.start());

    BossacWrapper wrapper(lab.pty.slavePath);
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(samImage("identity_a.bin")));
    EXPECT_EQ(recorder.events(), (std::vector<Event>{kPreparing, 0, kFailure}));
    EXPECT_NE(toolOutput(log.text(), "Bossac: ").find("No device found"), std::string::npos) << log.text();
}
