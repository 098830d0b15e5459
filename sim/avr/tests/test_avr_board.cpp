// The real avrdude against the simulated AVR boards: write, verify, then the
// flashed program runs and answers the identification requests.

#include "avr_board.h"
#include "board_on_pty.h"
#include "intel_hex.h"
#include "line_client.h"
#include "pty.h"
#include "run_tool.h"

#include "../../../tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <unistd.h>

using namespace quendral::sim;

namespace {

std::string firmware(const std::string& name)
{
    return std::string(QUENDRAL_AVR_FIRMWARE_DIR) + "/" + name + ".hex";
}

std::string avrdudePath()
{
    return "avrdude"; // Debian's, as the application's resource folder links it
}

// The application's argument list for the board, plus `extra` (before the operation).
ToolRun flash(AvrBoardKind kind, const std::string& port, const std::string& hex,
              const std::vector<std::string>& extra = {})
{
    bool mega = kind == AvrBoardKind::Mega2560;
    std::vector<std::string> argv{avrdudePath(),
                                  "-C/etc/avrdude.conf",
                                  mega ? "-patmega2560" : "-patmega1284p",
                                  mega ? "-cwiring" : "-carduino",
                                  "-P" + port,
                                  "-b115200",
                                  "-D"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.push_back("-Uflash:w:" + hex + ":i");
    return runTool(argv, 60);
}

// Asks like the application does: both requests once a second until both replies came.
// Opening resets the board into its boot loader (unless resetOnOpen is off); the
// stk500v2 boot loader stays there for as long as bytes keep arriving, so the
// first request waits until the core has left the boot loader: on a loaded
// machine the simulated second can take longer than a real one.
bool identify(const AvrBoard& board, const std::string& port, std::string& cid, std::string& version,
              bool expectReset = true)
{
    unsigned resets = board.resetCount();
    LineClient client(port);
    if (!client.isOpen()) {
        return false;
    }
    if (expectReset && !pollUntil([&] { return board.resetCount() > resets; }, std::chrono::seconds(5))) {
        return false;
    }
    if (!pollUntil([&] { return board.runningApplication(); }, std::chrono::seconds(20))) {
        return false;
    }
    cid = client.askUntilAnswered("getCID\ngetVersion\n", "CID:", 10, 1.0);
    if (cid.empty()) {
        return false;
    }
    version = client.waitForLine("VERSION:", 2.0);
    return !version.empty();
}

void expectFlashHolds(const AvrBoard& board, const std::string& hexPath)
{
    auto image = readIntelHexFile(hexPath);
    ASSERT_TRUE(image.has_value());
    auto flash = board.flash();
    size_t mismatches = 0;
    for (auto [addr, byte] : *image) {
        ASSERT_LT(addr, flash.size());
        mismatches += flash[addr] != byte;
    }
    EXPECT_EQ(mismatches, 0u);
}

void flashAndIdentify(AvrBoardKind kind, const std::string& image, const std::string& expectCid,
                      const std::string& expectVersion, bool watchNode)
{
    quendral::test::TempDir dir;
    AvrBoardOptions options;
    options.kind = kind;
    options.flashFile = (dir.path() / "flash.bin").string();
    BoardOnPty<AvrBoard> b(options);
    ASSERT_TRUE(b.start(watchNode));

    ToolRun run = flash(kind, b.pty.slavePath, firmware(image));
    ASSERT_FALSE(run.timedOut) << run.output;
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    EXPECT_NE(run.output.find("bytes of flash verified"), std::string::npos) << run.output;
    // avrdude 7.1 draws two bars of 50 marks into a pipe: write and read back.
    // (No bar for the signature read.)
    EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '#'), 100) << run.output;
    EXPECT_NE(run.output.find("Writing | "), std::string::npos);
    EXPECT_NE(run.output.find("Reading | "), std::string::npos);
    ::testing::Test::RecordProperty("avrdude_seconds", std::to_string(run.seconds));
    std::printf("avrdude wrote and verified %s in %.2f s\n", image.c_str(), run.seconds);
    expectFlashHolds(b.board, firmware(image));

    std::string cid, version;
    // Polling the hang-up state can miss avrdude's close and our open when they
    // follow each other within one look: then there is no reset to wait for.
    ASSERT_TRUE(identify(b.board, b.pty.slavePath, cid, version, watchNode));
    EXPECT_EQ(cid, "CID:" + expectCid);
    EXPECT_EQ(version, "VERSION:" + expectVersion);
}

} // namespace

