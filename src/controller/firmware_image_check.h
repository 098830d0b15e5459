#pragma once
// The last look at a firmware image before anything on the board is touched.
//
// Both flashing tools erase first and read the file afterwards: bossac erases
// the whole flash and then fails (or crashes) on an empty file, avrdude stops
// half-way through a HEX file with a broken line. Either way the Controller
// is left without a program. So every image is checked here, as its tool will
// read it, before "prepareUpload", the reset into the boot loader or the tool:
//
// - avrdude boards take Intel HEX: every record well formed and its checksum
//   right, an end-of-file record, at least one data byte, and every data byte
//   at an address inside the chip's flash;
// - bossac boards take the raw image: not empty, and no larger than the flash.
#include "flashing/board_table.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

namespace quendral::firmware {

// Larger files are refused unread: the biggest flash here is 512 KiB, and
// its Intel HEX text stays well below this.
inline constexpr std::uintmax_t kLargestImageFile = 4U * 1024U * 1024U;

// What is wrong with an Intel HEX text for a flash of `flashBytes`, in words
// an owner can act on; none when avrdude can write all of it.
[[nodiscard]] std::optional<std::string> intelHexProblem(std::span<const std::uint8_t> text, std::uint32_t flashBytes);

// What is wrong with a raw image for a flash of `flashBytes`; none when it fits.
[[nodiscard]] std::optional<std::string> binaryImageProblem(std::span<const std::uint8_t> image,
                                                            std::uint32_t flashBytes);

// The check that fits the board's tool.
[[nodiscard]] std::optional<std::string> imageProblem(std::span<const std::uint8_t> image,
                                                      const BoardIdentification& board);

// The same for a file on disk (missing, unreadable and over-size files included).
[[nodiscard]] std::optional<std::string> imageFileProblem(const std::filesystem::path& file,
                                                          const BoardIdentification& board);

} // namespace quendral::firmware
