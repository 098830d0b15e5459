#pragma once
// The port a piece of work talks to. Usually one device path. A board that
// resets into its boot loader, or onto new firmware, comes back on a node of
// its own choosing, so a front end may hand in a look-up instead, asked again
// at every step (the window's is its port menu's selection).
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace quendral {

class PortPath {
public:
    using LookUp = std::function<std::optional<std::string>()>;

    // A fixed path.
    PortPath(std::string path) // NOLINT(google-explicit-constructor): a path is a PortPath
        : _lookUp([path = std::move(path)]() -> std::optional<std::string> { return path; })
    {
    }
    PortPath(const char* path) : PortPath(std::string(path)) {} // NOLINT(google-explicit-constructor)
    // A look-up; none when no port is chosen (any more). `usbLocation`: the
    // USB socket of the board it follows, when known (serial_port_attributes.h):
    // the board's boot loader is then looked for on that socket alone, never
    // on another board's.
    static PortPath following(LookUp lookUp, std::optional<std::string> usbLocation = std::nullopt)
    {
        PortPath port(std::move(lookUp), 0);
        port._usbLocation = std::move(usbLocation);
        return port;
    }

    [[nodiscard]] std::optional<std::string> current() const { return _lookUp(); }
    [[nodiscard]] const std::optional<std::string>& usbLocation() const { return _usbLocation; }
    // The current path, or "" (which opens nothing) when there is none.
    [[nodiscard]] std::string currentOrEmpty() const { return current().value_or(std::string()); }

private:
    PortPath(LookUp lookUp, int /*tag*/) : _lookUp(std::move(lookUp)) {}

    LookUp _lookUp;
    std::optional<std::string> _usbLocation;
};

} // namespace quendral
