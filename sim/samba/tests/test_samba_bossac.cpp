// The real bossac against the simulated SAM3X board, with the arguments the
// application uses; then the board boots what was flashed.

#include "baud_touch.h"
#include "board_on_pty.h"
#include "intel_hex.h"
#include "line_client.h"
#include "pty.h"
#include "run_tool.h"
#include "sam3x_memory.h"
#include "sam_board.h"

#include "../../../tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <cmath>

#include <chrono>
#include <fcntl.h>
#include <mutex>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace quendral::sim;

namespace {

std::string image(const std::string& name)
{
    return std::string(QUENDRAL_SAM_IMAGE_DIR) + "/" + name;
}

ToolRun bossac(const std::string& port, const std::string& file)
{
    return runTool({"bossac", "-i", "--port=" + port, "--usb-port=1", "-e", "-w", "-v", "-b", file, "-R"}, 60);
}

// Asks like the application does: both requests once a second until both
// replies came (a board that has just reset may miss the first requests).
bool ask(const std::string& port, std::string& cid, std::string& version, double seconds = 10)
{
    LineClient client(port);
    return client.isOpen() && client.askIdentity(cid, version, static_cast<int>(std::ceil(seconds)));
}

void expectFlashHoldsFile(const SamBoard& board, const std::string& file)
{
    auto bytes = readFile(file);
    ASSERT_TRUE(bytes.has_value());
    auto flash = board.flash();
    ASSERT_EQ(flash.size(), Sam3xMemory::kFlashSize);
    EXPECT_TRUE(std::equal(bytes->begin(), bytes->end(), flash.begin()));
    // Erased beyond the file's last page (bossac fills that page from its buffer).
    size_t pages = (bytes->size() + Sam3xMemory::kPageSize - 1) / Sam3xMemory::kPageSize;
    EXPECT_TRUE(std::all_of(flash.begin() + static_cast<ptrdiff_t>(pages * Sam3xMemory::kPageSize), flash.end(),
                            [](uint8_t b) { return b == 0xff; }));
}

} // namespace

