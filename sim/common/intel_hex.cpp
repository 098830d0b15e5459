#include "intel_hex.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

namespace quendral::sim {

std::optional<SparseImage> parseIntelHex(const std::string& text)
{
    SparseImage image;
    uint32_t upper = 0;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        if (line[0] != ':' || line.size() < 11 || (line.size() - 1) % 2 != 0) {
            return std::nullopt;
        }
        std::vector<uint8_t> rec;
        for (size_t i = 1; i < line.size(); i += 2) {
            const char* const pair = line.data() + i;
            uint8_t byte = 0;
            const auto [end, error] = std::from_chars(pair, pair + 2, byte, 16);
            if (error != std::errc() || end != pair + 2) {
                return std::nullopt;
            }
            rec.push_back(byte);
        }
        uint8_t sum = 0;
        for (uint8_t b : rec) {
            sum = static_cast<uint8_t>(sum + b);
        }
        size_t len = rec[0];
        if (sum != 0 || rec.size() != len + 5) {
            return std::nullopt;
        }
        uint32_t offset = static_cast<uint32_t>(rec[1] << 8 | rec[2]);
        switch (rec[3]) {
        case 0x00:
            for (size_t i = 0; i < len; ++i) {
                image[upper + offset + static_cast<uint32_t>(i)] = rec[4 + i];
            }
            break;
        case 0x01:
            return image;
        case 0x02:
            upper = static_cast<uint32_t>((rec[4] << 8 | rec[5]) << 4);
            break;
        case 0x04:
            upper = static_cast<uint32_t>((rec[4] << 8 | rec[5]) << 16);
            break;
        default: // start addresses: nothing to place
            break;
        }
    }
    return image;
}

std::optional<SparseImage> readIntelHexFile(const std::string& path)
{
    auto bytes = readFile(path);
    if (!bytes) {
        return std::nullopt;
    }
    return parseIntelHex(std::string(bytes->begin(), bytes->end()));
}

std::string toIntelHex(const std::vector<uint8_t>& data, uint32_t base)
{
    std::string out;
    char buf[80];
    auto record = [&](uint8_t type, uint16_t addr, const uint8_t* bytes, size_t n) {
        uint8_t sum = static_cast<uint8_t>(n + (addr >> 8) + (addr & 0xff) + type);
        int pos = std::snprintf(buf, sizeof buf, ":%02X%04X%02X", static_cast<unsigned>(n), addr, type);
        for (size_t i = 0; i < n; ++i) {
            sum = static_cast<uint8_t>(sum + bytes[i]);
            pos += std::snprintf(buf + pos, sizeof buf - static_cast<size_t>(pos), "%02X", bytes[i]);
        }
        std::snprintf(buf + pos, sizeof buf - static_cast<size_t>(pos), "%02X\n",
                      static_cast<uint8_t>(0x100 - sum) & 0xff);
        out += buf;
    };
    uint32_t upper = 0; // what a reader assumes before any extended address record
    for (size_t i = 0; i < data.size();) {
        uint32_t addr = base + static_cast<uint32_t>(i);
        if ((addr >> 16) != upper) {
            upper = addr >> 16;
            uint8_t ext[2] = {static_cast<uint8_t>(upper >> 8), static_cast<uint8_t>(upper)};
            record(0x04, 0, ext, 2);
        }
        // Records never cross a 64 KiB boundary.
        size_t n = std::min<size_t>({16, data.size() - i, 0x10000 - (addr & 0xffff)});
        record(0x00, static_cast<uint16_t>(addr & 0xffff), data.data() + i, n);
        i += n;
    }
    record(0x01, 0, nullptr, 0);
    return out;
}

std::optional<std::vector<uint8_t>> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool writeFile(const std::string& path, const std::vector<uint8_t>& data)
{
    std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out) {
            return false;
        }
        out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
        if (!out) {
            return false;
        }
    }
    return std::rename(tmp.c_str(), path.c_str()) == 0;
}

} // namespace quendral::sim
