#include "samba_monitor.h"

#include <cstdio>
#include <cstdlib>

namespace quendral::sim {

namespace {

// bossac's word-copy applet keeps, from the address "go" is given: the initial
// stack pointer, the entry point, then its parameters.
constexpr uint32_t kAppletDst = 8;
constexpr uint32_t kAppletSrc = 12;
constexpr uint32_t kAppletWords = 16;
constexpr uint32_t kMaxCommand = 64;

} // namespace

void SambaMonitor::restart()
{
    command_.clear();
    sendLeft_ = 0;
    binary_ = false;
}

void SambaMonitor::feed(const uint8_t* data, size_t size, std::vector<uint8_t>& out)
{
    for (size_t i = 0; i < size; ++i) {
        if (sendLeft_ > 0) {
            memory_.writeByte(sendAddress_++, data[i]);
            --sendLeft_;
            continue;
        }
        char c = static_cast<char>(data[i]);
        if (c == '#') {
            execute(command_, out);
            command_.clear();
            if (memory_.resetPending()) {
                return; // the chip is resetting: whatever followed is lost
            }
            continue;
        }
        if (c == '\n' || c == '\r') {
            // Text the firmware side sent before the boot loader took over
            // ("prepareUpload\n") never reaches a '#': a line break ends it.
            command_.clear();
            continue;
        }
        if (command_.empty() && c == ' ') {
            continue;
        }
        if (command_.size() >= kMaxCommand) {
            command_.clear(); // garbage: start over, as the ROM would at the next '#'
        }
        command_ += c;
    }
}

void SambaMonitor::execute(const std::string& command, std::vector<uint8_t>& out)
{
    if (verbose_) {
        std::fprintf(stderr, "samba: %s#\n", command.c_str());
    }
    if (command.empty()) {
        return;
    }
    char op = command[0];
    const char* p = command.c_str() + 1;
    char* end = nullptr;
    uint32_t a = static_cast<uint32_t>(std::strtoul(p, &end, 16));
    uint32_t b = 0;
    if (end && *end == ',') {
        b = static_cast<uint32_t>(std::strtoul(end + 1, nullptr, 16));
    }
    auto putWord = [&](uint32_t v, unsigned bytes) {
        if (binary_) {
            for (unsigned k = 0; k < bytes; ++k) {
                out.push_back(static_cast<uint8_t>(v >> (8 * k)));
            }
        } else {
            char buf[32];
            int n = std::snprintf(buf, sizeof buf, "\n\r0x%0*X\n\r", static_cast<int>(bytes * 2), v);
            out.insert(out.end(), buf, buf + n);
        }
    };
    switch (op) {
    case 'N':
        binary_ = true;
        out.push_back('\n');
        out.push_back('\r');
        break;
    case 'T':
        binary_ = false;
        out.push_back('\n');
        out.push_back('\r');
        out.push_back('>');
        break;
    case 'V': {
        std::string v = versionText();
        out.insert(out.end(), v.begin(), v.end());
        break;
    }
    case 'w':
        putWord(memory_.readWord(a), 4);
        break;
    case 'h':
        putWord(static_cast<uint32_t>(memory_.readByte(a)) | static_cast<uint32_t>(memory_.readByte(a + 1)) << 8, 2);
        break;
    case 'o':
        putWord(memory_.readByte(a), 1);
        break;
    case 'W':
        memory_.writeWord(a, b);
        break;
    case 'H':
        memory_.writeByte(a, static_cast<uint8_t>(b));
        memory_.writeByte(a + 1, static_cast<uint8_t>(b >> 8));
        break;
    case 'O':
        memory_.writeByte(a, static_cast<uint8_t>(b));
        break;
    case 'S':
        sendAddress_ = a;
        sendLeft_ = b;
        break;
    case 'R':
        for (uint32_t k = 0; k < b; ++k) {
            out.push_back(memory_.readByte(a + k));
        }
        break;
    case 'G':
        go(a);
        break;
    default:
        break; // unknown commands are ignored, as by the ROM
    }
}

void SambaMonitor::go(uint32_t addr)
{
    uint32_t entry = memory_.readWord(addr + 4);
    uint32_t dst = memory_.readWord(addr + kAppletDst);
    uint32_t src = memory_.readWord(addr + kAppletSrc);
    uint32_t words = memory_.readWord(addr + kAppletWords);
    if (verbose_) {
        std::fprintf(stderr, "samba: applet at 0x%08X entry 0x%08X copies %u words 0x%08X -> 0x%08X\n", addr, entry,
                     words, src, dst);
    }
    // Anything but the copy applet (a stack pointer in SRAM, an entry point in
    // SRAM, a sane word count) would need a real core: not simulated.
    if ((entry >> 24) != 0x20 || words > 0x10000) {
        return;
    }
    for (uint32_t k = 0; k < words; ++k) {
        memory_.writeWord(dst + 4 * k, memory_.readWord(src + 4 * k));
    }
    ++appletRuns_;
}

} // namespace quendral::sim
