#pragma once
// What the update job does with a firmware answer: strict Base64 decoding,
// the MD5 digest the server's "hash" is compared with, and the write of the
// file the flashing tool reads.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quendral::firmware {

// Where the update job puts the downloaded firmware for the flashing tool.
inline constexpr const char* kDownloadedFirmwarePath = "/tmp/quendral-hexfile.hex";
// The computer-wide lock (ComputerWideLock) held from writing that file until
// it is deleted, so that no other update replaces it under a running tool.
inline constexpr const char* kDownloadedFirmwareLock = "quendral-firmware-updater:/tmp/quendral-hexfile.hex";

// Standard Base64 with "=" padding. Strict: any character outside the
// alphabet (line breaks and blanks included), misplaced padding or a length
// that is not a multiple of four makes the decoding fail and gives none.
std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text);

// The MD5 digest as 32 lower-case hexadecimal digits.
std::string md5Hex(const std::vector<std::uint8_t>& data);

// Writes the bytes to `path` atomically: into a new file beside it, then
// renamed over it. Whatever stood at `path` (also a planted symbolic link) is
// replaced, never written through. False when any step fails, with errno
// telling why.
bool writeAtomically(const std::filesystem::path& path, const std::vector<std::uint8_t>& data);

} // namespace quendral::firmware
