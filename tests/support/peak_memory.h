#pragma once
// How much memory a piece of work really takes: it runs in a forked child
// that first hands freed heap back to the system (malloc_trim: memory the test
// process freed but kept would otherwise be reused unseen) and resets its peak
// resident size (/proc/self/clear_refs), so the figure is the child's own
// high-water mark above where it started, whatever the test process did
// before. The child reports through a pipe and leaves with _exit, so nothing
// of the test's state runs twice.
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>

namespace quendral::test {

// Under a sanitizer the allocator keeps freed blocks in quarantine and maps
// shadow memory, so resident-size figures say nothing about our code: the
// memory bounds are checked in plain builds only (the behaviour the tests
// check besides runs everywhere).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kPeakMemoryIsMeaningful = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kPeakMemoryIsMeaningful = false;
#else
inline constexpr bool kPeakMemoryIsMeaningful = true;
#endif
#else
inline constexpr bool kPeakMemoryIsMeaningful = true;
#endif

// `bytes` where memory figures mean something, no bound where they do not.
inline constexpr std::size_t peakMemoryBound(std::size_t bytes)
{
    return kPeakMemoryIsMeaningful ? bytes : static_cast<std::size_t>(-1);
}

// This process's figure `field` (VmRSS, VmHWM, ...) from /proc/self/status, in kB.
inline std::optional<std::size_t> statusKilobytes(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) {
            std::istringstream value(line.substr(field.size() + 1));
            std::size_t kilobytes = 0;
            if (value >> kilobytes) {
                return kilobytes;
            }
        }
    }
    return std::nullopt;
}

struct MeasuredWork {
    std::size_t peakGrowth = 0; // bytes by which the peak resident size rose while the work ran
    int result = 0;             // what the work returned
};

// None when the child could not measure or did not end normally.
inline std::optional<MeasuredWork> measurePeakMemory(const std::function<int()>& work)
{
    int fds[2];
    if (::pipe(fds) != 0) {
        return std::nullopt;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return std::nullopt;
    }
    if (child == 0) {
        ::close(fds[0]);
        long long report[2] = {-1, 0}; // growth, result
        ::malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << "5"; // resets VmHWM to the current VmRSS
        const auto before = statusKilobytes("VmRSS");
        report[1] = work();
        const auto peak = statusKilobytes("VmHWM");
        if (before && peak) {
            report[0] = (static_cast<long long>(*peak) - static_cast<long long>(*before)) * 1024;
        }
        const auto written = ::write(fds[1], report, sizeof report);
        ::_exit(written == static_cast<ssize_t>(sizeof report) ? 0 : 1);
    }
    ::close(fds[1]);
    long long report[2] = {-1, 0};
    const auto received = ::read(fds[0], report, sizeof report);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (received != static_cast<ssize_t>(sizeof report) || !WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
        report[0] < 0) {
        return std::nullopt;
    }
    return MeasuredWork{static_cast<std::size_t>(report[0]), static_cast<int>(report[1])};
}

} // namespace quendral::test
