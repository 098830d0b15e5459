#include "avr109_boot_loader_fake.h"

#include <cerrno>
#include <chrono>
#include <poll.h>
#include <unistd.h>

namespace quendral::sim {
namespace {

constexpr std::size_t kFlashSize = 32 * 1024;
constexpr std::uint16_t kBlockSize = 128; // one page of the ATmega32U4
constexpr std::uint8_t kOk = '\r';

} // namespace

Avr109BootLoaderFake::Avr109BootLoaderFake() : _flash(kFlashSize, 0xFF) {}

Avr109BootLoaderFake::~Avr109BootLoaderFake()
{
    stop();
}

void Avr109BootLoaderFake::start(int fd)
{
    _fd = fd;
    _thread = std::thread([this] { serve(); });
}

void Avr109BootLoaderFake::stop()
{
    _stop = true;
    if (_thread.joinable()) {
        _thread.join();
    }
}

std::size_t Avr109BootLoaderFake::bytesWritten() const
{
    std::lock_guard lock(_mutex);
    return _written;
}

std::uint8_t Avr109BootLoaderFake::flashByte(std::uint32_t address) const
{
    std::lock_guard lock(_mutex);
    return address < _flash.size() ? _flash[address] : 0xFF;
}

bool Avr109BootLoaderFake::readByte(std::uint8_t& byte)
{
    while (!_stop) {
        pollfd fds{_fd, POLLIN, 0};
        const int ready = ::poll(&fds, 1, 50);
        if (ready <= 0 || (fds.revents & POLLIN) == 0) {
            if (ready > 0) {
                // Nobody has the port open (POLLHUP): wait for the next open.
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            continue;
        }
        const ssize_t n = ::read(_fd, &byte, 1);
        if (n == 1) {
            return true;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR && errno != EIO) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

void Avr109BootLoaderFake::write(const std::vector<std::uint8_t>& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size() && !_stop) {
        const ssize_t n = ::write(_fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void Avr109BootLoaderFake::serve()
{
    std::uint8_t command = 0;
    while (readByte(command)) {
        std::uint8_t a = 0;
        std::uint8_t b = 0;
        std::uint8_t c = 0;
        switch (command) {
        case 'S': // software identifier: seven characters
            write({'C', 'A', 'T', 'E', 'R', 'I', 'N'});
            break;
        case 'V': // software version
            write({'1', '0'});
            break;
        case 'v': // hardware version: none
            write({'?'});
            break;
        case 'p': // programmer type: serial
            write({'S'});
            break;
        case 'a': // auto-increment of the address
            write({'Y'});
            break;
        case 'b': // block mode, with the block size
            write({'Y', static_cast<std::uint8_t>(kBlockSize >> 8), static_cast<std::uint8_t>(kBlockSize & 0xFF)});
            break;
        case 't': // supported device codes, ended by 0
            write({0x44, 0x00});
            break;
        case 's': // signature, last byte first (1E 95 87: ATmega32U4)
            write({0x87, 0x95, 0x1E});
            break;
        case 'T': // select device type
            if (!readByte(a)) {
                return;
            }
            write({kOk});
            break;
        case 'x': // LED on/off
        case 'y':
            if (!readByte(a)) {
                return;
            }
            write({kOk});
            break;
        case 'P': // enter / leave programming mode
        case 'L':
            write({kOk});
            break;
        case 'E': // exit the boot loader
            write({kOk});
            _exited = true;
            break;
        case 'e': { // chip erase
            std::lock_guard lock(_mutex);
            std::fill(_flash.begin(), _flash.end(), 0xFF);
            write({kOk});
            break;
        }
        case 'A': // word address, high byte first
            if (!readByte(a) || !readByte(b)) {
                return;
            }
            _wordAddress = static_cast<std::uint32_t>(a << 8 | b);
            write({kOk});
            break;
        case 'F': // fuse and lock bits as an unprogrammed part reads them
        case 'N':
        case 'Q':
        case 'r':
            write({0xFF});
            break;
        case 'B': { // block write: size (high, low), memory type, data
            if (!readByte(a) || !readByte(b) || !readByte(c)) {
                return;
            }
            const std::size_t size = static_cast<std::size_t>(a << 8 | b);
            std::vector<std::uint8_t> data(size);
            for (auto& byte : data) {
                if (!readByte(byte)) {
                    return;
                }
            }
            if (c == 'F') {
                std::lock_guard lock(_mutex);
                const std::size_t at = static_cast<std::size_t>(_wordAddress) * 2;
                for (std::size_t i = 0; i < size && at + i < _flash.size(); ++i) {
                    _flash[at + i] = data[i];
                }
                _written += size;
                _wordAddress += static_cast<std::uint32_t>(size / 2);
            }
            write({kOk});
            break;
        }
        case 'g': { // block read: size (high, low), memory type
            if (!readByte(a) || !readByte(b) || !readByte(c)) {
                return;
            }
            const std::size_t size = static_cast<std::size_t>(a << 8 | b);
            std::vector<std::uint8_t> data(size, 0xFF);
            if (c == 'F') {
                std::lock_guard lock(_mutex);
                const std::size_t at = static_cast<std::size_t>(_wordAddress) * 2;
                for (std::size_t i = 0; i < size && at + i < _flash.size(); ++i) {
                    data[i] = _flash[at + i];
                }
                _wordAddress += static_cast<std::uint32_t>(size / 2);
            }
            write(data);
            break;
        }
        case 0x1B: // ESC: avrdude's wake-up for the Butterfly; ignored
            break;
        default:
            write({'?'});
            break;
        }
    }
}

} // namespace quendral::sim
