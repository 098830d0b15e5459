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

} // namespace quendral::sim
