#pragma once
// Speeds outside the termios table (250000, 1000000, ...) through termios2 and
// BOTHER. Kept in a file of its own: the kernel's termios2 header and the C
// library's <termios.h> cannot share a translation unit.

namespace quendral {

// Sets input and output speed of an open terminal to any integer rate.
// Returns 0, or -1 with errno set.
int setArbitraryBaudRate(int fd, unsigned long baudRate);
// The output speed the terminal reports through termios2, or 0 on failure.
unsigned long arbitraryBaudRate(int fd);

} // namespace quendral
