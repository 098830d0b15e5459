#include "window_placement.h"

#include <algorithm>

namespace quendral::app {
namespace {

constexpr int kGap = 8;
// Over the main window, the secondary window leaves the main window's title
// and top edge in sight.
constexpr int kOverlapOffset = 48;

} // namespace

QRect placeBesideMainWindow(const QRect& mainFrame, QSize wanted, QSize minimum, const QMargins& frame,
                            const QRect& available)
{
    const int frameWidth = frame.left() + frame.right();
    const int frameHeight = frame.top() + frame.bottom();
    QSize size = wanted.boundedTo(available.size().shrunkBy(frame)).expandedTo(minimum);

    QPoint outer;
    if (mainFrame.right() + kGap + size.width() + frameWidth <= available.right() + 1) {
        outer = QPoint(mainFrame.right() + 1 + kGap, mainFrame.top());
    } else if (mainFrame.left() - kGap - size.width() - frameWidth >= available.left()) {
        outer = QPoint(mainFrame.left() - kGap - size.width() - frameWidth, mainFrame.top());
    } else {
        outer = mainFrame.topLeft() + QPoint(kOverlapOffset, kOverlapOffset);
        // Over the main window it shrinks (down to its minimum) to stay on
        // the screen from there.
        const QSize room(available.right() + 1 - outer.x() - frameWidth,
                         available.bottom() + 1 - outer.y() - frameHeight);
        size = size.boundedTo(room).expandedTo(minimum);
    }
    const int outerWidth = size.width() + frameWidth;
    const int outerHeight = size.height() + frameHeight;
    // Inside the free area; a window larger than it keeps its top left corner
    // (and its title bar) in sight.
    outer.setX(std::max(available.left(), std::min(outer.x(), available.right() + 1 - outerWidth)));
    outer.setY(std::max(available.top(), std::min(outer.y(), available.bottom() + 1 - outerHeight)));
    return {outer + QPoint(frame.left(), frame.top()), size};
}

} // namespace quendral::app
