#pragma once
// A FAKE ATmega32U4 boot loader: no simulator here runs the real one (it
// speaks over the chip's own USB device, which simavr does not model), so
// this answers its serial protocol (AVR109, as avrdude -c avr109 speaks it)
// from C++ on a tty's device end, into a flash kept in memory. It proves the
// upload driver found the boot loader's port and that avrdude wrote and read
// back the file there; it runs no AVR code.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace quendral::sim {

class Avr109BootLoaderFake {
public:
    Avr109BootLoaderFake();
    ~Avr109BootLoaderFake();
    Avr109BootLoaderFake(const Avr109BootLoaderFake&) = delete;
    Avr109BootLoaderFake& operator=(const Avr109BootLoaderFake&) = delete;

    // Serves `fd` (a device end; not owned) on a thread of its own.
    void start(int fd);
    void stop();

    // Bytes written into flash so far (programmed by 'B' ... 'F' blocks).
    [[nodiscard]] std::size_t bytesWritten() const;
    // Flash byte at a byte address (0xFF where nothing was written).
    [[nodiscard]] std::uint8_t flashByte(std::uint32_t address) const;
    // True once avrdude said goodbye ('E').
    [[nodiscard]] bool exited() const { return _exited.load(); }

private:
    void serve();
    bool readByte(std::uint8_t& byte);
    void write(const std::vector<std::uint8_t>& bytes);

    int _fd = -1;
    std::atomic<bool> _stop{false};
    std::atomic<bool> _exited{false};
    std::thread _thread;
    mutable std::mutex _mutex;
    std::vector<std::uint8_t> _flash;
    std::size_t _written = 0;
    std::uint32_t _wordAddress = 0;
};

} // namespace quendral::sim
