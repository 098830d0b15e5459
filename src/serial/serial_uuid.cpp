// SerialUUID: random version 4 UUIDs from a per-thread generator.
#include "serial/serial_uuid.h"

#include <cstdio>
#include <random>

namespace quendral {

SerialUUID SerialUUID::make()
{
    thread_local std::mt19937_64 generator = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(), device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }();
    SerialUUID uuid;
    for (std::size_t i = 0; i < uuid._bytes.size(); i += 8) {
        std::uint64_t word = generator();
        for (std::size_t j = 0; j < 8; ++j) {
            uuid._bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
        }
    }
    uuid._bytes[6] = static_cast<std::uint8_t>((uuid._bytes[6] & 0x0F) | 0x40); // version 4
    uuid._bytes[8] = static_cast<std::uint8_t>((uuid._bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return uuid;
}

std::string SerialUUID::UUIDString() const
{
    std::string text;
    text.reserve(36);
    static constexpr char digits[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < _bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(digits[_bytes[i] >> 4]);
        text.push_back(digits[_bytes[i] & 0x0F]);
    }
    return text;
}

std::size_t SerialUUID::hash() const
{
    std::uint64_t value = 1469598103934665603ULL; // FNV-1a
    for (const std::uint8_t byte : _bytes) {
        value = (value ^ byte) * 1099511628211ULL;
    }
    return static_cast<std::size_t>(value);
}

} // namespace quendral
