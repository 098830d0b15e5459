// The check every image passes before a board is told of an update.
#include "../support/temp_dir.h"
#include "intel_hex.h"

#include "controller/firmware_image_check.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace quendral;
using namespace quendral::firmware;

namespace {

constexpr std::uint32_t k2560Flash = 256U * 1024U;

std::span<const std::uint8_t> bytesOf(const std::string& text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::optional<std::string> hexProblem(const std::string& text, std::uint32_t flash = k2560Flash)
{
    return intelHexProblem(bytesOf(text), flash);
}

const BoardIdentification& board(std::uint16_t vendor, std::uint16_t product)
{
    const BoardIdentification* row = BoardTable::find(combinedUsbIdentifier(vendor, product));
    if (row == nullptr) {
        throw std::runtime_error("not in the board table");
    }
    return *row;
}

const std::string kGoodHex = sim::toIntelHex(std::vector<std::uint8_t>(40, 0xA5));

} // namespace

TEST(IntelHexCheck, AWellFormedFileInsideTheFlashPasses)
{
    EXPECT_EQ(hexProblem(kGoodHex), std::nullopt);
}

TEST(IntelHexCheck, CarriageReturnLineEndsAndBlankLinesAreRead)
{
    std::string crlf;
    for (const char c : kGoodHex) {
        crlf += c == '\n' ? std::string("\r\n\n") : std::string(1, c);
    }
    EXPECT_EQ(hexProblem(crlf), std::nullopt);
}

TEST(IntelHexCheck, AnEmptyFileIsRefused)
{
    EXPECT_EQ(hexProblem(""), "the file is empty");
}

TEST(IntelHexCheck, AFileWithOnlyTheEndRecordHoldsNothingToWrite)
{
    EXPECT_EQ(hexProblem(":00000001FF\n"), "the file holds no data to write");
}

TEST(IntelHexCheck, AWrongChecksumIsFoundOnItsLine)
{
    std::string broken = kGoodHex;
    const std::size_t secondLine = broken.find('\n') + 1;
    const std::size_t checksum = broken.find('\n', secondLine) - 1;
    broken[checksum] = broken[checksum] == '0' ? '1' : '0';
    EXPECT_EQ(hexProblem(broken), "line 2: the record's checksum is wrong");
}

TEST(IntelHexCheck, AFileCutShortHasNoEndRecord)
{
    const std::string cut = kGoodHex.substr(0, kGoodHex.rfind(":00000001FF"));
    EXPECT_EQ(hexProblem(cut), "the file has no end-of-file record (it may have been cut short)");
}

TEST(IntelHexCheck, TextThatIsNoRecordIsRefused)
{
    EXPECT_EQ(hexProblem("<html>Not found</html>\n" + kGoodHex),
              "line 1: not an Intel HEX record (it does not start with \":\")");
    EXPECT_EQ(hexProblem(":10000000ZZ\n"), "line 1: the record holds characters that are not hexadecimal digits");
    EXPECT_EQ(hexProblem(":0400000001\n"), "line 1: the record's length does not match its byte count");
    EXPECT_EQ(hexProblem(":00000006FA\n"), "line 1: unknown record type 6");
}

TEST(IntelHexCheck, DataBeyondTheFlashIsRefusedWithItsAddress)
{
    // 32 bytes at 0x7FF0: the last 16 end at 0x800F, past a 32 KiB flash.
    const std::string hex = sim::toIntelHex(std::vector<std::uint8_t>(32, 1), 0x7FF0);
    EXPECT_EQ(hexProblem(hex, 32U * 1024U), "line 2: address 0x800F lies outside the chip's 32 KiB of flash");
    EXPECT_EQ(hexProblem(hex, 64U * 1024U), std::nullopt);
}

TEST(IntelHexCheck, ExtendedAddressesCountTowardsTheFlash)
{
    // An extended linear address of 0x0004 puts the data at 0x40000: past 256 KiB.
    const std::string linear = ":020000040004F6\n" + sim::toIntelHex({1, 2, 3, 4});
    EXPECT_EQ(hexProblem(linear), "line 2: address 0x40003 lies outside the chip's 256 KiB of flash");
    EXPECT_EQ(hexProblem(linear, 512U * 1024U), std::nullopt);
    // A segment of 0x3000 puts it at 0x30000: inside 256 KiB, outside 128 KiB.
    const std::string segment = ":020000023000CC\n" + sim::toIntelHex({1, 2, 3, 4});
    EXPECT_EQ(hexProblem(segment), std::nullopt);
    EXPECT_EQ(hexProblem(segment, 128U * 1024U), "line 2: address 0x30003 lies outside the chip's 128 KiB of flash");
}

TEST(IntelHexCheck, WhatFollowsTheEndRecordIsNotRead)
{
    EXPECT_EQ(hexProblem(kGoodHex + "anything at all\n"), std::nullopt);
}

TEST(BinaryImageCheck, EmptyAndOverSizeImagesAreRefused)
{
    EXPECT_EQ(binaryImageProblem({}, 512U * 1024U), "the file is empty");
    const std::vector<std::uint8_t> fits(512U * 1024U, 0xFF);
    EXPECT_EQ(binaryImageProblem(fits, 512U * 1024U), std::nullopt);
    const std::vector<std::uint8_t> tooLarge(512U * 1024U + 1U, 0xFF);
    EXPECT_EQ(binaryImageProblem(tooLarge, 512U * 1024U),
              "the image is 524289 bytes, larger than the chip's 512 KiB of flash");
}

TEST(ImageCheckByBoard, EachBoardIsCheckedAsItsToolReadsTheFile)
{
    const std::string notHex = "\x7f"
                               "ELF binary";
    // bossac writes the bytes as they are.
    EXPECT_EQ(imageProblem(bytesOf(notHex), board(0x03EB, 0x6124)), std::nullopt);
    // avrdude reads Intel HEX, into the flash of the board's chip.
    EXPECT_NE(imageProblem(bytesOf(notHex), board(0x26BA, 0x0003)), std::nullopt);
    const std::string past128k = ":020000040002F8\n" + sim::toIntelHex({1, 2});
    EXPECT_EQ(imageProblem(bytesOf(past128k), board(0x26BA, 0x0003)), std::nullopt);
    EXPECT_NE(imageProblem(bytesOf(past128k), board(0x0403, 0x6001)), std::nullopt);
    const std::string past32k = sim::toIntelHex({1, 2}, 0x8000);
    EXPECT_NE(imageProblem(bytesOf(past32k), board(0x2341, 0x0037)), std::nullopt);
    EXPECT_EQ(imageProblem(bytesOf(past32k), board(0x26BA, 0x0003)), std::nullopt);
}

TEST(ImageCheckByBoard, FilesThatAreMissingOrNoFilesAreNamed)
{
    test::TempDir dir;
    const auto missing = dir.path() / "intermediate_due.hex";
    EXPECT_EQ(imageFileProblem(missing, board(0x2341, 0x003E)), missing.string() + " does not exist");
    EXPECT_EQ(imageFileProblem(dir.path(), board(0x2341, 0x003E)), dir.path().string() + " is not a file");
    std::ofstream(missing).close();
    EXPECT_EQ(imageFileProblem(missing, board(0x2341, 0x003E)), "intermediate_due.hex: the file is empty");
    std::ofstream(missing) << kGoodHex;
    EXPECT_EQ(imageFileProblem(missing, board(0x2341, 0x003E)), std::nullopt);
}
