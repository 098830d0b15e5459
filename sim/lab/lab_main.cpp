// quendral-lab: a device lab for the updater on a machine without hardware.
//
// It builds a umockdev USB world holding a simulated KorbatekDue Controller,
// starts the local HTTPS update server, and runs a program inside that world
// (the command line, the window, a test). In the program's arguments
// {server}, {ca} and {resources} stand for the server's URL, its test CA and
// the lab's resource folder (the flashing tools and the lab's intermediate
// firmware, a simulator image that is never packaged for real boards).
#include "avr109_boot_loader_fake.h"
#include "avr_controller.h"
#include "due_controller.h"
#include "local_update_server.h"
#include "umockdev_testbed.h"
#include "usb_identity_board.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace quendral;

void usage()
{
    std::cerr << "Usage: quendral-lab [--controller KIND] [--image FILE | --blank] [--due-stays-away]\n"
                 "                    [--due-broken-flash] [--no-intermediate] [--open-to-other-users]\n"
                 "                    [--server-firmware FILE] [--server-arg ARG]... -- PROGRAM [ARGUMENTS...]\n"
                 "\n"
                 "Runs PROGRAM in a USB world with a simulated KorbatekDue Controller (its flash\n"
                 "holding FILE, or nothing with --blank) and a local HTTPS update server serving\n"
                 "--server-firmware. In ARGUMENTS, {server}, {ca} and {resources} are replaced by\n"
                 "the server's URL, its test CA and the lab's resource folder.\n"
                 "\n"
                 "KIND: due (the default), mega2560 (simavr, stk500v2, USB 26BA:0003 on ttyACM0),\n"
                 "mega1284p (simavr, optiboot, FTDI 0403:6001 on ttyUSB0; for both FILE is the\n"
                 "program in flash), atmega32u4 (2341:8037; after the 1200-baud touch it comes\n"
                 "back as its boot loader 2341:0037, answered by a fake AVR109 boot loader: no\n"
                 "simulator runs the real one), atmega32u4-boot-loader (already in that boot\n"
                 "loader at the start), or VVVV:PPPP\n"
                 "(a ttyACM0 with that USB identity and nothing behind it).\n"
                 "--due-stays-away: after the 1200-baud touch the due leaves USB for good.\n"
                 "--due-broken-flash: one byte of the due's flash never keeps what is written.\n"
                 "--no-intermediate: the resource folder holds no intermediate firmware (as installed\n"
                 "copies have none until the maker supplies one).\n"
                 "--open-to-other-users: other users may enter the lab's folders (to run PROGRAM as\n"
                 "one, e.g. with setpriv); the Controller's port stays root's, as a port\n"
                 "of a group the user is not in.\n";
}

std::string replaced(std::string text, const std::string& token, const std::string& value)
{
    for (std::size_t at = text.find(token); at != std::string::npos; at = text.find(token, at + value.size())) {
        text.replace(at, token.size(), value);
    }
    return text;
}

int runProgram(const std::vector<std::string>& arguments)
{
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (const int error = ::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ); error != 0) {
        std::cerr << "quendral-lab: cannot run " << arguments.front() << ": " << std::strerror(error) << "\n";
        return 127;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What the command line asks for.
struct LabOptions {
    std::string image = QUENDRAL_LAB_IMAGE_DIR "/lab_old_firmware.bin";
    std::string serverFirmware = QUENDRAL_LAB_IMAGE_DIR "/lab_new_firmware.hex";
    std::vector<std::string> serverArguments;
    std::vector<std::string> program;
    std::string kind = "due";
    bool imageGiven = false;
    bool withIntermediate = true;
    bool openToOtherUsers = false;
    sim::DueFaults dueFaults;
};

// None (after the usage) when the arguments make no sense.
std::optional<LabOptions> parseArguments(int argc, char** argv)
{
    LabOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            options.program.assign(argv + i + 1, argv + argc);
            break;
        }
        if (arg == "--image" && i + 1 < argc) {
            options.image = argv[++i];
            options.imageGiven = true;
        } else if (arg == "--controller" && i + 1 < argc) {
            options.kind = argv[++i];
        } else if (arg == "--due-stays-away") {
            options.dueFaults.staysAwayAfterTouch = true;
        } else if (arg == "--due-broken-flash") {
            // Inside the firmware's code, well past the identity block.
            options.dueFaults.stuckFlashByte = 0x1234;
        } else if (arg == "--no-intermediate") {
            options.withIntermediate = false;
        } else if (arg == "--open-to-other-users") {
            options.openToOtherUsers = true;
        } else if (arg == "--blank") {
            options.image.clear();
        } else if (arg == "--server-firmware" && i + 1 < argc) {
            options.serverFirmware = argv[++i];
        } else if (arg == "--server-arg" && i + 1 < argc) {
            options.serverArguments.emplace_back(argv[++i]);
        } else {
            usage();
            return std::nullopt;
        }
    }
    if (options.program.empty()) {
        usage();
        return std::nullopt;
    }
    return options;
}

