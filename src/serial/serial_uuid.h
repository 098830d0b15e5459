#pragma once
// Random (version 4) UUIDs: the identity of packet descriptors and requests.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace quendral {

class SerialUUID {
public:
    // A new random UUID.
    static SerialUUID make();

    // The standard text form in upper case, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
    [[nodiscard]] std::string UUIDString() const;
    [[nodiscard]] std::size_t hash() const;
    [[nodiscard]] const std::array<std::uint8_t, 16>& bytes() const { return _bytes; }

    friend bool operator==(const SerialUUID& a, const SerialUUID& b) = default;

private:
    std::array<std::uint8_t, 16> _bytes{};
};

} // namespace quendral
