#pragma once
// Engages and releases Caps Lock on the X server the application runs on, as
// the key itself would (the lock is the server's state, not an event's).
namespace quendral::test {

// False when the application is not on X11 or the server refused.
bool setCapsLockOnX11(bool engaged);
// The lock as the X server holds it now.
bool capsLockOnX11();

} // namespace quendral::test
