#pragma once
// Text from a peer (an update server's message, a Controller's lines, a
// flashing tool's output) made safe to print on a terminal or to write into
// the log: a control character there could change the terminal's title, clear
// the screen, overwrite a line already shown (a carriage return) or hide the
// rest of a line (NUL). Each becomes a visible escape instead:
//
//   NUL -> \0    CR -> \r    other C0 controls and DEL -> \xNN (ESC is \x1b)
//   C1 controls (U+0080..U+009F, which some terminals obey) -> \u0080..\u009f
//   bytes that are no UTF-8 at all -> \xNN
//
// Line feeds and tabs stay, and so does a carriage return right before a line
// feed (a CR LF line end overwrites nothing): texts of several lines, ours
// and the server's, keep their lines. A backslash stays as it is, so the
// escapes read as what they stand for but are not meant to be undone.
// Visible text is left unchanged by a second pass.
#include <cstddef>
#include <string>
#include <string_view>

namespace quendral {

std::string visibleText(std::string_view text);

// Appends the visible form of `text` to `out` as long as `out` stays within
// `limit` bytes, never splitting an escape or a character; returns how many
// bytes of `text` it took.
std::size_t appendVisibleText(std::string& out, std::string_view text, std::size_t limit);

// The same for text that arrives in pieces (a serial port's data): a
// character or a CR LF split between two pieces is judged whole.
class VisibleTextStream {
public:
    // The visible form of what can be judged so far.
    std::string feed(std::string_view piece);
    // The rest, at the end of the text.
    std::string finish();

private:
    std::string _pending; // the end of the last piece, not yet judgeable
};

} // namespace quendral
