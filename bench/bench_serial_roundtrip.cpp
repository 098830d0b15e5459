// Latency through a real pseudo-terminal: from SerialPort::sendData() to the
// bytes coming back in serialPortDidReceiveData() on the main queue, with an
// echoing device on the other end; and one way, from a device write to the
// delegate. The port is found through libudev on a umockdev tree, so run it
// under umockdev-wrapper:
//
//   umockdev-wrapper build/bench/bench_serial_roundtrip [rounds] [--no-modem-lines]
//
// --no-modem-lines makes the tty answer the line ioctls with ENOTTY, so the
// 10 ms line poll stops after its first try (it otherwise goes through
// umockdev's ioctl handler thread on every tick).
#include "platform/dispatch.h"
#include "serial/serial_port.h"
#include "umockdev_testbed.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace quendral;
using Clock = std::chrono::steady_clock;

namespace {

class CountingDelegate : public SerialPortDelegate {
public:
    void serialPortDidReceiveData(const std::shared_ptr<SerialPort>& /*port*/, const SerialData& data) override
    {
        received.fetch_add(data.size());
    }
    std::atomic<std::size_t> received{0};
};

void report(const char* what, std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    const auto at = [&](double q) {
        return samples[std::min(samples.size() - 1, static_cast<std::size_t>(q * static_cast<double>(samples.size())))];
    };
    std::printf("%-34s n=%zu  p50 %.3f ms  p90 %.3f ms  p99 %.3f ms  max %.3f ms\n", what, samples.size(), at(0.50),
                at(0.90), at(0.99), samples.back());
}

} // namespace

int main(int argc, char** argv)
{
    if (!sim::UmockdevTestbed::isAvailable()) {
        std::fprintf(stderr, "run under umockdev-wrapper\n");
        return 2;
    }
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 2000;
    const bool modemLines = !(argc > 2 && std::string(argv[2]) == "--no-modem-lines");
    sim::UmockdevTestbed testbed;
    auto device = testbed.addUsbSerialDevice({});
    device->setModemLinesSupported(modemLines);
    const int deviceEnd = device->deviceEnd();

    // The device: echoes everything at once.
    const int stop = ::eventfd(0, EFD_CLOEXEC);
    std::atomic<bool> echo{true};
    std::thread echoer([&] {
        char buffer[1024];
        for (;;) {
            pollfd fds[2] = {{deviceEnd, POLLIN, 0}, {stop, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 || (fds[1].revents & POLLIN) != 0) {
                return;
            }
            if ((fds[0].revents & POLLIN) == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            const ssize_t n = ::read(deviceEnd, buffer, sizeof buffer);
            if (n > 0 && echo.load()) {
                [[maybe_unused]] const ssize_t written = ::write(deviceEnd, buffer, static_cast<std::size_t>(n));
            }
        }
    });

    auto delegate = std::make_shared<CountingDelegate>();
    auto port = SerialPort::serialPortWithPath(device->devnode());
    if (!port) {
        std::fprintf(stderr, "no port\n");
        return 1;
    }
    port->setBaudRate(115200);
    port->setDelegate(delegate);
    port->open();
    auto& loop = dispatch::RunLoop::main();
    loop.runFor(std::chrono::milliseconds(100));

    std::vector<double> roundTrip;
    std::vector<double> oneWay;
    const std::string ping = "getCID\n";
    for (int i = 0; i < rounds; ++i) {
        const std::size_t before = delegate->received.load();
        const auto start = Clock::now();
        port->sendData(ping);
        loop.runUntil([&] { return delegate->received.load() >= before + ping.size(); }, std::chrono::seconds(5));
        roundTrip.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    echo = false;
    for (int i = 0; i < rounds; ++i) {
        const std::size_t before = delegate->received.load();
        const auto start = Clock::now();
        [[maybe_unused]] const ssize_t written = ::write(deviceEnd, ping.data(), ping.size());
        loop.runUntil([&] { return delegate->received.load() >= before + ping.size(); }, std::chrono::seconds(5));
        oneWay.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    report("sendData -> echo -> delegate", roundTrip);
    report("device write -> delegate", oneWay);

    port->close();
    loop.runUntil([&] { return !port->isOpen(); }, std::chrono::seconds(5));
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(stop, &one, sizeof one);
    echoer.join();
    ::close(stop);
    return 0;
}
