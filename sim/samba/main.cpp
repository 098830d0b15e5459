// quendral-samba-sim: a simulated SAM3X8E board whose SAM-BA boot monitor the
// real bossac flashes, on a fresh pty (--pty, path printed) or a given descriptor.

#include "pty.h"
#include "sam_board.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

using quendral::sim::SamBoard;
using quendral::sim::SamBoardOptions;
using quendral::sim::SamMode;

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
    bool havePty = false;
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
        if (a == "--pty") {
            havePty = true;
        } else if (a == "--fd") {
            fd = std::atoi(next().c_str());
        } else if (a == "--peer-path") {
            peerPath = next();
        } else if (a == "--flash-out") {
            options.flashFile = next();
        } else if (a == "--image") {
            options.initialImage = next();
        } else if (a == "--boot-flash") {
            options.bootFromFlash = true;
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
    if (havePty == (fd >= 0)) {
        usage();
        return 2;
    }
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    if (havePty) {
        auto pty = quendral::sim::openPty();
        if (pty.master < 0) {
            std::perror("quendral-samba-sim: pty");
            return 1;
        }
        fd = pty.master;
        peerPath = pty.slavePath;
    }
    SamBoard board(options);
    board.setModeObserver([&board](SamMode mode) {
        std::fprintf(stderr, "quendral-samba-sim: now %s (USB %04x:%04x)\n",
                     mode == SamMode::BootLoader ? "in SAM-BA" : "running the application", board.usbVendorId(),
                     board.usbProductId());
    });
    if (!board.start(fd, peerPath)) {
        std::fprintf(stderr, "quendral-samba-sim: %s\n", board.error().c_str());
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
        } else if (sig == SIGUSR2) {
            board.touch1200();
        } else {
            break;
        }
    }
    board.stop();
    return 0;
}
