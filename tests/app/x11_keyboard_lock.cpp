#include "x11_keyboard_lock.h"

#include <QGuiApplication>

// Xlib's macros (None, Bool, KeyPress, ...) collide with Qt's names: last.
#include <X11/XKBlib.h>

namespace quendral::test {
namespace {

Display* applicationDisplay()
{
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    return x11 != nullptr ? x11->display() : nullptr;
}

} // namespace

bool setCapsLockOnX11(bool engaged)
{
    Display* display = applicationDisplay();
    if (display == nullptr) {
        return false;
    }
    const bool sent = XkbLockModifiers(display, XkbUseCoreKbd, LockMask, engaged ? LockMask : 0) == True;
    XSync(display, False);
    return sent && capsLockOnX11() == engaged;
}

bool capsLockOnX11()
{
    Display* display = applicationDisplay();
    XkbStateRec state{};
    return display != nullptr && XkbGetState(display, XkbUseCoreKbd, &state) == Success &&
           (state.locked_mods & LockMask) != 0;
}

} // namespace quendral::test
