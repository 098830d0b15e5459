#include "flashing/avrdude_boards.h"

#include "flashing/board_table.h"

namespace quendral {
namespace {

// The boards avrdude is used for, read from the one board table.
std::vector<AvrdudeBoard> makeBoards()
{
    std::vector<AvrdudeBoard> boards;
    for (const BoardIdentification& row : BoardTable::rows()) {
        if (row.avrdude) {
            // The table's texts are string literals: their data() ends in a NUL.
            boards.push_back({row.identifier, row.avrdude->logLine.data(), row.avrdude->part.data(),
                              row.avrdude->programmer.data(), row.avrdude->baudRate.data()});
        }
    }
    return boards;
}

} // namespace

const AvrdudeBoard* avrdudeBoardFor(std::uint32_t usbIdentifier)
{
    static const std::vector<AvrdudeBoard> boards = makeBoards();
    for (const auto& board : boards) {
        if (board.usbIdentifier == usbIdentifier) {
            return &board;
        }
    }
    return nullptr;
}

std::vector<std::string> avrdudeFlashArguments(const AvrdudeBoard& board, const std::filesystem::path& configFile,
                                               const std::string& serialPort, const std::string& hexFile)
{
    return {"-C" + configFile.string(),   board.part, board.programmer, "-P" + serialPort, board.baudRate, "-D",
            "-Uflash:w:" + hexFile + ":i"};
}

} // namespace quendral
