#pragma once
// Intel HEX text for a block of bytes: 16-byte data records and an end record.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace quendral::test {

inline std::string intelHex(const std::vector<std::uint8_t>& bytes, std::uint16_t address = 0)
{
    auto record = [](std::uint16_t at, std::uint8_t type, const std::uint8_t* data, std::size_t count) {
        unsigned sum = static_cast<unsigned>(count) + (at >> 8U) + (at & 0xFFU) + type;
        char text[16];
        std::snprintf(text, sizeof text, ":%02zX%04X%02X", count, static_cast<unsigned>(at),
                      static_cast<unsigned>(type));
        std::string line = text;
        for (std::size_t i = 0; i < count; ++i) {
            std::snprintf(text, sizeof text, "%02X", static_cast<unsigned>(data[i]));
            line += text;
            sum += data[i];
        }
        std::snprintf(text, sizeof text, "%02X\n", (0x100U - (sum & 0xFFU)) & 0xFFU);
        return line + text;
    };
    std::string hex;
    for (std::size_t offset = 0; offset < bytes.size(); offset += 16) {
        const std::size_t count = std::min<std::size_t>(16, bytes.size() - offset);
        hex += record(static_cast<std::uint16_t>(address + offset), 0, bytes.data() + offset, count);
    }
    return hex + record(0, 1, nullptr, 0);
}

} // namespace quendral::test
