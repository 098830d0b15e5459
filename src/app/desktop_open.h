#pragma once
// Opens a web address in the desktop's browser, or a file with the desktop's
// handler for it. A desktop without one (no browser installed, no program for
// text files) opens nothing; the owner then gets the address or the path in
// an alert whose text can be selected and copied, instead of a click that
// seems to do nothing.
class QUrl;
class QWidget;

namespace quendral::app {

void openOnDesktop(const QUrl& url, QWidget* parent);

} // namespace quendral::app
