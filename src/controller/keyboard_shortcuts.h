#pragma once
// The main window's keyboard shortcuts, in the terms the handler compares:
// modifier flags (the low 16 bits are device-dependent and masked off) and
// hardware key codes. The window translates its key events into these: Ctrl
// stands for Command and Alt for Option on Linux.
#include <cstdint>

namespace quendral::keys {

enum Modifier : std::uint64_t {
    CapsLock = 1ULL << 16,
    Shift = 1ULL << 17,
    Control = 1ULL << 18,
    Option = 1ULL << 19,
    Command = 1ULL << 20,
};

enum KeyCode : std::uint16_t {
    S = 1,
    B = 11,
    W = 13,
    C = 8,
    U = 32,
    L = 37,
    M = 46,
};

} // namespace quendral::keys
