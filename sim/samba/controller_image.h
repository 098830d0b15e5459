#pragma once
// How a simulated board recognises the Controller firmware it was flashed with.
//
// A test image carries the marker
//     QUENDRAL-ID:CID=<32 characters>;VERSION=<version>;
// somewhere in its bytes. bossac 1.9.1 writes any file as raw bytes, so an
// Intel HEX file lands in flash as its text: the marker is then looked for in
// the data the HEX records carry, too. A board whose flash holds no marker in
// either form runs no Controller firmware and stays silent.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quendral::sim {

struct ControllerIdentity {
    std::string cid;     // 32 characters
    std::string version; // no ';'
    bool operator==(const ControllerIdentity&) const = default;
};

std::string identityMarker(const ControllerIdentity& identity);

// The identity in flash, raw or inside HEX text at the start of flash.
std::optional<ControllerIdentity> findIdentity(const std::vector<uint8_t>& flash);

// A firmware-like binary of `size` bytes (at least 64): a Cortex-M vector table,
// the marker if an identity is given, and filler derived from `seed`.
std::vector<uint8_t> makeControllerImage(const std::optional<ControllerIdentity>& identity, size_t size, uint32_t seed);

} // namespace quendral::sim
