#include "flashing/avrdude_boards.h"

#include <array>

namespace quendral {
namespace {

constexpr std::array<AvrdudeBoard, 4> kBoards{{
    {0x26BA0003, "Identified Arduino Mega 2560 device type.", "-patmega2560", "-cwiring", "-b115200"},
    {0x23410037, "Identified Arduino Micro device type.", "-patmega32u4", "-cavr109", "-b57600"},
    {0x2A030037, "Identified Arduino Micro device type.", "-patmega32u4", "-cavr109", "-b57600"},
    {0x04036001, "Identified KORBATEK device type.", "-patmega1284p", "-carduino", "-b115200"},
}};

} // namespace

const AvrdudeBoard* avrdudeBoardFor(std::uint32_t usbIdentifier)
{
    for (const auto& board : kBoards) {
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
