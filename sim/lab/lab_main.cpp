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

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
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
    std::cerr << "Usage: quendral-lab [--controller KIND[,FAULT]...]... [--image FILE | --blank] [--due-stays-away]\n"
                 "                    [--due-broken-flash] [--no-intermediate] [--open-to-other-users]\n"
                 "                    [--server-firmware FILE] [--server-arg ARG]... -- PROGRAM [ARGUMENTS...]\n"
                 "\n"
                 "Runs PROGRAM in a USB world with a simulated KorbatekDue Controller (its flash\n"
                 "holding FILE, or nothing with --blank) and a local HTTPS update server serving\n"
                 "--server-firmware. In ARGUMENTS, {server}, {ca} and {resources} are replaced by\n"
                 "the server's URL, its test CA and the lab's resource folder.\n"
                 "\n"
                 "--controller given several times plugs in several boards, each on a USB socket\n"
                 "of its own, in that order. Up to three KorbatekDue: the second and third carry\n"
                 "CIDs of their own (ending in 2 and 3; version 1.0.0) and the server gives each\n"
                 "its own version 2.0.0. FAULT (due only): stays-away or broken-flash, as the\n"
                 "options below but for that board alone.\n"
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

constexpr int kMostDues = 3;

// One board to plug in.
struct BoardChoice {
    std::string kind = "due";
    sim::DueFaults dueFaults;
};

// What the command line asks for.
struct LabOptions {
    std::string image = QUENDRAL_LAB_IMAGE_DIR "/lab_old_firmware.bin";
    std::string serverFirmware = QUENDRAL_LAB_IMAGE_DIR "/lab_new_firmware.hex";
    std::vector<std::string> serverArguments;
    std::vector<std::string> program;
    std::vector<BoardChoice> boards;
    bool imageGiven = false;
    bool withIntermediate = true;
    bool openToOtherUsers = false;
    sim::DueFaults dueFaults; // for every due
};

// The broken-flash fault: inside the firmware's code, well past the identity block.
constexpr std::uint32_t kStuckFlashByte = 0x1234;

