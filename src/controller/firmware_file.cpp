#include "controller/firmware_file.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral::firmware {
namespace {

int base64Value(char c)
{
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}

} // namespace

std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text)
{
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=') {
        padding = (text.size() >= 2 && text[text.size() - 2] == '=') ? 2 : 1;
    }
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        std::array<int, 4> v{};
        for (std::size_t k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=' && last && k >= 4 - padding) {
                v[k] = 0;
                continue;
            }
            v[k] = base64Value(c);
            if (v[k] < 0) {
                return std::nullopt;
            }
        }
        const std::uint32_t bits = (static_cast<std::uint32_t>(v[0]) << 18) | (static_cast<std::uint32_t>(v[1]) << 12) |
                                   (static_cast<std::uint32_t>(v[2]) << 6) | static_cast<std::uint32_t>(v[3]);
        out.push_back(static_cast<std::uint8_t>(bits >> 16));
        if (!(last && padding == 2)) {
            out.push_back(static_cast<std::uint8_t>(bits >> 8));
        }
        if (!(last && padding >= 1)) {
            out.push_back(static_cast<std::uint8_t>(bits));
        }
    }
    return out;
}

std::string md5Hex(const std::vector<std::uint8_t>& data)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_md5(), nullptr) != 1) {
        return {};
    }
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        std::array<char, 3> two{};
        std::snprintf(two.data(), two.size(), "%02x", digest.at(i));
        hex += two.data();
    }
    return hex;
}

bool writeAtomically(const std::filesystem::path& path, const std::vector<std::uint8_t>& data)
{
    std::string temporary = path.string() + ".XXXXXX";
    const int fd = ::mkstemp(temporary.data()); // a new file, created exclusively
    if (fd < 0) {
        return false;
    }
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int error = errno;
            ::close(fd);
            ::unlink(temporary.c_str());
            errno = error;
            return false;
        }
        written += static_cast<std::size_t>(n);
    }
    // The flashing tool runs as the same user; the file need not be private,
    // but nobody else may change it.
    const bool synced = ::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0;
    int error = errno;
    if (::close(fd) != 0 || !synced) {
        error = synced ? errno : error;
        ::unlink(temporary.c_str());
        errno = error;
        return false;
    }
    // rename() replaces the directory entry itself: a link planted at `path`
    // is replaced, not followed.
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
        ::unlink(temporary.c_str());
        errno = error;
        return false;
    }
    return true;
}

} // namespace quendral::firmware
