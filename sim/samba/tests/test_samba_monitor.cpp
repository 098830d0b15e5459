// The SAM-BA monitor and the SAM3X memory it serves, command by command.

#include "sam3x_memory.h"
#include "samba_monitor.h"

#include <gtest/gtest.h>

#include <string>

using namespace quendral::sim;

namespace {

struct Monitor {
    Sam3xMemory memory;
    SambaMonitor monitor{memory};

    std::vector<uint8_t> send(const std::string& text)
    {
        std::vector<uint8_t> out;
        monitor.feed(reinterpret_cast<const uint8_t*>(text.data()), text.size(), out);
        return out;
    }
    std::vector<uint8_t> send(const std::vector<uint8_t>& bytes)
    {
        std::vector<uint8_t> out;
        monitor.feed(bytes.data(), bytes.size(), out);
        return out;
    }
    uint32_t word(uint32_t addr)
    {
        char cmd[32];
        std::snprintf(cmd, sizeof cmd, "w%08X,4#", addr);
        auto out = send(cmd);
        EXPECT_EQ(out.size(), 4u);
        return out.size() == 4
                   ? uint32_t{out[0]} | uint32_t{out[1]} << 8 | uint32_t{out[2]} << 16 | uint32_t{out[3]} << 24
                   : 0;
    }
    void writeWord(uint32_t addr, uint32_t value)
    {
        char cmd[32];
        std::snprintf(cmd, sizeof cmd, "W%08X,%08X#", addr, value);
        EXPECT_TRUE(send(cmd).empty());
    }
    void flashCommand(uint32_t eefc, uint8_t cmd, uint16_t arg)
    {
        writeWord(eefc + 4, 0x5A000000u | uint32_t{arg} << 8 | cmd);
    }
};

} // namespace

TEST(SambaMonitor, BinaryModeVersionAndChipIdentification)
{
    Monitor m;
    EXPECT_EQ(m.send("N#"), (std::vector<uint8_t>{'\n', '\r'}));
    auto v = m.send("V#");
    EXPECT_EQ(std::string(v.begin(), v.end()), SambaMonitor::versionText());
    EXPECT_EQ(m.word(0x400E0940), 0x285E0A60u);
    EXPECT_EQ(m.word(0x400E0740), 0u); // not a SAM4: bossac must look further
    EXPECT_EQ(m.word(0xE000ED00) & 0xfff0u, 0xC230u);
}

TEST(SambaMonitor, SendThenReceiveReturnsTheBytesAcrossSplitWrites)
{
    Monitor m;
    m.send("N#");
    std::vector<uint8_t> data(300);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i * 7);
    }
    std::string cmd = "S20002000,0000012C#";
    m.send(cmd.substr(0, 5));
    m.send(cmd.substr(5));
    m.send(std::vector<uint8_t>(data.begin(), data.begin() + 100));
    m.send(std::vector<uint8_t>(data.begin() + 100, data.end()));
    EXPECT_EQ(m.send("R20002000,12C#"), data);
    EXPECT_EQ(m.send("o20002001,1#"), std::vector<uint8_t>{7});
    EXPECT_EQ(m.send("h20002001,2#"), (std::vector<uint8_t>{7, 14}));
}

TEST(SambaMonitor, FlashChangesOnlyWithTheWritePageCommand)
{
    Monitor m;
    m.send("N#");
    m.writeWord(0x00080100, 0x11223344);
    EXPECT_EQ(m.word(0x00080100), 0xFFFFFFFFu);   // still in the latch buffer
    m.flashCommand(Sam3xMemory::kEefc0, 0x03, 1); // erase and write page 1
    EXPECT_EQ(m.word(0x00080100), 0x11223344u);
    EXPECT_EQ(m.word(0x00080104), 0xFFFFFFFFu);
    // Bank 1 pages are numbered from the bank's start.
    m.writeWord(0x000C0000, 0xCAFEF00D);
    m.flashCommand(Sam3xMemory::kEefc1, 0x01, 0);
    EXPECT_EQ(m.word(0x000C0000), 0xCAFEF00Du);
    // Erasing bank 0 leaves bank 1.
    m.flashCommand(Sam3xMemory::kEefc0, 0x05, 0);
    EXPECT_EQ(m.word(0x00080100), 0xFFFFFFFFu);
    EXPECT_EQ(m.word(0x000C0000), 0xCAFEF00Du);
    EXPECT_EQ(m.memory.pagesWritten(), 2u);
}

