// The simulated SAM3X board on the device end of a umockdev tty, as the device
// lab will run it: the application's identity as 2341:003E, the 1200-baud touch
// seen from the device end, re-enumeration as the SAM-BA boot loader 03EB:6124,
// bossac (a child process inside the same umockdev world) flashing it, and the
// board coming back as 2341:003E with the new image's identity.

#include "baud_touch.h"
#include "board_on_pty.h"
#include "line_client.h"
#include "run_tool.h"
#include "sam_board.h"
#include "umockdev_testbed.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace quendral::sim;

namespace {

std::string image(const std::string& name)
{
    return std::string(QUENDRAL_SAM_IMAGE_DIR) + "/" + name;
}

// Asks like the application does: once a second until both replies came.
std::string askCid(const std::string& node)
{
    LineClient client(node);
    if (!client.isOpen()) {
        return "cannot open " + node;
    }
    std::string cid, version;
    client.askIdentity(cid, version, 10);
    return cid + " " + version;
}

// Each enumeration gets a new node, as the kernel mostly does.
UsbSerialDeviceInfo identityFor(SamMode mode, int number)
{
    UsbSerialDeviceInfo info;
    info.ttyName = "ttyACM" + std::to_string(number);
    if (mode == SamMode::BootLoader) {
        info.vendorId = 0x03EB;
        info.productId = 0x6124;
        info.product = "SAM-BA boot loader";
    }
    return info;
}

} // namespace

TEST(SambaUmockdev, TouchReEnumerateFlashWithBossacAndComeBackWithTheNewIdentity)
{
    ASSERT_TRUE(UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
    UmockdevTestbed bed;
    auto device = bed.addUsbSerialDevice(identityFor(SamMode::Application, 0));

    SamBoardOptions options;
    options.initialImage = image("identity_a.bin");
    options.bootFromFlash = true;
    options.verbose = std::getenv("QUENDRAL_SIM_VERBOSE") != nullptr;
    SamBoard board(options);
    std::atomic<int> resets{0};
    board.setModeObserver([&](SamMode) { ++resets; });
    ASSERT_TRUE(board.start(device->deviceEnd(), "")); // no node to watch: hang-up and speed only
    EXPECT_EQ(askCid(device->devnode()), "CID:SAMAAAAAAAAAAAAAAAAAAAAAAAAAAAAA VERSION:3.1.0");

    // The application's touch: open at 1200 baud, close.
    ASSERT_TRUE(touchAt1200Baud(device->devnode()));
    ASSERT_TRUE(pollUntil([&] { return resets == 1; }, std::chrono::seconds(5)));
    ASSERT_EQ(board.mode(), SamMode::BootLoader);

    // Re-enumeration as the boot loader, as a device lab does it on the observer's news.
    bed.unplug(*device);
    auto bootLoader = bed.addUsbSerialDevice(identityFor(board.mode(), 1));
    board.attach(bootLoader->deviceEnd(), "");

    ToolRun run = runTool(
        {"bossac", "-i", "--port=ttyACM1", "--usb-port=1", "-e", "-w", "-v", "-b", image("identity_c.bin"), "-R"}, 60);
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    EXPECT_NE(run.output.find("Verify successful"), std::string::npos) << run.output;
    ASSERT_TRUE(pollUntil([&] { return resets == 2; }, std::chrono::seconds(5)));
    ASSERT_EQ(board.mode(), SamMode::Application);

    bed.unplug(*bootLoader);
    auto application = bed.addUsbSerialDevice(identityFor(board.mode(), 2));
    board.attach(application->deviceEnd(), "");
    EXPECT_EQ(askCid(application->devnode()), "CID:SAMCCCCCCCCCCCCCCCCCCCCCCCCCCCCC VERSION:3.3.0");
    board.stop();
}
