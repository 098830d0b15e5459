#pragma once
// The command line the board simulators (quendral-avr-sim, quendral-samba-sim)
// share: where the board's serial end is, its failure modes, and the signal
// loop that drives it from outside.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>

namespace quendral::sim {

struct BoardCommandLine {
    bool pty = false;     // --pty: open a fresh pty and print its path
    int fd = -1;          // --fd N: drive this descriptor (a test bed's device end)
    std::string peerPath; // --peer-path P: what the tool opens on the other side
    bool mute = false;
    std::optional<uint32_t> stuckFlashByte;
    bool verbose = false;

    // Takes the options above from argv; every other option goes to
    // `boardOption(name, value)`, where `value()` fetches the option's argument.
    // Returns false (after `usage`) on an unknown option, a missing argument
    // or neither/both of --pty and --fd.
    using ValueFetcher = std::function<std::optional<std::string>()>;
    bool parse(int argc, char** argv, const std::function<bool(const std::string&, const ValueFetcher&)>& boardOption,
               void (*usage)());

    // Opens the pty when --pty was given: fd and peerPath then name it.
    bool openEndpoint(const char* programName);
};

// Blocks `signals` for every thread started later and waits on them from the
// calling thread: each signal goes to `onSignal`, which says whether to go on.
sigset_t blockSignals(std::initializer_list<int> signals);
void runSignalLoop(const sigset_t& signals, const std::function<bool(int)>& onSignal);

// The rest of every board simulator's main once its own options are read:
// the signals are blocked first (the loop takes them, never the board's
// thread), the endpoint opened, the board made and, after `prepare`, started;
// a pty's path goes to standard output; every signal goes to `onSignal`,
// which says whether to go on. Returns the exit status.
template <typename Board, typename Options>
int runBoardSimulator(BoardCommandLine& line, Options options, const char* programName,
                      std::initializer_list<int> signals, const std::function<void(Board&)>& prepare,
                      const std::function<bool(Board&, int)>& onSignal)
{
    options.mute = line.mute;
    options.stuckFlashByte = line.stuckFlashByte;
    options.verbose = line.verbose;
    const sigset_t blocked = blockSignals(signals);
    if (!line.openEndpoint(programName)) {
        return 1;
    }
    Board board(options);
    if (prepare) {
        prepare(board);
    }
    if (!board.start(line.fd, line.peerPath)) {
        std::fprintf(stderr, "%s: %s\n", programName, board.error().c_str());
        return 1;
    }
    if (line.pty) {
        std::printf("%s\n", line.peerPath.c_str());
        std::fflush(stdout);
    }
    runSignalLoop(blocked, [&board, &onSignal](int signal) { return onSignal(board, signal); });
    board.stop();
    return 0;
}

} // namespace quendral::sim
