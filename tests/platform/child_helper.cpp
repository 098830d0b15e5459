// A small program for the child-process tests: each mode shows one thing the
// parent needs to observe (open descriptors, argv, both streams, exit codes,
// signals, a process that leaves a grandchild holding the pipes).
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

int listDescriptors()
{
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        return 2;
    }
    const int own = ::dirfd(dir);
    std::vector<int> fds;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const int fd = std::atoi(entry->d_name);
        if (fd != own) {
            fds.push_back(fd);
        }
    }
    ::closedir(dir);
    std::sort(fds.begin(), fds.end());
    std::string text;
    for (const int fd : fds) {
        text += (text.empty() ? "" : " ") + std::to_string(fd);
    }
    std::printf("%s\n", text.c_str());
    return 0;
}

void writeAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0) {
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        return 64;
    }
    const std::string mode = argv[1];
    if (mode == "fds") {
        return listDescriptors();
    }
    if (mode == "args") {
        for (int i = 2; i < argc; ++i) {
            std::printf("[%s]\n", argv[i]);
        }
        return 0;
    }
    if (mode == "echo" && argc >= 4) {
        writeAll(1, argv[2]);
        writeAll(2, argv[3]);
        return argc >= 5 ? std::atoi(argv[4]) : 0;
    }
    if (mode == "flood" && argc >= 3) {
        // Many small writes on both streams, ending with a marker on each.
        const int lines = std::atoi(argv[2]);
        for (int i = 0; i < lines; ++i) {
            writeAll(1, "out " + std::to_string(i) + "\n");
            writeAll(2, "err " + std::to_string(i) + "\n");
        }
        writeAll(1, "END-OUT\n");
        writeAll(2, "END-ERR\n");
        return 0;
    }
    if (mode == "stdin") {
        char buffer[256];
        const ssize_t n = ::read(0, buffer, sizeof buffer);
        std::printf("stdin read %zd\n", n);
        return 0;
    }
    if (mode == "signals") {
        // Reports whether SIGPIPE and SIGINT reached us in their default disposition.
        struct sigaction current {};
        ::sigaction(SIGPIPE, nullptr, &current);
        const bool pipeDefault = current.sa_handler == SIG_DFL;
        sigset_t blocked;
        ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
        std::printf("SIGPIPE %s, SIGINT %s\n", pipeDefault ? "default" : "changed",
                    sigismember(&blocked, SIGINT) ? "blocked" : "unblocked");
        return 0;
    }
    if (mode == "sleep") {
        writeAll(1, "sleeping\n");
        for (;;) {
            ::pause();
        }
    }
    if (mode == "ignore-term") {
        std::signal(SIGTERM, SIG_IGN);
        writeAll(1, "ignoring\n");
        for (;;) {
            ::pause();
        }
    }
    if (mode == "orphan" && argc >= 3) {
        // The grandchild inherits both pipes and keeps them open after we exit.
        if (::fork() == 0) {
            ::sleep(static_cast<unsigned>(std::atoi(argv[2])));
            ::_exit(0);
        }
        writeAll(1, "parent done\n");
        return 3;
    }
    return 64;
}
