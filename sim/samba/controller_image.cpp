#include "controller_image.h"

#include "intel_hex.h"

#include <algorithm>
#include <cstring>

namespace quendral::sim {

namespace {

constexpr char kPrefix[] = "QUENDRAL-ID:CID=";
constexpr size_t kCidLength = 32;
constexpr size_t kMaxVersion = 64;

std::optional<ControllerIdentity> findRaw(const uint8_t* data, size_t size)
{
    const size_t prefixLength = sizeof kPrefix - 1;
    const uint8_t* end = data + size;
    for (const uint8_t* p = data;; ++p) {
        p = std::search(p, end, kPrefix, kPrefix + prefixLength);
        if (p == end) {
            return std::nullopt;
        }
        const uint8_t* cid = p + prefixLength;
        if (end - cid < static_cast<ptrdiff_t>(kCidLength + 9) || cid[kCidLength] != ';' ||
            std::memcmp(cid + kCidLength + 1, "VERSION=", 8) != 0) {
            continue;
        }
        const uint8_t* version = cid + kCidLength + 9;
        const uint8_t* stop = std::find(version, std::min(end, version + kMaxVersion + 1), ';');
        if (stop == end || *stop != ';' || stop == version) {
            continue;
        }
        ControllerIdentity id{std::string(cid, cid + kCidLength), std::string(version, stop)};
        if (std::all_of(id.cid.begin(), id.cid.end(), [](char c) { return c > ' ' && c < 0x7f; })) {
            return id;
        }
    }
}

} // namespace

std::string identityMarker(const ControllerIdentity& identity)
{
    return std::string(kPrefix) + identity.cid + ";VERSION=" + identity.version + ";";
}

std::optional<ControllerIdentity> findIdentity(const std::vector<uint8_t>& flash)
{
    if (auto id = findRaw(flash.data(), flash.size())) {
        return id;
    }
    if (flash.empty() || flash[0] != ':') {
        return std::nullopt;
    }
    // HEX text written as raw bytes: it ends where the erased flash begins.
    auto textEnd = std::find_if(flash.begin(), flash.end(), [](uint8_t b) { return b == 0xff || b == 0; });
    auto image = parseIntelHex(std::string(flash.begin(), textEnd));
    if (!image || image->empty()) {
        return std::nullopt;
    }
    std::vector<uint8_t> data;
    uint32_t next = image->begin()->first;
    for (auto [addr, byte] : *image) {
        if (addr != next) {
            data.push_back(0xff); // a gap never joins two halves of a marker
        }
        data.push_back(byte);
        next = addr + 1;
    }
    return findRaw(data.data(), data.size());
}

std::vector<uint8_t> makeControllerImage(const std::optional<ControllerIdentity>& identity, size_t size, uint32_t seed)
{
    size = std::max<size_t>(size, 64);
    std::vector<uint8_t> image(size);
    uint32_t x = seed * 2654435761u + 1;
    for (auto& b : image) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<uint8_t>(x);
    }
    auto putWord = [&](size_t at, uint32_t v) {
        for (unsigned i = 0; i < 4; ++i) {
            image[at + i] = static_cast<uint8_t>(v >> (8 * i));
        }
    };
    putWord(0, 0x20088000); // initial stack pointer: top of SRAM
    putWord(4, 0x00080101); // reset handler in flash, Thumb
    if (identity) {
        std::string marker = identityMarker(*identity);
        size_t at = 64;
        if (at + marker.size() > image.size()) {
            image.resize(at + marker.size());
        }
        std::copy(marker.begin(), marker.end(), image.begin() + static_cast<ptrdiff_t>(at));
    }
    return image;
}

} // namespace quendral::sim
