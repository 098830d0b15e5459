// quendral-cli: the updater's core for terminals and scripts.
#include "log/logger.h"
#include "platform/app_info.h"

#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr int kUsageError = 2;

void printHelp(std::ostream& out)
{
    out << "Usage: quendral-cli COMMAND [OPTIONS]\n"
           "\n"
           "Commands:\n"
           "  log            print the path of the log file\n"
           "\n"
           "Options:\n"
           "  -h, --help     show this help and exit\n"
           "  -V, --version  show the version and exit\n";
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        printHelp(std::cerr);
        return kUsageError;
    }
    const std::string& command = args.front();
    if (command == "-h" || command == "--help") {
        printHelp(std::cout);
        return 0;
    }
    if (command == "-V" || command == "--version") {
        std::cout << "quendral-cli " << quendral::appinfo::shortVersion() << '\n';
        return 0;
    }
    if (command == "log") {
        // The log path is decided by initLogPath; keep its console chatter off stdout.
        quendral::Logger::setConsole(nullptr);
        quendral::Logger::initLogPath();
        std::cout << quendral::Logger::getLogPath() << '\n';
        return 0;
    }
    std::cerr << "quendral-cli: unknown command '" << command << "'\n\n";
    printHelp(std::cerr);
    return kUsageError;
}
