// quendral-samba-sim: a simulated SAM3X8E board whose SAM-BA boot monitor the
// real bossac flashes, on a fresh pty (--pty, path printed) or a given descriptor.

#include "board_command_line.h"
#include "sam_board.h"

#include <csignal>
#include <cstdio>
#include <string>

using namespace quendral::sim;

namespace {

void usage()
{
    std::fprintf(stderr, "usage: quendral-samba-sim (--pty | --fd N [--peer-path P]) [options]\n"
                         "  --flash-out F      keep the flash in F (loaded at start if present; written at every "
                         "reset and at exit)\n"
                         "  --image FILE       put FILE at the start of flash (.bin, or .hex as bossac writes it)\n"
                         "  --boot-flash       start in the flashed application (GPNVM1 set)\n"
                         "  --mute             never answer\n"
                         "  --stuck-byte OFF   this flash offset never keeps what is written\n"
                         "  --verbose          trace SAM-BA commands and resets on standard error\n"
                         "Signals: SIGUSR1 resets the board, SIGUSR2 is the 1200-baud touch.\n");
}

} // namespace

int main(int argc, char** argv)
{
    SamBoardOptions options;
    BoardCommandLine line;
    const bool parsed = line.parse(
        argc, argv,
        [&](const std::string& option, const BoardCommandLine::ValueFetcher& value) {
            if (option == "--flash-out") {
                options.flashFile = value().value_or("");
            } else if (option == "--image") {
                options.initialImage = value().value_or("");
            } else if (option == "--boot-flash") {
                options.bootFromFlash = true;
            } else {
                return false;
            }
            return true;
        },
        usage);
    if (!parsed) {
        return 2;
    }
    const auto announceModes = [](SamBoard& board) {
        board.setModeObserver([&board](SamMode mode) {
            std::fprintf(stderr, "quendral-samba-sim: now %s (USB %04x:%04x)\n",
                         mode == SamMode::BootLoader ? "in SAM-BA" : "running the application", board.usbVendorId(),
                         board.usbProductId());
        });
    };
    return runBoardSimulator<SamBoard>(line, options, "quendral-samba-sim", {SIGINT, SIGTERM, SIGUSR1, SIGUSR2},
                                       announceModes, [](SamBoard& board, int signal) {
                                           if (signal == SIGUSR1) {
                                               board.resetNow();
                                           } else if (signal == SIGUSR2) {
                                               board.touch1200();
                                           } else {
                                               return false;
                                           }
                                           return true;
                                       });
}
