#include "controller/firmware_image_check.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <system_error>
#include <vector>

namespace quendral::firmware {
namespace {

// The record types of the format, in the order of their numbers 00 to 05.
enum RecordType : int {
    kData,
    kEndOfFile,
    kExtendedSegmentAddress,
    kStartSegmentAddress,
    kExtendedLinearAddress,
    kStartLinearAddress,
};

int hexDigit(std::uint8_t c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

std::string onLine(std::size_t line, const std::string& what)
{
    return "line " + std::to_string(line) + ": " + what;
}

std::string hexText(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

std::string kibibytes(std::uint32_t bytes)
{
    return std::to_string(bytes / 1024U) + " KiB";
}

// One record's bytes (count, address, type, data, checksum), decoded from the
// hexadecimal digits after the colon; none when a digit is not one.
std::optional<std::vector<std::uint8_t>> recordBytes(std::span<const std::uint8_t> digits)
{
    if (digits.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(digits.size() / 2);
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const int high = hexDigit(digits[i]);
        const int low = hexDigit(digits[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>((high << 4) | low));
    }
    return bytes;
}

std::size_t expectedLength(int type)
{
    switch (type) {
    case kEndOfFile:
        return 0;
    case kExtendedSegmentAddress:
    case kExtendedLinearAddress:
        return 2;
    default:
        return 4; // the two start-address records
    }
}

} // namespace

std::optional<std::string> intelHexProblem(std::span<const std::uint8_t> text, std::uint32_t flashBytes)
{
    if (text.empty()) {
        return "the file is empty";
    }
    std::uint64_t base = 0;
    std::uint64_t dataBytes = 0;
    std::size_t lineNumber = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        ++lineNumber;
        std::size_t end = at;
        while (end < text.size() && text[end] != '\n') {
            ++end;
        }
        std::span<const std::uint8_t> line = text.subspan(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r') {
            line = line.first(line.size() - 1);
        }
        if (line.empty()) {
            continue;
        }
        if (line.front() != ':') {
            return onLine(lineNumber, "not an Intel HEX record (it does not start with \":\")");
        }
        const auto bytes = recordBytes(line.subspan(1));
        if (!bytes) {
            return onLine(lineNumber, "the record holds characters that are not hexadecimal digits");
        }
        if (bytes->size() < 5 || bytes->size() != 5U + (*bytes)[0]) {
            return onLine(lineNumber, "the record's length does not match its byte count");
        }
        std::uint8_t sum = 0;
        for (const std::uint8_t byte : *bytes) {
            sum = static_cast<std::uint8_t>(sum + byte);
        }
        if (sum != 0) {
            return onLine(lineNumber, "the record's checksum is wrong");
        }
        const std::size_t count = (*bytes)[0];
        const std::uint64_t offset = (static_cast<std::uint64_t>((*bytes)[1]) << 8) | (*bytes)[2];
        const int type = (*bytes)[3];
        const std::uint8_t* data = bytes->data() + 4;
        if (type > kStartLinearAddress) {
            return onLine(lineNumber, "unknown record type " + std::to_string(type));
        }
        if (type != kData && count != expectedLength(type)) {
            return onLine(lineNumber, "the record has the wrong length for its type");
        }
        switch (type) {
        case kData:
            if (count > 0 && base + offset + count > flashBytes) {
                return onLine(lineNumber, "address " + hexText(base + offset + count - 1) +
                                              " lies outside the chip's " + kibibytes(flashBytes) + " of flash");
            }
            dataBytes += count;
            break;
        case kEndOfFile:
            // The tool stops reading here; what follows is never written.
            if (dataBytes == 0) {
                return std::string("the file holds no data to write");
            }
            return std::nullopt;
        case kExtendedSegmentAddress:
            base = ((static_cast<std::uint64_t>(data[0]) << 8) | data[1]) << 4;
            break;
        case kExtendedLinearAddress:
            base = ((static_cast<std::uint64_t>(data[0]) << 8) | data[1]) << 16;
            break;
        default:
            break; // start addresses say where a program begins, not what to write
        }
    }
    return std::string("the file has no end-of-file record (it may have been cut short)");
}

std::optional<std::string> binaryImageProblem(std::span<const std::uint8_t> image, std::uint32_t flashBytes)
{
    if (image.empty()) {
        return std::string("the file is empty");
    }
    if (image.size() > flashBytes) {
        return "the image is " + std::to_string(image.size()) + " bytes, larger than the chip's " +
               kibibytes(flashBytes) + " of flash";
    }
    return std::nullopt;
}

std::optional<std::string> imageProblem(std::span<const std::uint8_t> image, const BoardIdentification& board)
{
    return board.tool == FlashingTool::Bossac ? binaryImageProblem(image, board.flashBytes)
                                              : intelHexProblem(image, board.flashBytes);
}

std::optional<std::string> imageFileProblem(const std::filesystem::path& file, const BoardIdentification& board)
{
    std::error_code error;
    const auto status = std::filesystem::status(file, error);
    if (error || !std::filesystem::exists(status)) {
        return file.string() + " does not exist";
    }
    if (!std::filesystem::is_regular_file(status)) {
        return file.string() + " is not a file";
    }
    const std::uintmax_t size = std::filesystem::file_size(file, error);
    if (error) {
        return file.string() + " cannot be read: " + error.message();
    }
    if (size > kLargestImageFile) {
        return file.string() + " is " + std::to_string(size) + " bytes, far larger than any firmware for the " +
               std::string(board.chip);
    }
    std::ifstream in(file, std::ios::binary);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    if (!in || !in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
        return file.string() + " cannot be read: " + std::strerror(errno);
    }
    if (auto problem = imageProblem(bytes, board)) {
        return file.filename().string() + ": " + *problem;
    }
    return std::nullopt;
}

} // namespace quendral::firmware
