// quendral-controller-sim: a simulated Controller on a fresh pseudo-terminal,
// for trying the application by hand. Prints the port's path, serves until
// interrupted (Ctrl-C).
//
//   quendral-controller-sim [--cid CID] [--version TEXT] [--message TEXT]
//                           [--address ADDR] [--boot-delay SECONDS] [--trailer]
#include "controller_simulator.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {
volatile std::sig_atomic_t gStop = 0;
void onSignal(int /*signal*/)
{
    gStop = 1;
}
} // namespace

int main(int argc, char** argv)
{
    auto simulator = quendral::sim::ControllerSimulator::withPseudoTerminal();
    if (!simulator) {
        std::perror("quendral-controller-sim: cannot create a pseudo-terminal");
        return 1;
    }
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == "--cid" && hasValue) {
            simulator->setCID(argv[++i]);
        } else if (option == "--version" && hasValue) {
            simulator->setVersion(argv[++i]);
        } else if (option == "--message" && hasValue) {
            simulator->setMessage(std::string(argv[++i]));
        } else if (option == "--address" && hasValue) {
            simulator->setAddress(argv[++i]);
        } else if (option == "--boot-delay" && hasValue) {
            simulator->setBootDelay(quendral::Clock::Seconds(std::atof(argv[++i])));
        } else if (option == "--trailer") {
            simulator->setTrailer("\n");
        } else {
            std::fprintf(stderr,
                         "usage: %s [--cid CID] [--version TEXT] [--message TEXT] [--address ADDR] "
                         "[--boot-delay SECONDS] [--trailer]\n",
                         argv[0]);
            return 2;
        }
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    simulator->start();
    std::printf("%s\n", simulator->portPath().c_str());
    std::fflush(stdout);
    while (gStop == 0) {
        ::pause();
    }
    simulator->stop();
    return 0;
}
