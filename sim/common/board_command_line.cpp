#include "board_command_line.h"

#include "pty.h"

#include <cstdio>
#include <cstdlib>
#include <pthread.h>

namespace quendral::sim {

bool BoardCommandLine::parse(int argc, char** argv,
                             const std::function<bool(const std::string&, const ValueFetcher&)>& boardOption,
                             void (*usage)())
{
    bool missingValue = false;
    for (int i = 1; i < argc && !missingValue; ++i) {
        const std::string option = argv[i];
        const ValueFetcher value = [&]() -> std::optional<std::string> {
            if (i + 1 >= argc) {
                missingValue = true;
                return std::nullopt;
            }
            return std::string(argv[++i]);
        };
        bool known = true;
        if (option == "--pty") {
            pty = true;
        } else if (option == "--fd") {
            const auto text = value();
            fd = text ? std::atoi(text->c_str()) : -1;
        } else if (option == "--peer-path") {
            peerPath = value().value_or("");
        } else if (option == "--mute") {
            mute = true;
        } else if (option == "--stuck-byte") {
            if (const auto text = value()) {
                stuckFlashByte = static_cast<uint32_t>(std::strtoul(text->c_str(), nullptr, 0));
            }
        } else if (option == "--verbose") {
            verbose = true;
        } else {
            known = boardOption(option, value);
        }
        if (!known) {
            usage();
            return false;
        }
    }
    if (missingValue || pty == (fd >= 0)) {
        usage();
        return false;
    }
    return true;
}

bool BoardCommandLine::openEndpoint(const char* programName)
{
    if (!pty) {
        return true;
    }
    const auto opened = openPty();
    if (opened.master < 0) {
        std::fprintf(stderr, "%s: cannot open a pty\n", programName);
        return false;
    }
    fd = opened.master;
    peerPath = opened.slavePath;
    return true;
}

sigset_t blockSignals(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

void runSignalLoop(const sigset_t& signals, const std::function<bool(int)>& onSignal)
{
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0 || !onSignal(signal)) {
            return;
        }
    }
}

} // namespace quendral::sim