TEST(SambaBossac, FlashesVerifiesSetsBootFlashResetsAndTheImageAnswers)
{
    quendral::test::TempDir dir;
    SamBoardOptions options;
    options.flashFile = (dir.path() / "flash.bin").string();
    BoardOnPty<SamBoard> b(options);
    ASSERT_TRUE(b.start());
    EXPECT_EQ(b.board.mode(), SamMode::BootLoader);
    EXPECT_EQ(b.board.usbVendorId(), 0x03EB);
    EXPECT_EQ(b.board.usbProductId(), 0x6124);

    ToolRun run = bossac(b.pty.slavePath, image("identity_a.bin"));
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    std::printf("bossac erased, wrote and verified 20000 bytes in %.2f s\n", run.seconds);
    EXPECT_NE(run.output.find("Device       : ATSAM3X8"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("Erase flash"), std::string::npos);
    EXPECT_NE(run.output.find("Write 20000 bytes to flash (79 pages)"), std::string::npos);
    EXPECT_NE(run.output.find("100% (79/79 pages)"), std::string::npos);
    EXPECT_NE(run.output.find("Verify successful"), std::string::npos);
    EXPECT_NE(run.output.find("Set boot flash true"), std::string::npos);

    expectFlashHoldsFile(b.board, image("identity_a.bin"));
    ASSERT_TRUE(pollUntil([&] { return b.board.mode() == SamMode::Application; }, std::chrono::seconds(5)));
    EXPECT_TRUE(b.board.bootFromFlash());
    EXPECT_EQ(b.board.usbVendorId(), 0x2341);
    EXPECT_EQ(b.board.usbProductId(), 0x003E);

    std::string cid, version;
    ASSERT_TRUE(ask(b.pty.slavePath, cid, version));
    EXPECT_EQ(cid, "CID:SAMAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
    EXPECT_EQ(version, "VERSION:3.1.0");

    // The flash file holds what was flashed (written at the reset).
    auto saved = readFile(options.flashFile);
    ASSERT_TRUE(saved.has_value());
    auto file = readFile(image("identity_a.bin"));
    ASSERT_TRUE(file.has_value());
    ASSERT_EQ(saved->size(), Sam3xMemory::kFlashSize);
    EXPECT_TRUE(std::equal(file->begin(), file->end(), saved->begin()));
}

TEST(SambaBossac, HexFileIsWrittenAsTextAndItsIdentityStillBoots)
{
    BoardOnPty<SamBoard> b(SamBoardOptions{});
    ASSERT_TRUE(b.start());
    ToolRun run = bossac(b.pty.slavePath, image("identity_b.hex"));
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    std::printf("bossac wrote and verified a %s in %.2f s\n", "30000-byte image as HEX text", run.seconds);
    expectFlashHoldsFile(b.board, image("identity_b.hex")); // bossac 1.9.1 writes the file's bytes as they are
    std::string cid, version;
    ASSERT_TRUE(ask(b.pty.slavePath, cid, version));
    EXPECT_EQ(cid, "CID:SAMBBBBBBBBBBBBBBBBBBBBBBBBBBBBB");
    EXPECT_EQ(version, "VERSION:3.2.0-beta");
}

TEST(SambaBossac, ImageWithoutIdentityLeavesTheBoardSilent)
{
    for (const char* name : {"no_identity.bin", "no_identity.hex"}) {
        BoardOnPty<SamBoard> b(SamBoardOptions{});
        ASSERT_TRUE(b.start());
        ToolRun run = bossac(b.pty.slavePath, image(name));
        ASSERT_EQ(run.exitStatus, 0) << run.output;
        expectFlashHoldsFile(b.board, image(name));
        ASSERT_TRUE(pollUntil([&] { return b.board.mode() == SamMode::Application; }, std::chrono::seconds(5)));
        EXPECT_FALSE(b.board.identity().has_value());
        LineClient client(b.pty.slavePath);
        client.send("getCID\ngetVersion\n");
        EXPECT_EQ(client.waitForLine("", 1.5), "") << name << ": " << client.received();
        EXPECT_TRUE(client.received().empty());
    }
}

TEST(SambaBossac, TouchAt1200BaudReturnsToSamBaThenANewImageBoots)
{
    for (bool watchNode : {true, false}) { // inotify on the node, and hang-up polling alone
        SamBoardOptions options;
        options.initialImage = image("identity_a.bin");
        options.bootFromFlash = true;
        BoardOnPty<SamBoard> b(options);
        std::mutex m;
        std::vector<SamMode> modes;
        b.board.setModeObserver([&](SamMode mode) {
            std::lock_guard lock(m);
            modes.push_back(mode);
        });
        ASSERT_TRUE(b.start(watchNode));
        ASSERT_EQ(b.board.mode(), SamMode::Application);
        std::string cid, version;
        ASSERT_TRUE(ask(b.pty.slavePath, cid, version));
        EXPECT_EQ(cid, "CID:SAMAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");

        ASSERT_TRUE(touchAt1200Baud(b.pty.slavePath)) << watchNode;
        ASSERT_TRUE(pollUntil([&] { return b.board.mode() == SamMode::BootLoader; }, std::chrono::seconds(5)))
            << watchNode;
        EXPECT_FALSE(b.board.bootFromFlash());
        EXPECT_EQ(b.board.usbProductId(), 0x6124);

        ToolRun run = bossac(b.pty.slavePath, image("identity_c.bin"));
        ASSERT_EQ(run.exitStatus, 0) << run.output;
        ASSERT_TRUE(ask(b.pty.slavePath, cid, version));
        EXPECT_EQ(cid, "CID:SAMCCCCCCCCCCCCCCCCCCCCCCCCCCCCC");
        EXPECT_EQ(version, "VERSION:3.3.0");
        b.board.stop();
        std::lock_guard lock(m);
        EXPECT_EQ(modes, (std::vector<SamMode>{SamMode::BootLoader, SamMode::Application})) << watchNode;
    }
}

TEST(SambaBossac, OpeningAtTheApplicationSpeedIsNoTouch)
{
    SamBoardOptions options;
    options.initialImage = image("identity_a.bin");
    options.bootFromFlash = true;
    BoardOnPty<SamBoard> b(options);
    ASSERT_TRUE(b.start());
    for (int i = 0; i < 3; ++i) {
        std::string cid, version;
        ASSERT_TRUE(ask(b.pty.slavePath, cid, version));
    }
    EXPECT_EQ(b.board.mode(), SamMode::Application);
    EXPECT_EQ(b.board.resetCount(), 0u);
}

TEST(SambaBossac, StuckByteMakesBossacVerifyFail)
{
    SamBoardOptions options;
    options.stuckFlashByte = 0x123;
    BoardOnPty<SamBoard> b(options);
    ASSERT_TRUE(b.start());
    ToolRun run = bossac(b.pty.slavePath, image("identity_a.bin"));
    EXPECT_NE(run.exitStatus, 0) << run.output;
    EXPECT_NE(run.output.find("Verify failed"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("Byte errors: 1"), std::string::npos) << run.output;
    EXPECT_EQ(b.board.mode(), SamMode::BootLoader); // bossac stops before boot flash and reset
}

TEST(SambaBossac, MuteBoardIsNoDeviceForBossac)
{
    SamBoardOptions options;
    options.mute = true;
    BoardOnPty<SamBoard> b(options);
    ASSERT_TRUE(b.start());
    ToolRun run = bossac(b.pty.slavePath, image("identity_a.bin"));
    EXPECT_FALSE(run.timedOut);
    EXPECT_NE(run.exitStatus, 0) << run.output;
    EXPECT_NE(run.output.find("No device found on " + b.pty.slavePath), std::string::npos) << run.output;
}

TEST(SambaBossac, ResetNowBootsByTheBootFlashBit)
{
    SamBoardOptions options;
    options.initialImage = image("identity_a.bin");
    BoardOnPty<SamBoard> b(options);
    ASSERT_TRUE(b.start());
    EXPECT_EQ(b.board.mode(), SamMode::BootLoader); // GPNVM1 clear: the ROM runs
    b.board.resetNow();
    ASSERT_TRUE(pollUntil([&] { return b.board.resetCount() == 1; }, std::chrono::seconds(5)));
    EXPECT_EQ(b.board.mode(), SamMode::BootLoader);
}

TEST(SambaBossac, AttachMovesTheBoardToANewDeviceEnd)
{
    SamBoardOptions options;
    options.initialImage = image("identity_a.bin");
    options.bootFromFlash = true;
    BoardOnPty<SamBoard> b(options);
    ASSERT_TRUE(b.start(false));
    Pty other = openPty();
    ASSERT_GE(other.master, 0);
    b.board.attach(other.master, ""); // as after re-enumeration: a new node
    std::string cid, version;
    ASSERT_TRUE(ask(other.slavePath, cid, version));
    EXPECT_EQ(cid, "CID:SAMAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
    EXPECT_FALSE(ask(b.pty.slavePath, cid, version, 0.5)); // the old end is no longer served
    b.board.stop();
    close(other.master);
}
