#pragma once
// The AVR boards avrdude can flash, by combined USB identifier (vendor in the
// upper 16 bits, product in the lower 16), and the argument lists that go with them.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace quendral {

struct AvrdudeBoard {
    std::uint32_t usbIdentifier;
    const char* logLine;    // logged when the board is recognised
    const char* part;       // "-p..."
    const char* programmer; // "-c..."
    const char* baudRate;   // "-b..."
};

// The board for a combined USB identifier, or nullptr for one avrdude is not
// used for (a board running its own firmware rather than its boot loader, say).
const AvrdudeBoard* avrdudeBoardFor(std::uint32_t usbIdentifier);

// The seven arguments that write `hexFile` into the board behind `serialPort`
// without erasing the chip first.
std::vector<std::string> avrdudeFlashArguments(const AvrdudeBoard& board, const std::filesystem::path& configFile,
                                               const std::string& serialPort, const std::string& hexFile);

} // namespace quendral
