#include "flashing/board_table.h"

#include <algorithm>
#include <array>

namespace quendral {
namespace {

constexpr AvrdudeTarget kMega2560{"Identified Arduino Mega 2560 device type.", "-patmega2560", "-cwiring", "-b115200"};
constexpr AvrdudeTarget kMicro{"Identified Arduino Micro device type.", "-patmega32u4", "-cavr109", "-b57600"};
constexpr AvrdudeTarget kKorbatek{"Identified KORBATEK device type.", "-patmega1284p", "-carduino", "-b115200"};

constexpr std::uint32_t kSam3x8eFlash = 512U * 1024U;
constexpr std::uint32_t k32u4Flash = 32U * 1024U;
constexpr std::uint32_t k1284pFlash = 128U * 1024U;
constexpr std::uint32_t k2560Flash = 256U * 1024U;

using F = BoardFamily;
using T = FlashingTool;

// clang-format off
constexpr std::array kBoards = {
    //                 identifier                            vendor  product  board
    //                 family         boot loader  reset         waits  tool       update  avrdude  flash  chip
    BoardIdentification{combinedUsbIdentifier(0x03EB, 0x6124), 0x03EB, 0x6124, "SAM processor in its SAM-BA boot loader",
                        F::Sam,        true,  std::nullopt, true,  T::Bossac,  "due", std::nullopt, kSam3x8eFlash, "SAM3X8E"},
    BoardIdentification{combinedUsbIdentifier(0x2341, 0x003E), 0x2341, 0x003E, "SAM board on its native USB port",
                        F::Sam,        false, 0,            true,  T::Bossac,  "due", std::nullopt, kSam3x8eFlash, "SAM3X8E"},
    BoardIdentification{combinedUsbIdentifier(0x2341, 0x8037), 0x2341, 0x8037, "ATmega32U4 board running its firmware",
                        F::Atmega32U4, false, 1,            true,  T::Avrdude, std::nullopt, std::nullopt, k32u4Flash, "ATmega32U4"},
    // Not reset although it runs its firmware: kept as the boards have always been handled.
    BoardIdentification{combinedUsbIdentifier(0x2A03, 0x8037), 0x2A03, 0x8037,
                        "ATmega32U4 board running its firmware (second vendor identifier)",
                        F::Atmega32U4, false, std::nullopt, true,  T::Avrdude, std::nullopt, std::nullopt, k32u4Flash, "ATmega32U4"},
    BoardIdentification{combinedUsbIdentifier(0x2341, 0x0037), 0x2341, 0x0037, "ATmega32U4 board in its boot loader",
                        F::Atmega32U4, true,  std::nullopt, true,  T::Avrdude, std::nullopt, kMicro, k32u4Flash, "ATmega32U4"},
    BoardIdentification{combinedUsbIdentifier(0x2A03, 0x0037), 0x2A03, 0x0037,
                        "ATmega32U4 board in its boot loader (second vendor identifier)",
                        F::Atmega32U4, true,  std::nullopt, true,  T::Avrdude, std::nullopt, kMicro, k32u4Flash, "ATmega32U4"},
    BoardIdentification{combinedUsbIdentifier(0x0403, 0x6001), 0x0403, 0x6001,
                        "KORBATEK board (ATmega1284P) behind an FTDI FT232R USB serial adapter",
                        F::AvrSerial,  false, std::nullopt, false, T::Avrdude, std::nullopt, kKorbatek, k1284pFlash, "ATmega1284P"},
    BoardIdentification{combinedUsbIdentifier(0x26BA, 0x0003), 0x26BA, 0x0003,
                        "ATmega2560 board behind a USB serial adapter with these identifiers",
                        F::AvrSerial,  false, std::nullopt, false, T::Avrdude, std::nullopt, kMega2560, k2560Flash, "ATmega2560"},
};
// clang-format on

static_assert(std::all_of(kBoards.begin(), kBoards.end(), [](const BoardIdentification& row) {
    return row.identifier == combinedUsbIdentifier(row.vendorId, row.productId);
}));

} // namespace

std::span<const BoardIdentification> BoardTable::rows()
{
    return kBoards;
}

const BoardIdentification* BoardTable::find(CombinedUsbIdentifier identifier)
{
    const auto found = std::find_if(kBoards.begin(), kBoards.end(), [identifier](const BoardIdentification& row) {
        return row.identifier == identifier;
    });
    return found != kBoards.end() ? &*found : nullptr;
}

std::vector<CombinedUsbIdentifier> BoardTable::bootloaderIdentifiers(BoardFamily family)
{
    std::vector<CombinedUsbIdentifier> result;
    for (const BoardIdentification& row : kBoards) {
        if (row.family == family && row.inBootloader) {
            result.push_back(row.identifier);
        }
    }
    return result;
}

} // namespace quendral
