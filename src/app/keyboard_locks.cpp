#include "keyboard_locks.h"

#include <QGuiApplication>

// Xlib's macros (None, Bool, KeyPress, ...) collide with Qt's names: last.
#include <X11/XKBlib.h>

namespace quendral::app {

bool capsLockEngaged()
{
    auto* x11 = qGuiApp != nullptr ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    Display* display = x11 != nullptr ? x11->display() : nullptr;
    if (display == nullptr) {
        return false;
    }
    // The locked modifiers, not the effective ones: a held Shift is no lock.
    XkbStateRec state{};
    return XkbGetState(display, XkbUseCoreKbd, &state) == Success && (state.locked_mods & LockMask) != 0;
}

} // namespace quendral::app
