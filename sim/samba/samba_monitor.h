#pragma once
// The SAM-BA boot monitor's command interpreter as bossac uses it over the
// native USB port (binary mode after "N#"): word, half-word and byte reads and
// writes, raw send and receive of memory blocks, version, and "go".
//
// "Go" does not run ARM code. bossac only ever runs its word-copy applet, which
// copies a page from SRAM into the flash latch buffer; the monitor reads the
// applet's parameter words (destination, source, word count) and performs that
// copy itself.

#include "sam3x_memory.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quendral::sim {

class SambaMonitor {
public:
    explicit SambaMonitor(Sam3xMemory& memory) : memory_(memory) {}

    // Consumes bytes from the host; appends the monitor's answers to `out`.
    // Bytes after a command that resets the chip are dropped.
    void feed(const uint8_t* data, size_t size, std::vector<uint8_t>& out);
    // Forgets a half-received command (after a reset or a new session).
    void restart();

    void setVerbose(bool verbose) { verbose_ = verbose; }
    unsigned appletRuns() const { return appletRuns_; }
    static const char* versionText() { return "v1.1 Dec 15 2010 19:25:04\n\r"; }

private:
    void execute(const std::string& command, std::vector<uint8_t>& out);
    void go(uint32_t addr);

    Sam3xMemory& memory_;
    std::string command_;
    uint32_t sendAddress_ = 0; // an S command's data still arriving
    uint32_t sendLeft_ = 0;
    bool binary_ = false;
    bool verbose_ = false;
    unsigned appletRuns_ = 0;
};

} // namespace quendral::sim
