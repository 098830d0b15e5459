// SerialBuffer: the newest bytes of a stream, bounded.
#include "serial/serial_buffer.h"

#include <algorithm>

namespace quendral {

void SerialBuffer::appendData(std::span<const std::uint8_t> data)
{
    if (_observer) {
        _observer(SerialBufferChange::WillChange);
    }
    _storage.insert(_storage.end(), data.begin(), data.end());
    const std::uint64_t length = _storage.size() - _start;
    if (length > _maximumLength) {
        _start += static_cast<std::size_t>(length - _maximumLength);
    }
    // Compact once the dropped front outweighs the live bytes.
    if (_start > 0 && _start >= _storage.size() - _start && _start >= 64) {
        _storage.erase(_storage.begin(), _storage.begin() + static_cast<std::ptrdiff_t>(_start));
        _start = 0;
    } else if (_start == _storage.size()) {
        _storage.clear();
        _start = 0;
    }
    if (_observer) {
        _observer(SerialBufferChange::DidChange);
    }
}

void SerialBuffer::clearBuffer()
{
    _storage.clear();
    _start = 0;
}

} // namespace quendral
