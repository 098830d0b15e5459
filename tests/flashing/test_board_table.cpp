// The table of known boards: identifiers and what each one's update does.
#include "flashing/board_table.h"

#include <gtest/gtest.h>

#include <set>

using namespace quendral;

TEST(BoardIdentification, CombinedIdentifierPutsTheVendorAboveTheProduct)
{
    EXPECT_EQ(combinedUsbIdentifier(0x2341, 0x8037), 0x23418037u);
    EXPECT_EQ(combinedUsbIdentifier(0x03EB, 0x6124), 0x03EB6124u);
    EXPECT_EQ(combinedUsbIdentifier(0, 0), 0u);
    EXPECT_EQ(combinedUsbIdentifier(0xFFFF, 0xFFFF), 0xFFFFFFFFu);
}

TEST(BoardIdentification, KnowsExactlyTheEightBoards)
{
    std::set<CombinedUsbIdentifier> known;
    for (const auto& row : BoardTable::rows()) {
        known.insert(row.identifier);
        EXPECT_EQ(row.identifier, combinedUsbIdentifier(row.vendorId, row.productId));
        EXPECT_EQ(BoardTable::find(row.identifier), &row);
    }
    const std::set<CombinedUsbIdentifier> expected = {0x03EB6124, 0x2341003E, 0x23418037, 0x2A038037,
                                                      0x23410037, 0x2A030037, 0x04036001, 0x26BA0003};
    EXPECT_EQ(known, expected);
    EXPECT_EQ(BoardTable::rows().size(), expected.size());
    EXPECT_EQ(BoardTable::find(0), nullptr);
    EXPECT_EQ(BoardTable::find(0x23418036), nullptr);
}

TEST(BoardIdentification, OnlyTheSamBoardIsOfferedUpdatesAndItsPlatformIsDue)
{
    for (const auto& row : BoardTable::rows()) {
        SCOPED_TRACE(row.board);
        const bool sam = row.identifier == 0x03EB6124 || row.identifier == 0x2341003E;
        EXPECT_EQ(row.family == BoardFamily::Sam, sam);
        EXPECT_EQ(row.updatePlatform.has_value(), sam);
        if (sam) {
            EXPECT_EQ(*row.updatePlatform, "due");
            EXPECT_EQ(row.tool, FlashingTool::Bossac);
        } else {
            EXPECT_EQ(row.tool, FlashingTool::Avrdude);
        }
    }
}

TEST(BoardIdentification, ResetsAndWaitsAsTheUploadDriverDoes)
{
    struct Expected {
        CombinedUsbIdentifier identifier;
        std::optional<int> resetDelay;
        bool waits;
        bool inBootloader;
    };
    const Expected expected[] = {
        {0x03EB6124, std::nullopt, true, true},
        {0x2341003E, 0, true, false},
        {0x23418037, 1, true, false},
        {0x2A038037, std::nullopt, true, false},
        {0x23410037, std::nullopt, true, true},
        {0x2A030037, std::nullopt, true, true},
        {0x04036001, std::nullopt, false, false},
        {0x26BA0003, std::nullopt, false, false},
    };
    for (const auto& e : expected) {
        const BoardIdentification* row = BoardTable::find(e.identifier);
        ASSERT_NE(row, nullptr) << std::hex << e.identifier;
        SCOPED_TRACE(row->board);
        EXPECT_EQ(row->resetDelaySeconds, e.resetDelay);
        EXPECT_EQ(row->waitsForBootloader, e.waits);
        EXPECT_EQ(row->inBootloader, e.inBootloader);
    }
    EXPECT_EQ(BoardTable::bootloaderIdentifiers(BoardFamily::Sam), std::vector<CombinedUsbIdentifier>{0x03EB6124});
    EXPECT_EQ(BoardTable::bootloaderIdentifiers(BoardFamily::Atmega32U4),
              (std::vector<CombinedUsbIdentifier>{0x23410037, 0x2A030037}));
    EXPECT_TRUE(BoardTable::bootloaderIdentifiers(BoardFamily::AvrSerial).empty());
}

TEST(BoardIdentification, AvrdudeKnowsTheBoardsItCanFlash)
{
    const auto part = [](CombinedUsbIdentifier id) -> std::string {
        const auto* row = BoardTable::find(id);
        return row && row->avrdude ? std::string(row->avrdude->part) : "";
    };
    EXPECT_EQ(part(0x26BA0003), "-patmega2560");
    EXPECT_EQ(part(0x23410037), "-patmega32u4");
    EXPECT_EQ(part(0x2A030037), "-patmega32u4");
    EXPECT_EQ(part(0x04036001), "-patmega1284p");
    EXPECT_EQ(part(0x23418037), "") << "a running board is never handed to avrdude";
    EXPECT_EQ(part(0x2341003E), "");
    const auto* micro = BoardTable::find(0x23410037);
    ASSERT_TRUE(micro && micro->avrdude);
    EXPECT_EQ(micro->avrdude->programmer, "-cavr109");
    EXPECT_EQ(micro->avrdude->baudRate, "-b57600");
    EXPECT_EQ(micro->avrdude->logLine, "Identified Arduino Micro device type.");
}
