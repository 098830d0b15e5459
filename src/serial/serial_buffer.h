#pragma once
// The most recent bytes of a serial stream, at most maximumLength of them.
//
// Appending keeps the newest bytes and drops the oldest; a maximum of 0 keeps
// nothing. data() is a view of the live bytes: it is valid until the next
// append or clear.
//
// Observers of the internal buffer hear every append (before and after the
// change). Clearing is silent, as it has always been. Not thread-safe: a
// buffer belongs to one queue.
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace quendral {

enum class SerialBufferChange { WillChange, DidChange };

class SerialBuffer {
public:
    using ChangeObserver = std::function<void(SerialBufferChange change)>;

    // A buffer always has a maximum length.
    SerialBuffer() = delete;
    explicit SerialBuffer(std::uint64_t maximumLength) : _maximumLength(maximumLength) {}

    void appendData(std::span<const std::uint8_t> data);
    void appendByte(std::uint8_t byte) { appendData(std::span(&byte, 1)); }
    // Replaces the contents by an empty buffer.
    void clearBuffer();

    [[nodiscard]] std::span<const std::uint8_t> data() const { return std::span(_storage).subspan(_start); }
    [[nodiscard]] std::size_t length() const { return _storage.size() - _start; }
    [[nodiscard]] std::uint64_t maximumLength() const { return _maximumLength; }

    void setInternalBufferObserver(ChangeObserver observer) { _observer = std::move(observer); }

private:
    std::uint64_t _maximumLength;
    // The live bytes are _storage[_start..]. Dropped bytes are only skipped and
    // compacted away now and then, so that an append costs O(1) on average
    // however long the buffer is.
    std::vector<std::uint8_t> _storage;
    std::size_t _start = 0;
    ChangeObserver _observer;
};

} // namespace quendral