// "KIND[,FAULT]..."; none when a fault is unknown or not a due's.
std::optional<BoardChoice> boardChoice(const std::string& text)
{
    BoardChoice choice;
    std::size_t start = 0;
    for (std::size_t end = 0; end != std::string::npos; start = end + 1) {
        end = text.find(',', start);
        const std::string word = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (start == 0) {
            choice.kind = word;
        } else if (choice.kind == "due" && word == "stays-away") {
            choice.dueFaults.staysAwayAfterTouch = true;
        } else if (choice.kind == "due" && word == "broken-flash") {
            choice.dueFaults.stuckFlashByte = kStuckFlashByte;
        } else {
            return std::nullopt;
        }
    }
    return choice;
}

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
            const auto choice = boardChoice(argv[++i]);
            if (!choice) {
                usage();
                return std::nullopt;
            }
            options.boards.push_back(*choice);
        } else if (arg == "--due-stays-away") {
            options.dueFaults.staysAwayAfterTouch = true;
        } else if (arg == "--due-broken-flash") {
            options.dueFaults.stuckFlashByte = kStuckFlashByte;
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
    if (options.boards.empty()) {
        options.boards.emplace_back();
    }
    const auto dues = std::count_if(options.boards.begin(), options.boards.end(),
                                    [](const BoardChoice& board) { return board.kind == "due"; });
    if (options.program.empty() || dues > kMostDues) {
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

// A board in the world: one of the three kinds, and the fake boot loader
// an ATmega32U4 stand-in comes back as. Destroyed before the test bed.
struct LabBoard {
    std::string kind;
    std::optional<sim::DueController> due;
    std::optional<sim::AvrController> avr;
    std::optional<sim::UsbIdentityBoard> standIn;
    sim::Avr109BootLoaderFake bootLoader32U4;
};
using LabBoards = std::vector<std::unique_ptr<LabBoard>>;

// The CID of the lab's `number`th KorbatekDue (from 1): the lab's CID with
// its last digit made the number.
std::string dueCid(int number)
{
    std::string cid = QUENDRAL_LAB_CID;
    cid.back() = static_cast<char>('0' + number);
    return cid;
}

// What the `number`th KorbatekDue holds at power-on.
std::string dueImage(const LabOptions& options, int number)
{
    if (options.imageGiven || options.image.empty() || number == 1) {
        return options.image;
    }
    return QUENDRAL_LAB_IMAGE_DIR "/lab_old_firmware_" + std::to_string(number) + ".bin";
}

// The exit status if the board did not start; none when it runs.
std::optional<int> startDue(sim::UmockdevTestbed& testbed, const LabOptions& options, const BoardChoice& choice,
                            int number, LabBoard& board)
{
    sim::DueFaults faults = choice.dueFaults;
    faults.staysAwayAfterTouch = faults.staysAwayAfterTouch || options.dueFaults.staysAwayAfterTouch;
    if (!faults.stuckFlashByte) {
        faults.stuckFlashByte = options.dueFaults.stuckFlashByte;
    }
    board.due.emplace(testbed, dueImage(options, number), faults);
    if (!board.due->start()) {
        std::cerr << "quendral-lab: the simulated Controller did not start: " << board.due->board().error() << "\n";
        return 1;
    }
    return std::nullopt;
}

std::optional<int> startAvr(sim::UmockdevTestbed& testbed, const LabOptions& options, LabBoard& board)
{
    const bool mega = board.kind == "mega2560";
    sim::AvrControllerOptions avr;
    avr.kind = mega ? sim::AvrBoardKind::Mega2560 : sim::AvrBoardKind::Mega1284P;
    avr.programHex = options.imageGiven ? options.image
                                        : std::string(QUENDRAL_AVR_FIRMWARE_DIR) +
                                              (mega ? "/identity_a_2560.hex" : "/identity_a_1284p.hex");
    avr.ttyName = testbed.unusedTtyName(mega ? "ttyACM0" : "ttyUSB0");
    avr.vendorId = mega ? 0x26BA : 0x0403;
    avr.productId = mega ? 0x0003 : 0x6001;
    avr.product = mega ? "QUENDRAL Controller (ATmega2560)" : "FT232R USB UART";
    board.avr.emplace(testbed, avr);
    if (!board.avr->start()) {
        std::cerr << "quendral-lab: the simulated AVR Controller did not start: " << board.avr->board().error() << "\n";
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

std::optional<int> startStandIn(sim::UmockdevTestbed& testbed, LabBoard& board)
{
    auto standIn = standInFor(board.kind);
    if (!standIn) {
        usage();
        return 2;
    }
    standIn->info.ttyName = testbed.unusedTtyName(standIn->info.ttyName);
    board.standIn.emplace(testbed, *standIn);
    if (board.kind == "atmega32u4") {
        board.standIn->setReturnHandler([&board](const std::shared_ptr<sim::UmockdevSerialDevice>& device) {
            board.bootLoader32U4.start(device->deviceEnd());
        });
    }
    board.standIn->start();
    if (board.kind == "atmega32u4-boot-loader") {
        board.bootLoader32U4.start(board.standIn->deviceEnd());
    }
    return std::nullopt;
}

// Plugs the boards the options name into the world, in their order.
std::optional<int> startBoards(sim::UmockdevTestbed& testbed, const LabOptions& options, LabBoards& boards)
{
    int dues = 0;
    for (const BoardChoice& choice : options.boards) {
        auto& board = *boards.emplace_back(std::make_unique<LabBoard>());
        board.kind = choice.kind;
        std::optional<int> failed;
        if (choice.kind == "due") {
            failed = startDue(testbed, options, choice, ++dues, board);
        } else if (choice.kind == "mega2560" || choice.kind == "mega1284p") {
            failed = startAvr(testbed, options, board);
        } else {
            failed = startStandIn(testbed, board);
        }
        if (failed) {
            return failed;
        }
    }
    return std::nullopt;
}

// The node the board has now.
std::string devnodeOf(const LabBoard& board)
{
    if (board.due) {
        return board.due->devnode();
    }
    return board.avr ? board.avr->devnode() : board.standIn->devnode();
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

// What became of the board, then it stops. `name` starts each line: the
// lab's own, and the board's number when there are several.
void reportAndStop(const std::string& name, LabBoard& board)
{
    if (board.due) {
        const auto identity = board.due->identity();
        std::cerr << name << "the Controller's flash now identifies it as "
                  << (identity ? identity->cid + " version " + identity->version : std::string("nothing")) << "\n";
        board.due->stop();
    }
    if (board.avr) {
        std::cerr << name << "the AVR board was reset " << board.avr->resets() << " times\n";
        const auto identity = board.avr->askIdentity();
        std::cerr << name << "the AVR board's program answers " << identity.value_or("nothing") << "\n";
        board.avr->stop();
    }
    if (board.standIn) {
        std::cerr << name << "the board saw " << board.standIn->touches() << " 1200-baud touches\n";
        board.standIn->stop();
        board.bootLoader32U4.stop();
        if (board.kind.starts_with("atmega32u4")) {
            std::cerr << name << "avrdude wrote " << board.bootLoader32U4.bytesWritten()
                      << " bytes into the ATmega32U4 boot loader (a fake: AVR109 answered in C++)\n";
        }
    }
}

// The server's firmware for the second and third KorbatekDue: their own CIDs.
void serveEveryDueItsOwn(std::vector<std::string>& serverArguments)
{
    for (int number = 2; number <= kMostDues; ++number) {
        serverArguments.insert(serverArguments.begin(),
                               {"--firmware-for", dueCid(number) + "=" + QUENDRAL_LAB_IMAGE_DIR "/lab_new_firmware_" +
                                                      std::to_string(number) + ".hex"});
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
    serveEveryDueItsOwn(options->serverArguments);
    test::LocalUpdateServer server({.arguments = options->serverArguments});
    if (!server.running()) {
        std::cerr << "quendral-lab: the update server did not start: " << server.error() << "\n";
        return 1;
    }

    sim::UmockdevTestbed testbed;
    LabBoards boards;
    if (const auto failed = startBoards(testbed, *options, boards)) {
        return *failed;
    }
    std::cerr << "quendral-lab: ";
    for (const auto& board : boards) {
        std::cerr << board->kind << " on " << devnodeOf(*board) << ", ";
    }
    std::cerr << "update server at " << server.baseUrl() << "\n";
    if (options->openToOtherUsers) {
        openToOtherUsers(folderTemplate);
    }

    for (auto& argument : options->program) {
        argument = replaced(argument, "{server}", server.baseUrl());
        argument = replaced(argument, "{ca}", server.caFile().string());
        argument = replaced(argument, "{resources}", resources.string());
    }
    const int status = runProgram(options->program);

    for (std::size_t i = 0; i < boards.size(); ++i) {
        reportAndStop(boards.size() == 1
                          ? std::string("quendral-lab: ")
                          : "quendral-lab: board " + std::to_string(i + 1) + " (" + boards[i]->kind + "): ",
                      *boards[i]);
    }
    server.stop();
    std::error_code ec;
    fs::remove_all(folderTemplate, ec);
    return status;
}
