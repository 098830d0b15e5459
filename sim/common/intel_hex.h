#pragma once
// Intel HEX as the flashing tools and the boot loaders use it: data records,
// extended segment and extended linear addresses.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quendral::sim {

// Byte address -> byte, for the addresses a HEX text covers.
using SparseImage = std::map<uint32_t, uint8_t>;

// Parses HEX text; none if a record is malformed or its checksum is wrong.
std::optional<SparseImage> parseIntelHex(const std::string& text);
std::optional<SparseImage> readIntelHexFile(const std::string& path);

// HEX text of `data` placed at `base`, 16 bytes per record, with the
// extended linear address records it needs (none below 64 KiB) and the end
// record. The one HEX writer of the lab and the tests.
std::string toIntelHex(const std::vector<uint8_t>& data, uint32_t base = 0);

std::optional<std::vector<uint8_t>> readFile(const std::string& path);
bool writeFile(const std::string& path, const std::vector<uint8_t>& data);

} // namespace quendral::sim
