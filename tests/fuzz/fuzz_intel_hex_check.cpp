// Fuzz target for the check of an Intel HEX image before avrdude runs.
//
// The input is the file; its first byte picks one of the flash sizes of the
// boards. The check must not crash or read out of bounds, and what it lets
// through must be something avrdude can write whole: at least one data
// record and an end-of-file record, every data byte inside the flash
// (re-counted here by a second, plain reading of the records it accepted).
#include "controller/firmware_image_check.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

namespace {

void check(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

int digit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

unsigned byteAt(const std::string& line, std::size_t index)
{
    return static_cast<unsigned>(digit(line[1 + 2 * index]) * 16 + digit(line[2 + 2 * index]));
}

// The highest address + 1 written by an accepted file, and whether it had an end record.
std::pair<std::uint64_t, bool> extent(const std::string& text)
{
    std::uint64_t base = 0;
    std::uint64_t top = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end;
        std::string line = text.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        const unsigned count = byteAt(line, 0);
        const std::uint64_t offset = (byteAt(line, 1) << 8U) | byteAt(line, 2);
        const unsigned type = byteAt(line, 3);
        if (type == 1) {
            return {top, true};
        }
        if (type == 0 && count > 0) {
            top = std::max(top, base + offset + count);
        } else if (type == 2) {
            base = ((byteAt(line, 4) << 8U) | byteAt(line, 5)) << 4U;
        } else if (type == 4) {
            base = static_cast<std::uint64_t>((byteAt(line, 4) << 8U) | byteAt(line, 5)) << 16U;
        }
    }
    return {top, false};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1) {
        return 0;
    }
    constexpr std::array<std::uint32_t, 4> kFlashSizes{32U * 1024U, 128U * 1024U, 256U * 1024U, 512U * 1024U};
    const std::uint32_t flash = kFlashSizes.at(data[0] % kFlashSizes.size());
    const std::span<const std::uint8_t> file(data + 1, size - 1);
    const auto problem = quendral::firmware::intelHexProblem(file, flash);
    if (!problem) {
        const auto [top, ended] = extent(std::string(file.begin(), file.end()));
        check(ended);
        check(top > 0 && top <= flash);
    } else {
        check(!problem->empty());
    }
    return 0;
}
