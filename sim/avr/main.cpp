// quendral-avr-sim: a simulated ATmega2560 or ATmega1284P board with its real
// boot loader, on a fresh pty (--pty, path printed) or on a given descriptor (--fd).

#include "avr_board.h"
#include "board_command_line.h"

#include <csignal>
#include <cstdio>
#include <string>

using namespace quendral::sim;

namespace {

void usage()
{
    std::fprintf(stderr, "usage: quendral-avr-sim --board 2560|1284p (--pty | --fd N [--peer-path P]) [options]\n"
                         "  --flash-file F       keep the flash in F (loaded at start, saved after each session)\n"
                         "  --program HEX        put an application into flash before start\n"
                         "  --boot-loader HEX    another boot loader\n"
                         "  --boot-loader-first  start as after an external reset (boot loader waits for the tool)\n"
                         "  --no-reset-on-open   reset only by signal SIGUSR1 (the DTR pulse of a test bed)\n"
                         "  --mute               never answer\n"
                         "  --stuck-byte ADDR    this flash byte never keeps what is programmed\n"
                         "  --verbose\n");
}

} // namespace

int main(int argc, char** argv)
{
    AvrBoardOptions options;
    bool haveBoard = false;
    BoardCommandLine line;
    const bool parsed = line.parse(
        argc, argv,
        [&](const std::string& option, const BoardCommandLine::ValueFetcher& value) {
            if (option == "--board") {
                const std::string board = value().value_or("");
                haveBoard = true;
                if (board == "2560" || board == "atmega2560") {
                    options.kind = AvrBoardKind::Mega2560;
                } else if (board == "1284p" || board == "atmega1284p") {
                    options.kind = AvrBoardKind::Mega1284P;
                } else {
                    return false;
                }
            } else if (option == "--flash-file") {
                options.flashFile = value().value_or("");
            } else if (option == "--program") {
                options.programHex = value().value_or("");
            } else if (option == "--boot-loader") {
                options.bootLoaderHex = value().value_or("");
            } else if (option == "--boot-loader-first") {
                options.bootIntoBootLoader = true;
            } else if (option == "--no-reset-on-open") {
                options.resetOnOpen = false;
            } else {
                return false;
            }
            return true;
        },
        usage);
    if (!parsed || !haveBoard) {
        if (parsed) {
            usage();
        }
        return 2;
    }
    return runBoardSimulator<AvrBoard>(line, options, "quendral-avr-sim", {SIGINT, SIGTERM, SIGUSR1}, nullptr,
                                       [](AvrBoard& board, int signal) {
                                           if (signal != SIGUSR1) {
                                               return false;
                                           }
                                           board.resetNow();
                                           return true;
                                       });
}
