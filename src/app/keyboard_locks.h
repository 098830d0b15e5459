#pragma once
// The keyboard's lock state, which Qt's key events do not carry: on X11 it is
// read from the X server's keyboard extension at the moment of the key press.
// Elsewhere (Wayland, the offscreen platform) Qt gives no way to read it, and
// the lock counts as released: the shortcuts then work whatever the lock.
namespace quendral::app {

[[nodiscard]] bool capsLockEngaged();

} // namespace quendral::app
