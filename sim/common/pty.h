#pragma once
// A fresh pseudo-terminal whose device end a simulated board drives.

#include <string>

namespace quendral::sim {

struct Pty {
    int master = -1;       // the board's end: non-blocking, raw
    std::string slavePath; // what the flashing tool or the application opens (/dev/pts/N)
};

// Opens a pty with a raw 115200-baud line. The slave is not kept open, so the
// board sees the peer's hang-up when the tool closes it. Returns master -1 on failure.
Pty openPty();

// Puts the line of the tty `fd` into raw mode at 115200 baud: no echo, no
// newline mapping, every byte as it comes.
void makeRaw(int fd);

} // namespace quendral::sim
