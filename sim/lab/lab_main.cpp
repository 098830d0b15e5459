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

} // namespace

int main(int argc, char** argv)
{
    // The world exists only inside umockdev's preload: start again inside it.
    if (!sim::UmockdevTestbed::isAvailable()) {
        sim::UmockdevTestbed::runAgainInsideWrapper(argc, argv, "quendral-lab");
        return 127;
    }

    std::string image = QUENDRAL_LAB_IMAGE_DIR "/lab_old_firmware.bin";
    std::string serverFirmware = QUENDRAL_LAB_IMAGE_DIR "/lab_new_firmware.hex";
    std::vector<std::string> serverArguments;
    std::vector<std::string> program;
    std::string kind = "due";
    bool imageGiven = false;
    bool withIntermediate = true;
    bool openToOtherUsers = false;
    sim::DueFaults dueFaults;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            program.assign(argv + i + 1, argv + argc);
            break;
        }
        if (arg == "--image" && i + 1 < argc) {
            image = argv[++i];
            imageGiven = true;
        } else if (arg == "--controller" && i + 1 < argc) {
            kind = argv[++i];
        } else if (arg == "--due-stays-away") {
            dueFaults.staysAwayAfterTouch = true;
        } else if (arg == "--due-broken-flash") {
            // Inside the firmware's code, well past the identity block.
            dueFaults.stuckFlashByte = 0x1234;
        } else if (arg == "--no-intermediate") {
            withIntermediate = false;
        } else if (arg == "--open-to-other-users") {
            openToOtherUsers = true;
        } else if (arg == "--blank") {
            image.clear();
        } else if (arg == "--server-firmware" && i + 1 < argc) {
            serverFirmware = argv[++i];
        } else if (arg == "--server-arg" && i + 1 < argc) {
            serverArguments.emplace_back(argv[++i]);
        } else {
            usage();
            return 2;
        }
    }
    if (program.empty()) {
        usage();
        return 2;
    }

    // The lab's resource folder: the real tools, and the lab's intermediate firmware.
    char folderTemplate[] = "/tmp/quendral-lab-XXXXXX";
    if (::mkdtemp(folderTemplate) == nullptr) {
        std::cerr << "quendral-lab: cannot make a folder in /tmp\n";
        return 1;
    }
    const fs::path resources = fs::path(folderTemplate) / "resources";
    fs::create_directories(resources);
    for (const char* tool : {"avrdude", "bossac", "avrdude.conf"}) {
        fs::create_symlink(fs::path(QUENDRAL_BUILD_RESOURCES) / tool, resources / tool);
    }
    if (withIntermediate) {
        fs::copy_file(QUENDRAL_LAB_IMAGE_DIR "/lab_intermediate_due.hex", resources / "intermediate_due.hex");
    }

    serverArguments.insert(serverArguments.begin(), {"--firmware", serverFirmware});
    test::LocalUpdateServer server({.arguments = serverArguments});
    if (!server.running()) {
        std::cerr << "quendral-lab: the update server did not start: " << server.error() << "\n";
        return 1;
    }

    sim::UmockdevTestbed testbed;
    std::optional<sim::DueController> due;
    std::optional<sim::AvrController> avr;
    std::optional<sim::UsbIdentityBoard> standIn;
    sim::Avr109BootLoaderFake bootLoader32U4;
    std::string devnode;
    if (kind == "due") {
        due.emplace(testbed, image, dueFaults);
        if (!due->start()) {
            std::cerr << "quendral-lab: the simulated Controller did not start: " << due->board().error() << "\n";
            return 1;
        }
        devnode = due->devnode();
    } else if (kind == "mega2560" || kind == "mega1284p") {
        const bool mega = kind == "mega2560";
        sim::AvrControllerOptions options;
        options.kind = mega ? sim::AvrBoardKind::Mega2560 : sim::AvrBoardKind::Mega1284P;
        options.programHex = imageGiven ? image
                                        : std::string(QUENDRAL_AVR_FIRMWARE_DIR) +
                                              (mega ? "/identity_a_2560.hex" : "/identity_a_1284p.hex");
        options.ttyName = mega ? "ttyACM0" : "ttyUSB0";
        options.vendorId = mega ? 0x26BA : 0x0403;
        options.productId = mega ? 0x0003 : 0x6001;
        options.product = mega ? "QUENDRAL Controller (ATmega2560)" : "FT232R USB UART";
        avr.emplace(testbed, options);
        if (!avr->start()) {
            std::cerr << "quendral-lab: the simulated AVR Controller did not start: " << avr->board().error() << "\n";
            return 1;
        }
        devnode = avr->devnode();
    } else {
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
            usage();
            return 2;
        }
        standIn.emplace(testbed, options);
        if (kind == "atmega32u4") {
            standIn->setReturnHandler([&bootLoader32U4](const std::shared_ptr<sim::UmockdevSerialDevice>& device) {
                bootLoader32U4.start(device->deviceEnd());
            });
        }
        standIn->start();
        if (kind == "atmega32u4-boot-loader") {
            bootLoader32U4.start(standIn->deviceEnd());
        }
        devnode = standIn->devnode();
    }
    std::cerr << "quendral-lab: " << kind << " on " << devnode << ", update server at " << server.baseUrl() << "\n";
    if (openToOtherUsers) {
        const auto readable = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec;
        std::error_code ignored;
        fs::permissions(folderTemplate, readable, ignored);
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

    for (auto& argument : program) {
        argument = replaced(argument, "{server}", server.baseUrl());
        argument = replaced(argument, "{ca}", server.caFile().string());
        argument = replaced(argument, "{resources}", resources.string());
    }
    const int status = runProgram(program);

    if (due) {
        const auto identity = due->identity();
        std::cerr << "quendral-lab: the Controller's flash now identifies it as "
                  << (identity ? identity->cid + " version " + identity->version : std::string("nothing")) << "\n";
        due->stop();
    }
    if (avr) {
        std::cerr << "quendral-lab: the AVR board was reset " << avr->resets() << " times\n";
        const auto identity = avr->askIdentity();
        std::cerr << "quendral-lab: the AVR board's program answers " << identity.value_or("nothing") << "\n";
        avr->stop();
    }
    if (standIn) {
        std::cerr << "quendral-lab: the board saw " << standIn->touches() << " 1200-baud touches\n";
        standIn->stop();
        bootLoader32U4.stop();
        if (kind.starts_with("atmega32u4")) {
            std::cerr << "quendral-lab: avrdude wrote " << bootLoader32U4.bytesWritten()
                      << " bytes into the ATmega32U4 boot loader (a fake: AVR109 answered in C++)\n";
        }
    }
    server.stop();
    std::error_code ec;
    fs::remove_all(folderTemplate, ec);
    return status;
}
