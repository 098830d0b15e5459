// quendral-avr-sim: a simulated ATmega2560 or ATmega1284P board with its real
// boot loader, on a fresh pty (--pty, path printed) or on a given descriptor (--fd).

#include "avr_board.h"
#include "pty.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

using quendral::sim::AvrBoard;
using quendral::sim::AvrBoardKind;
using quendral::sim::AvrBoardOptions;

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
    bool havePty = false;
    bool haveBoard = false;
    int fd = -1;
    std::string peerPath;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--board") {
            std::string b = next();
            haveBoard = true;
            if (b == "2560" || b == "atmega2560") {
                options.kind = AvrBoardKind::Mega2560;
            } else if (b == "1284p" || b == "atmega1284p") {
                options.kind = AvrBoardKind::Mega1284P;
            } else {
                usage();
                return 2;
            }
        } else if (a == "--pty") {
            havePty = true;
        } else if (a == "--fd") {
            fd = std::atoi(next().c_str());
        } else if (a == "--peer-path") {
            peerPath = next();
        } else if (a == "--flash-file") {
            options.flashFile = next();
        } else if (a == "--program") {
            options.programHex = next();
        } else if (a == "--boot-loader") {
            options.bootLoaderHex = next();
        } else if (a == "--boot-loader-first") {
            options.bootIntoBootLoader = true;
        } else if (a == "--no-reset-on-open") {
            options.resetOnOpen = false;
        } else if (a == "--mute") {
            options.mute = true;
        } else if (a == "--stuck-byte") {
            options.stuckFlashByte = static_cast<uint32_t>(std::strtoul(next().c_str(), nullptr, 0));
        } else if (a == "--verbose") {
            options.verbose = true;
        } else {
            usage();
            return 2;
        }
    }
    if (!haveBoard || havePty == (fd >= 0)) {
        usage();
        return 2;
    }

    // Signals are taken by sigwait below, never by the board's thread.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    if (havePty) {
        auto pty = quendral::sim::openPty();
        if (pty.master < 0) {
            std::perror("quendral-avr-sim: pty");
            return 1;
        }
        fd = pty.master;
        peerPath = pty.slavePath;
    }
    AvrBoard board(options);
    if (!board.start(fd, peerPath)) {
        std::fprintf(stderr, "quendral-avr-sim: %s\n", board.error().c_str());
        return 1;
    }
    if (havePty) {
        std::printf("%s\n", peerPath.c_str());
        std::fflush(stdout);
    }
    for (;;) {
        int sig = 0;
        sigwait(&signals, &sig);
        if (sig == SIGUSR1) {
            board.resetNow();
            continue;
        }
        break;
    }
    board.stop();
    return 0;
}