// The lab's resource folder inside `folder`: the real tools, and the lab's
// intermediate firmware.
fs::path makeResourceFolder(const fs::path& folder, bool withIntermediate)
{
    const fs::path resources = folder / "resources";
    fs::create_directories(resources);
    for (const char* tool : {"avrdude", "bossac", "avrdude.conf"}) {
        fs::create_symlink(fs::path(QUENDRAL_BUILD_RESOURCES) / tool, resources / tool);
    }
    if (withIntermediate) {
        fs::copy_file(QUENDRAL_LAB_IMAGE_DIR "/lab_intermediate_due.hex", resources / "intermediate_due.hex");
    }
    return resources;
}

// The board in the world: one of the three kinds, and the fake boot loader
// an ATmega32U4 stand-in comes back as. Destroyed before the test bed.
struct LabBoards {
    std::optional<sim::DueController> due;
    std::optional<sim::AvrController> avr;
    std::optional<sim::UsbIdentityBoard> standIn;
    sim::Avr109BootLoaderFake bootLoader32U4;
};

// The exit status if the board did not start; none when it runs.
std::optional<int> startDue(sim::UmockdevTestbed& testbed, const LabOptions& options, LabBoards& boards)
{
    boards.due.emplace(testbed, options.image, options.dueFaults);
    if (!boards.due->start()) {
        std::cerr << "quendral-lab: the simulated Controller did not start: " << boards.due->board().error() << "\n";
        return 1;
    }
    return std::nullopt;
}

std::optional<int> startAvr(sim::UmockdevTestbed& testbed, const LabOptions& options, LabBoards& boards)
{
    const bool mega = options.kind == "mega2560";
    sim::AvrControllerOptions avr;
    avr.kind = mega ? sim::AvrBoardKind::Mega2560 : sim::AvrBoardKind::Mega1284P;
    avr.programHex = options.imageGiven ? options.image
                                        : std::string(QUENDRAL_AVR_FIRMWARE_DIR) +
                                              (mega ? "/identity_a_2560.hex" : "/identity_a_1284p.hex");
    avr.ttyName = mega ? "ttyACM0" : "ttyUSB0";
    avr.vendorId = mega ? 0x26BA : 0x0403;
    avr.productId = mega ? 0x0003 : 0x6001;
    avr.product = mega ? "QUENDRAL Controller (ATmega2560)" : "FT232R USB UART";
    boards.avr.emplace(testbed, avr);
    if (!boards.avr->start()) {
        std::cerr << "quendral-lab: the simulated AVR Controller did not start: " << boards.avr->board().error()
                  << "\n";
        return 1;
    }
    return std::nullopt;
}

// A board known by its USB identity alone; none if `kind` names no such board.
std::optional<sim::UsbIdentityBoardOptions> standInFor(const std::string& kind)
{
    sim::UsbIdentityBoardOptions options;
    unsigned vendor = 0;
    unsigned product = 0;
    if (kind == "atmega32u4") {
        options.info.vendorId = 0x2341;
        options.info.productId = 0x8037;
        options.info.product = "QUENDRAL Controller (ATmega32U4)";
        options.onTouch = sim::UsbIdentityBoardOptions::OnTouch::Reenumerate;
        options.vendorIdAfterTouch = 0x2341;
        options.productIdAfterTouch = 0x0037;
        options.productAfterTouch = "ATmega32U4 boot loader";
    } else if (kind == "atmega32u4-boot-loader") {
        options.info.vendorId = 0x2341;
        options.info.productId = 0x0037;
        options.info.product = "ATmega32U4 boot loader";
    } else if (std::sscanf(kind.c_str(), "%4x:%4x", &vendor, &product) == 2) {
        options.info.vendorId = static_cast<std::uint16_t>(vendor);
        options.info.productId = static_cast<std::uint16_t>(product);
        options.info.product = "USB serial device";
    } else {
        return std::nullopt;
    }
    return options;
}

