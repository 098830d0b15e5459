// How long the real flashing tools take against the simulated boards
// (wall time of one tool run each; run by hand, figures in the README).
//
//   build/bench/bench_flash_tools [repetitions]

#include "avr_board.h"
#include "pty.h"
#include "run_tool.h"
#include "sam_board.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

using namespace quendral::sim;

namespace {

double avrRun(AvrBoardKind kind, const std::string& hex)
{
    Pty pty = openPty();
    AvrBoardOptions options;
    options.kind = kind;
    AvrBoard board(options);
    if (pty.master < 0 || !board.start(pty.master, pty.slavePath)) {
        return -1;
    }
    bool mega = kind == AvrBoardKind::Mega2560;
    ToolRun run =
        runTool({"avrdude", "-C/etc/avrdude.conf", mega ? "-patmega2560" : "-patmega1284p",
                 mega ? "-cwiring" : "-carduino", "-P" + pty.slavePath, "-b115200", "-D", "-Uflash:w:" + hex + ":i"},
                120);
    board.stop();
    close(pty.master);
    return run.exitStatus == 0 ? run.seconds : -1;
}

double bossacRun(const std::string& file)
{
    Pty pty = openPty();
    SamBoard board(SamBoardOptions{});
    if (pty.master < 0 || !board.start(pty.master, pty.slavePath)) {
        return -1;
    }
    ToolRun run =
        runTool({"bossac", "-i", "--port=" + pty.slavePath, "--usb-port=1", "-e", "-w", "-v", "-b", file, "-R"}, 120);
    board.stop();
    close(pty.master);
    return run.exitStatus == 0 ? run.seconds : -1;
}

void report(const char* what, int reps, const std::function<double()>& once)
{
    std::vector<double> t;
    for (int i = 0; i < reps; ++i) {
        t.push_back(once());
    }
    std::sort(t.begin(), t.end());
    if (t.front() < 0) {
        std::printf("%-58s FAILED\n", what);
        return;
    }
    std::printf("%-58s median %6.2f s  min %6.2f s  max %6.2f s\n", what, t[t.size() / 2], t.front(), t.back());
}

} // namespace

int main(int argc, char** argv)
{
    int reps = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    std::string avr = QUENDRAL_AVR_FIRMWARE_DIR;
    std::string sam = QUENDRAL_SAM_IMAGE_DIR;
    report("avrdude, ATmega2560 (stk500v2), 568-byte program", reps,
           [&] { return avrRun(AvrBoardKind::Mega2560, avr + "/identity_a_2560.hex"); });
    report("avrdude, ATmega1284P (optiboot), 478-byte program", reps,
           [&] { return avrRun(AvrBoardKind::Mega1284P, avr + "/identity_a_1284p.hex"); });
    report("avrdude, ATmega1284P (optiboot), 64 KB program", reps,
           [&] { return avrRun(AvrBoardKind::Mega1284P, avr + "/identity_big_1284p.hex"); });
    report("bossac, SAM3X8E (SAM-BA), 20000-byte .bin", reps, [&] { return bossacRun(sam + "/identity_a.bin"); });
    report("bossac, SAM3X8E (SAM-BA), 30000-byte image as .hex text", reps,
           [&] { return bossacRun(sam + "/identity_b.hex"); });
    report("bossac, SAM3X8E (SAM-BA), 256 KB .bin", reps, [&] { return bossacRun(sam + "/identity_big.bin"); });
    return 0;
}