TEST(AvrBoard, Mega2560TakesAProgramFromAvrdudeAndRunsIt)
{
    flashAndIdentify(AvrBoardKind::Mega2560, "identity_a_2560", "A2560AAAAAAAAAAAAAAAAAAAAAAAAAAA", "2560-A.1", true);
}

TEST(AvrBoard, Mega1284PTakesAProgramFromAvrdudeAndRunsItOpenSeenByHangUpOnly)
{
    flashAndIdentify(AvrBoardKind::Mega1284P, "identity_a_1284p", "A1284PAAAAAAAAAAAAAAAAAAAAAAAAAA", "1284P-A.1",
                     false);
}

TEST(AvrBoard, FlashFileCarriesTheProgramIntoTheNextRun)
{
    quendral::test::TempDir dir;
    AvrBoardOptions options;
    options.kind = AvrBoardKind::Mega2560;
    options.flashFile = (dir.path() / "flash.bin").string();
    {
        BoardOnPty<AvrBoard> b(options);
        ASSERT_TRUE(b.start());
        ToolRun run = flash(options.kind, b.pty.slavePath, firmware("identity_b_2560"));
        ASSERT_EQ(run.exitStatus, 0) << run.output;
    }
    auto saved = readFile(options.flashFile);
    ASSERT_TRUE(saved.has_value());
    EXPECT_EQ(saved->size(), 256u * 1024u);

    BoardOnPty<AvrBoard> again(options); // a "reboot": a new simulator on the saved flash
    ASSERT_TRUE(again.start());
    std::string cid, version;
    ASSERT_TRUE(identify(again.board, again.pty.slavePath, cid, version));
    EXPECT_EQ(cid, "CID:B2560BBBBBBBBBBBBBBBBBBBBBBBBBBB");
    EXPECT_EQ(version, "VERSION:2560-B.2");
}

TEST(AvrBoard, ResetNowStartsTheBootLoaderWithoutOpenDetection)
{
    AvrBoardOptions options;
    options.kind = AvrBoardKind::Mega1284P;
    options.resetOnOpen = false;
    options.programHex = firmware("identity_a_1284p");
    BoardOnPty<AvrBoard> b(options);
    ASSERT_TRUE(b.start());

    // Without a reset the application owns the line and avrdude finds no boot loader.
    std::string cid, version;
    ASSERT_TRUE(identify(b.board, b.pty.slavePath, cid, version, false));
    EXPECT_EQ(b.board.resetCount(), 0u);

    b.board.resetNow(); // what a DTR handler does
    ToolRun run = flash(options.kind, b.pty.slavePath, firmware("identity_a_1284p"));
    EXPECT_EQ(run.exitStatus, 0) << run.output;
    EXPECT_EQ(b.board.resetCount(), 1u);
}

TEST(AvrBoard, StuckFlashByteMakesAvrdudeVerificationFail)
{
    AvrBoardOptions options;
    options.kind = AvrBoardKind::Mega2560;
    options.stuckFlashByte = 0x10;
    BoardOnPty<AvrBoard> b(options);
    ASSERT_TRUE(b.start());
    ToolRun run = flash(options.kind, b.pty.slavePath, firmware("identity_a_2560"));
    EXPECT_NE(run.exitStatus, 0) << run.output;
    EXPECT_NE(run.output.find("verification mismatch"), std::string::npos) << run.output;
    auto image = readIntelHexFile(firmware("identity_a_2560"));
    ASSERT_TRUE(image.has_value());
    EXPECT_NE(b.board.flash()[0x10], image->at(0x10));
}

TEST(AvrBoard, MuteBoardLeavesAvrdudeWithoutAnAnswer)
{
    AvrBoardOptions options;
    options.kind = AvrBoardKind::Mega1284P;
    options.mute = true;
    BoardOnPty<AvrBoard> b(options);
    ASSERT_TRUE(b.start());
    // Two attempts instead of avrdude's ten (about 52 s with the arduino
    // programmer, 30 s with wiring) keep the test short; the outcome is the same.
    ToolRun run = flash(options.kind, b.pty.slavePath, firmware("identity_a_1284p"), {"-xattempts=2"});
    EXPECT_FALSE(run.timedOut);
    EXPECT_NE(run.exitStatus, 0) << run.output;
    EXPECT_NE(run.output.find("not responding"), std::string::npos) << run.output;
    std::printf("avrdude gave up on a mute board after %.2f s\n", run.seconds);
}
