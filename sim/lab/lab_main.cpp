// quendral-lab: a device lab for the updater on a machine without hardware.
//
// It builds a umockdev USB world holding a simulated KorbatekDue Controller,
// starts the local HTTPS update server, and runs a program inside that world
// (the command line, the window, a test). In the program's arguments
// {server}, {ca} and {resources} stand for the server's URL, its test CA and
// the lab's resource folder (the flashing tools and the lab's intermediate
// firmware, a simulator image that is never packaged for real boards).
#include "due_controller.h"
#include "local_update_server.h"
#include "umockdev_testbed.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
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
    std::cerr << "Usage: quendral-lab [--image FILE | --blank] [--server-firmware FILE] [--server-arg ARG]...\n"
                 "                    -- PROGRAM [ARGUMENTS...]\n"
                 "\n"
                 "Runs PROGRAM in a USB world with a simulated KorbatekDue Controller (its flash\n"
                 "holding FILE, or nothing with --blank) and a local HTTPS update server serving\n"
                 "--server-firmware. In ARGUMENTS, {server}, {ca} and {resources} are replaced by\n"
                 "the server's URL, its test CA and the lab's resource folder.\n";
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
        std::vector<char*> again{const_cast<char*>("umockdev-wrapper")};
        for (int i = 0; i < argc; ++i) {
            again.push_back(argv[i]);
        }
        again.push_back(nullptr);
        ::execvp("umockdev-wrapper", again.data());
        std::cerr << "quendral-lab: umockdev-wrapper not found (Debian package umockdev)\n";
        return 127;
    }

    std::string image = QUENDRAL_LAB_IMAGE_DIR "/lab_old_firmware.bin";
    std::string serverFirmware = QUENDRAL_LAB_IMAGE_DIR "/lab_new_firmware.hex";
    std::vector<std::string> serverArguments;
    std::vector<std::string> program;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            program.assign(argv + i + 1, argv + argc);
            break;
        }
        if (arg == "--image" && i + 1 < argc) {
            image = argv[++i];
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
    fs::copy_file(QUENDRAL_LAB_IMAGE_DIR "/lab_intermediate_due.hex", resources / "intermediate_due.hex");

    serverArguments.insert(serverArguments.begin(), {"--firmware", serverFirmware});
    test::LocalUpdateServer server({.arguments = serverArguments});
    if (!server.running()) {
        std::cerr << "quendral-lab: the update server did not start: " << server.error() << "\n";
        return 1;
    }

    sim::UmockdevTestbed testbed;
    sim::DueController controller(testbed, image);
    if (!controller.start()) {
        std::cerr << "quendral-lab: the simulated Controller did not start: " << controller.board().error() << "\n";
        return 1;
    }
    std::cerr << "quendral-lab: KorbatekDue on " << controller.devnode() << ", update server at " << server.baseUrl()
              << "\n";

    for (auto& argument : program) {
        argument = replaced(argument, "{server}", server.baseUrl());
        argument = replaced(argument, "{ca}", server.caFile().string());
        argument = replaced(argument, "{resources}", resources.string());
    }
    const int status = runProgram(program);

    const auto identity = controller.identity();
    std::cerr << "quendral-lab: the Controller's flash now identifies it as "
              << (identity ? identity->cid + " version " + identity->version : std::string("nothing")) << "\n";
    controller.stop();
    server.stop();
    std::error_code ec;
    fs::remove_all(folderTemplate, ec);
    return status;
}