TEST(SambaMonitor, WordCopyAppletIsEmulatedFromItsParameters)
{
    Monitor m;
    m.send("N#");
    std::vector<uint8_t> page(256);
    for (size_t i = 0; i < page.size(); ++i) {
        page[i] = static_cast<uint8_t>(255 - i);
    }
    m.send("S20001034,100#");
    m.send(page);
    m.writeWord(0x20001020, 0x20010000); // stack
    m.writeWord(0x20001024, 0x20001001); // entry (Thumb)
    m.writeWord(0x20001028, 0x00080200); // destination
    m.writeWord(0x2000102C, 0x20001034); // source
    m.writeWord(0x20001030, 64);         // words
    EXPECT_TRUE(m.send("G20001020#").empty());
    EXPECT_EQ(m.monitor.appletRuns(), 1u);
    m.flashCommand(Sam3xMemory::kEefc0, 0x01, 2);
    EXPECT_EQ(m.send("R00080200,100#"), page);
}

TEST(SambaMonitor, GoWithoutAnAppletRunsNothing)
{
    Monitor m;
    m.send("N#");
    m.send("G00080000#");
    EXPECT_EQ(m.monitor.appletRuns(), 0u);
}

TEST(SambaMonitor, BootFlashBitAndFlashStatus)
{
    Monitor m;
    m.send("N#");
    m.flashCommand(Sam3xMemory::kEefc0, 0x0B, 1); // SGPB 1
    m.flashCommand(Sam3xMemory::kEefc0, 0x0D, 0); // GGPB
    EXPECT_EQ(m.word(Sam3xMemory::kEefc0 + 0xC) & 2u, 2u);
    EXPECT_TRUE(m.memory.bootFromFlash());
    m.flashCommand(Sam3xMemory::kEefc0, 0x0C, 1); // CGPB 1
    EXPECT_FALSE(m.memory.bootFromFlash());
    // A command without the key is refused; the error shows once.
    m.writeWord(Sam3xMemory::kEefc0 + 4, 0x0000000B);
    EXPECT_EQ(m.word(Sam3xMemory::kEefc0 + 8), 0x3u);
    EXPECT_EQ(m.word(Sam3xMemory::kEefc0 + 8), 0x1u);
    EXPECT_FALSE(m.memory.bootFromFlash());
}

TEST(SambaMonitor, LockedRegionRefusesWrites)
{
    Monitor m;
    m.send("N#");
    m.flashCommand(Sam3xMemory::kEefc0, 0x08, 0); // lock region 0
    m.flashCommand(Sam3xMemory::kEefc0, 0x0A, 0); // GLB
    EXPECT_EQ(m.word(Sam3xMemory::kEefc0 + 0xC), 1u);
    m.writeWord(0x00080000, 0);
    m.flashCommand(Sam3xMemory::kEefc0, 0x01, 0);
    EXPECT_EQ(m.word(Sam3xMemory::kEefc0 + 8) & 4u, 4u); // FLOCKE
    EXPECT_EQ(m.word(0x00080000), 0xFFFFFFFFu);
}

TEST(SambaMonitor, UniqueIdentifierReadsInPlaceOfFlash)
{
    Monitor m;
    m.send("N#");
    m.flashCommand(Sam3xMemory::kEefc0, 0x0E, 0);
    auto id = m.send("R00080000,10#");
    m.flashCommand(Sam3xMemory::kEefc0, 0x0F, 0);
    EXPECT_EQ(std::string(id.begin(), id.begin() + 4), "QSIM");
    EXPECT_EQ(m.word(0x00080000), 0xFFFFFFFFu);
}

TEST(SambaMonitor, ResetControllerNeedsItsKey)
{
    Monitor m;
    m.send("N#");
    m.writeWord(Sam3xMemory::kResetControl, 0x0000000D);
    EXPECT_FALSE(m.memory.takeResetRequest());
    m.writeWord(Sam3xMemory::kResetControl, 0xA500000D);
    EXPECT_TRUE(m.memory.takeResetRequest());
    EXPECT_FALSE(m.memory.takeResetRequest());
}

TEST(SambaMonitor, StuckByteNeverKeepsTheWrittenValue)
{
    Monitor m;
    m.memory.setStuckByte(0x105);
    m.send("N#");
    m.writeWord(0x00080104, 0x44332211);
    m.flashCommand(Sam3xMemory::kEefc0, 0x03, 1);
    EXPECT_EQ(m.word(0x00080104), 0x44332311u);
}

TEST(SambaMonitor, TerminalModeAnswersInText)
{
    Monitor m;
    auto out = m.send("T#");
    EXPECT_EQ(std::string(out.begin(), out.end()), "\n\r>");
    out = m.send("w400E0940,4#");
    EXPECT_EQ(std::string(out.begin(), out.end()), "\n\r0x285E0A60\n\r");
}
