#pragma once
// Where the serial monitor and the IP configuration window appear: beside the
// main window (to its right, else to its left) where the screen has room,
// else over it, and never larger than the screen's free area, so that at a
// large scale on a small screen no part of them is out of reach.
#include <QMargins>
#include <QRect>
#include <QSize>

namespace quendral::app {

// The geometry (content, without the window system's frame) for a window that
// would like `wanted` and can shrink to `minimum`; `mainFrame` is the main
// window with its frame, `frame` the frame the window system puts around a
// window, `available` the screen without its panels.
[[nodiscard]] QRect placeBesideMainWindow(const QRect& mainFrame, QSize wanted, QSize minimum, const QMargins& frame,
                                          const QRect& available);

} // namespace quendral::app
