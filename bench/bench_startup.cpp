// Start-up time and memory of the real window application: launches
// quendral-firmware-updater N times with QUENDRAL_BENCH_STARTUP set (the
// binary then reports its first showing on screen and quits, see
// src/app/startup_probe.h) and prints the median, minimum and maximum of
//   - the time from main() to the first exposed and painted main window,
//   - the time from launching the process to that report (exec, dynamic
//     loading and Qt's platform start included),
//   - the resident memory at first show and 1.5 s later (VmRSS, VmHWM).
//
//   build/bench/bench_startup [RUNS] [BINARY]       (offscreen unless
//   QT_QPA_PLATFORM says otherwise; under xvfb-run for the X11 platform)
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

struct Run {
    double mainToShownMs = 0;
    double launchToShownMs = 0;
    long rssKb = 0;
    long hwmKb = 0;
    long settledRssKb = 0;
    long settledHwmKb = 0;
};

bool launchOnce(const std::string& binary, Run& run)
{
    int out[2];
    if (::pipe(out) != 0) {
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv{const_cast<char*>(binary.c_str()), nullptr};
    const auto started = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (error != 0) {
        ::close(out[0]);
        std::fprintf(stderr, "cannot run %s: %s\n", binary.c_str(), std::strerror(error));
        return false;
    }
    std::string text;
    bool firstLine = false;
    char chunk[512];
    for (ssize_t n; (n = ::read(out[0], chunk, sizeof chunk)) != 0;) {
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        text.append(chunk, static_cast<std::size_t>(n));
        // The log's console echo comes first; the probe's line follows.
        const auto at = text.find("first-show-ms");
        if (!firstLine && at != std::string::npos && text.find('\n', at) != std::string::npos) {
            firstLine = true;
            run.launchToShownMs =
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
        }
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    const auto shown = text.find("first-show-ms");
    const bool parsed =
        shown != std::string::npos && std::sscanf(text.c_str() + shown, "first-show-ms %lf rss-kb %ld hwm-kb %ld",
                                                  &run.mainToShownMs, &run.rssKb, &run.hwmKb) == 3;
    if (const auto settled = text.find("settled "); settled != std::string::npos) {
        std::sscanf(text.c_str() + settled, "settled rss-kb %ld hwm-kb %ld", &run.settledRssKb, &run.settledHwmKb);
    }
    return parsed && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

template <typename Value> void report(const char* what, std::vector<Value> values, const char* unit)
{
    std::sort(values.begin(), values.end());
    std::printf("%-34s median %9.1f  min %9.1f  max %9.1f %s\n", what, static_cast<double>(values[values.size() / 2]),
                static_cast<double>(values.front()), static_cast<double>(values.back()), unit);
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::atoi(argv[1]) : 15;
    const std::string binary = argc > 2 ? argv[2] : QUENDRAL_UPDATER_BINARY;
    ::setenv("QUENDRAL_BENCH_STARTUP", "1", 1);
    ::setenv("QT_QPA_PLATFORM",
             std::getenv("QT_QPA_PLATFORM") != nullptr ? std::getenv("QT_QPA_PLATFORM") : "offscreen", 1);
    // Each launch trims and appends to a log of its own, not the user's.
    char folder[] = "/tmp/quendral-bench-startup-XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        return 1;
    }
    ::setenv("XDG_DATA_HOME", folder, 1);

    std::vector<Run> all;
    Run warmUp; // the first launch pays for a cold page cache
    launchOnce(binary, warmUp);
    for (int i = 0; i < runs; ++i) {
        Run run;
        if (!launchOnce(binary, run)) {
            std::fprintf(stderr, "launch %d did not report its first show\n", i + 1);
            return 1;
        }
        all.push_back(run);
    }
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);

    std::printf("%d launches of %s (platform %s)\n", runs, binary.c_str(), std::getenv("QT_QPA_PLATFORM"));
    auto pick = [&](auto member) {
        std::vector<std::remove_cvref_t<decltype(Run{}.*member)>> values;
        for (const auto& run : all) {
            values.push_back(run.*member);
        }
        return values;
    };
    report("main() to window shown", pick(&Run::mainToShownMs), "ms");
    report("launch to window shown", pick(&Run::launchToShownMs), "ms");
    report("VmRSS at first show", pick(&Run::rssKb), "kB");
    report("VmHWM at first show", pick(&Run::hwmKb), "kB");
    report("VmRSS 1.5 s later", pick(&Run::settledRssKb), "kB");
    report("VmHWM 1.5 s later", pick(&Run::settledHwmKb), "kB");
    return 0;
}
