#pragma once
// What several benchmarks share: the machine's load, medians, and a writer
// that floods a pseudo-terminal's device end with Controller-like text.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace quendral::bench {

// "/proc/loadavg"'s three averages, to print beside figures taken on a shared machine.
inline std::string loadAverage()
{
    std::ifstream in("/proc/loadavg");
    std::string one;
    std::string five;
    std::string fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

inline double median(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Percentiles of a sample (nearest rank below).
struct Spread {
    double p50 = 0;
    double p99 = 0;
    double max = 0;
    std::size_t n = 0;
};

inline Spread spreadOf(std::vector<double> values)
{
    Spread s;
    if (values.empty()) {
        return s;
    }
    std::sort(values.begin(), values.end());
    const auto at = [&](double q) {
        return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1))];
    };
    s.p50 = at(0.5);
    s.p99 = at(0.99);
    s.max = values.back();
    s.n = values.size();
    return s;
}

// Writes 64-byte lines, as a chatty Controller sends them, into `fd` (made
// non-blocking) on a thread of its own, as fast as the terminal takes them
// (or, with a `bytesPerSecond` above 0, no faster than that on average),
// until destroyed.
class PtyFlood {
public:
    explicit PtyFlood(int fd, double bytesPerSecond = 0) : _fd(fd), _bytesPerSecond(bytesPerSecond)
    {
        for (int i = 0; _block.size() < 4096 - 64; ++i) {
            char line[96];
            std::snprintf(line, sizeof line, "%06d sensor=%5d temp=21.%d relay=on link=up uptime=%09d\r\n", i,
                          i * 7 % 65536, i % 10, i * 13);
            _block += line;
        }
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        _thread = std::thread([this] { run(); });
    }
    ~PtyFlood() { stop(); }
    PtyFlood(const PtyFlood&) = delete;
    PtyFlood& operator=(const PtyFlood&) = delete;

    void stop()
    {
        _running = false;
        if (_thread.joinable()) {
            _thread.join();
        }
    }
    [[nodiscard]] long long written() const { return _written.load(); }

private:
    void run()
    {
        std::size_t offset = 0;
        const auto start = std::chrono::steady_clock::now();
        while (_running.load(std::memory_order_relaxed)) {
            if (_bytesPerSecond > 0) {
                // Ahead of the rate: wait until the clock has caught up with what went out.
                const double due = static_cast<double>(_written.load(std::memory_order_relaxed)) / _bytesPerSecond;
                const double now = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
                if (due > now) {
                    std::this_thread::sleep_for(std::chrono::duration<double>(std::min(due - now, 0.01)));
                    continue;
                }
            }
            const ssize_t n = ::write(_fd, _block.data() + offset, _block.size() - offset);
            if (n > 0) {
                _written.fetch_add(n, std::memory_order_relaxed);
                offset = (offset + static_cast<std::size_t>(n)) % _block.size();
            } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                pollfd p{_fd, POLLOUT, 0};
                ::poll(&p, 1, 50);
            } else if (n < 0 && errno != EINTR) {
                break;
            }
        }
    }

    int _fd;
    double _bytesPerSecond;
    std::string _block;
    std::atomic<bool> _running{true};
    std::atomic<long long> _written{0};
    std::thread _thread;
};

} // namespace quendral::bench
