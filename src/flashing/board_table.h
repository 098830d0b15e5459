#pragma once
// The boards this application knows, by the combined USB identifier of the
// port they sit behind (vendor in the upper 16 bits, product in the lower 16;
// 0 when unknown). One table says what each board is and what the update
// check, the upload driver and the avrdude wrapper do with it; those parts
// look a board up here instead of testing identifiers of their own.
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace quendral {

using CombinedUsbIdentifier = std::uint32_t;

[[nodiscard]] constexpr CombinedUsbIdentifier combinedUsbIdentifier(std::uint16_t vendorId, std::uint16_t productId)
{
    return (static_cast<CombinedUsbIdentifier>(vendorId) << 16) | productId;
}

enum class BoardFamily {
    Sam,        // the KorbatekDue's SAM processor: native USB, flashed by bossac
    Atmega32U4, // native USB AVR boards: a boot loader with a USB identity of its own
    AvrSerial,  // AVR boards behind a USB serial adapter: the boot loader shares the port
};

enum class FlashingTool { Avrdude, Bossac };

// The avrdude arguments that fit a board ("-p...", "-c...", "-b...") and the
// line the wrapper logs when it recognises the board.
struct AvrdudeTarget {
    std::string_view logLine;
    std::string_view part;
    std::string_view programmer;
    std::string_view baudRate;
};

struct BoardIdentification {
    CombinedUsbIdentifier identifier;
    std::uint16_t vendorId;
    std::uint16_t productId;
    std::string_view board;
    BoardFamily family;
    // The board is in its boot loader (the identity the upload driver waits for).
    bool inBootloader;
    // The upload driver's 1200-baud touch before waiting, with its delay in
    // whole seconds; none: no reset (also deliberately for one running board).
    std::optional<int> resetDelaySeconds;
    // The upload driver waits for the family's boot-loader identity to appear;
    // otherwise it flashes the selected port at once.
    bool waitsForBootloader;
    FlashingTool tool;
    // Update checks are offered for this board; the platform name the update
    // server and the intermediate firmware use ("due").
    std::optional<std::string_view> updatePlatform;
    // The avrdude wrapper's arguments; none where avrdude does not know the board.
    std::optional<AvrdudeTarget> avrdude;
    // The chip's program flash: every byte of an image must land inside it.
    std::uint32_t flashBytes;
    // The chip, as an owner reads it in a message.
    std::string_view chip;
};

// The one table of known boards. The update check, the upload driver, the
// avrdude wrapper, the port list and the image check all ask it.
class BoardTable {
public:
    // Every known board, in a fixed order.
    [[nodiscard]] static std::span<const BoardIdentification> rows();
    // The row of an identifier, or nullptr for an unknown one (0 included).
    [[nodiscard]] static const BoardIdentification* find(CombinedUsbIdentifier identifier);
    // The boot-loader identities of a family, in table order: what the upload
    // driver's wait looks for after the reset.
    [[nodiscard]] static std::vector<CombinedUsbIdentifier> bootloaderIdentifiers(BoardFamily family);
};

} // namespace quendral
