// The simulated AVR boards on the device end of a umockdev tty, reset by the
// DTR pulse avrdude gives (seen by the test bed's ioctl handler) instead of by
// open detection; avrdude runs as a child process inside the same world.

#include "avr_board.h"
#include "line_client.h"
#include "poll_until.h"
#include "run_tool.h"
#include "umockdev_testbed.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace quendral::sim;

namespace {

std::string firmware(const std::string& name)
{
    return std::string(QUENDRAL_AVR_FIRMWARE_DIR) + "/" + name + ".hex";
}

struct Case {
    AvrBoardKind kind;
    const char* tty;
    uint16_t vendor;
    uint16_t product;
    const char* part;
    const char* programmer;
    const char* image;
    const char* cid;
};

void flashThroughDtrReset(const Case& c)
{
    ASSERT_TRUE(UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper";
    UmockdevTestbed bed;
    UsbSerialDeviceInfo info;
    info.ttyName = c.tty;
    info.vendorId = c.vendor;
    info.productId = c.product;
    auto device = bed.addUsbSerialDevice(info);

    AvrBoardOptions options;
    options.kind = c.kind;
    options.resetOnOpen = false; // the DTR line resets this board
    AvrBoard board(options);
    std::atomic<bool> dtr{false};
    device->setLineChangeHandler([&](const UmockdevSerialDevice::LineState& lines) {
        // Auto-reset: asserting DTR pulls RESET low through a capacitor.
        if (lines.dtr && !dtr.exchange(true)) {
            board.resetNow();
        } else if (!lines.dtr) {
            dtr = false;
        }
    });
    ASSERT_TRUE(board.start(device->deviceEnd(), ""));

    ToolRun run = runTool({"avrdude", "-C/etc/avrdude.conf", c.part, c.programmer, "-P" + device->devnode(), "-b115200",
                           "-D", "-Uflash:w:" + firmware(c.image) + ":i"},
                          60);
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    EXPECT_NE(run.output.find("bytes of flash verified"), std::string::npos) << run.output;
    EXPECT_GE(board.resetCount(), 1u);
    device->setLineChangeHandler(nullptr);

    // No DTR pulse on this open: the flashed program answers once the boot
    // loader has left for it.
    EXPECT_TRUE(pollUntil([&] { return board.runningApplication(); }, std::chrono::seconds(20)));
    LineClient client(device->devnode());
    EXPECT_EQ(client.askUntilAnswered("getCID\n", "CID:", 10, 1.0), std::string("CID:") + c.cid);
    board.stop();
}

} // namespace

TEST(AvrUmockdev, Mega2560AsItsUsbIdentityIsFlashedThroughTheDtrReset)
{
    flashThroughDtrReset({AvrBoardKind::Mega2560, "ttyACM0", 0x26BA, 0x0003, "-patmega2560", "-cwiring",
                          "identity_b_2560", "B2560BBBBBBBBBBBBBBBBBBBBBBBBBBB"});
}

TEST(AvrUmockdev, Mega1284PBehindAnFtdiAdapterIsFlashedThroughTheDtrReset)
{
    flashThroughDtrReset({AvrBoardKind::Mega1284P, "ttyUSB0", 0x0403, 0x6001, "-patmega1284p", "-carduino",
                          "identity_a_1284p", "A1284PAAAAAAAAAAAAAAAAAAAAAAAAAA"});
}