std::optional<int> startStandIn(sim::UmockdevTestbed& testbed, const LabOptions& options, LabBoards& boards)
{
    const auto standIn = standInFor(options.kind);
    if (!standIn) {
        usage();
        return 2;
    }
    boards.standIn.emplace(testbed, *standIn);
    if (options.kind == "atmega32u4") {
        boards.standIn->setReturnHandler([&boards](const std::shared_ptr<sim::UmockdevSerialDevice>& device) {
            boards.bootLoader32U4.start(device->deviceEnd());
        });
    }
    boards.standIn->start();
    if (options.kind == "atmega32u4-boot-loader") {
        boards.bootLoader32U4.start(boards.standIn->deviceEnd());
    }
    return std::nullopt;
}

// Plugs the board `options.kind` names into the world.
std::optional<int> startBoard(sim::UmockdevTestbed& testbed, const LabOptions& options, LabBoards& boards)
{
    if (options.kind == "due") {
        return startDue(testbed, options, boards);
    }
    if (options.kind == "mega2560" || options.kind == "mega1284p") {
        return startAvr(testbed, options, boards);
    }
    return startStandIn(testbed, options, boards);
}

// The node the board has now.
std::string devnodeOf(const LabBoards& boards)
{
    if (boards.due) {
        return boards.due->devnode();
    }
    return boards.avr ? boards.avr->devnode() : boards.standIn->devnode();
}

// Lets other users into the lab's folder and the test bed's (the
// Controller's port itself stays root's).
void openToOtherUsers(const char* folder)
{
    const auto readable = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                          fs::perms::others_read | fs::perms::others_exec;
    std::error_code ignored;
    fs::permissions(folder, readable, ignored);
    if (const char* world = std::getenv("UMOCKDEV_DIR")) {
        fs::permissions(world, readable, ignored);
        // umockdev's preload connects to these sockets on every open of a
        // node, before the open itself is tried: connecting takes write
        // permission.
        for (const auto& entry : fs::recursive_directory_iterator(fs::path(world) / "ioctl", ignored)) {
            fs::permissions(entry.path(), fs::perms::all, ignored);
        }
    }
}

// What became of the board, then it stops.
void reportAndStop(const std::string& kind, LabBoards& boards)
{
    if (boards.due) {
        const auto identity = boards.due->identity();
        std::cerr << "quendral-lab: the Controller's flash now identifies it as "
                  << (identity ? identity->cid + " version " + identity->version : std::string("nothing")) << "\n";
        boards.due->stop();
    }
    if (boards.avr) {
        std::cerr << "quendral-lab: the AVR board was reset " << boards.avr->resets() << " times\n";
        const auto identity = boards.avr->askIdentity();
        std::cerr << "quendral-lab: the AVR board's program answers " << identity.value_or("nothing") << "\n";
        boards.avr->stop();
    }
    if (boards.standIn) {
        std::cerr << "quendral-lab: the board saw " << boards.standIn->touches() << " 1200-baud touches\n";
        boards.standIn->stop();
        boards.bootLoader32U4.stop();
        if (kind.starts_with("atmega32u4")) {
            std::cerr << "quendral-lab: avrdude wrote " << boards.bootLoader32U4.bytesWritten()
                      << " bytes into the ATmega32U4 boot loader (a fake: AVR109 answered in C++)\n";
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    // The world exists only inside umockdev's preload: start again inside it.
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "quendral-lab");
        return 127;
    }
    auto options = parseArguments(argc, argv);
    if (!options) {
        return 2;
    }

    char folderTemplate[] = "/tmp/quendral-lab-XXXXXX";
    if (::mkdtemp(folderTemplate) == nullptr) {
        std::cerr << "quendral-lab: cannot make a folder in /tmp\n";
        return 1;
    }
    const fs::path resources = makeResourceFolder(folderTemplate, options->withIntermediate);

    options->serverArguments.insert(options->serverArguments.begin(), {"--firmware", options->serverFirmware});
    test::LocalUpdateServer server({.arguments = options->serverArguments});
    if (!server.running()) {
        std::cerr << "quendral-lab: the update server did not start: " << server.error() << "\n";
        return 1;
    }

    sim::UmockdevTestbed testbed;
    LabBoards boards;
    if (const auto failed = startBoard(testbed, *options, boards)) {
        return *failed;
    }
    std::cerr << "quendral-lab: " << options->kind << " on " << devnodeOf(boards) << ", update server at "
              << server.baseUrl() << "\n";
    if (options->openToOtherUsers) {
        openToOtherUsers(folderTemplate);
    }

    for (auto& argument : options->program) {
        argument = replaced(argument, "{server}", server.baseUrl());
        argument = replaced(argument, "{ca}", server.caFile().string());
        argument = replaced(argument, "{resources}", resources.string());
    }
    const int status = runProgram(options->program);

    reportAndStop(options->kind, boards);
    server.stop();
    std::error_code ec;
    fs::remove_all(folderTemplate, ec);
    return status;
}
