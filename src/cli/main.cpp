// quendral-cli: the updater's core for terminals and scripts.
#include "cli_session.h"
#include "command_line.h"
#include "log/logger.h"
#include "log/visible_text.h"
#include "platform/app_info.h"

#include <iostream>
#include <string>
#include <vector>

using namespace quendral::cli;

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    const auto parsed = parseCommandLine(args);
    if (const auto* error = std::get_if<UsageError>(&parsed)) {
        std::cerr << "quendral-cli: " << quendral::visibleText(error->message) << "\n" << shortUsage();
        return kUsage;
    }
    const auto& invocation = std::get<Invocation>(parsed);
    switch (invocation.command) {
    case Command::Help:
        std::cout << helpText();
        return kSuccess;
    case Command::Version:
        std::cout << "quendral-cli " << quendral::appinfo::shortVersion() << '\n';
        return kSuccess;
    case Command::Log:
        // Keep the logger's console chatter off standard output: scripts read the path.
        quendral::Logger::setConsole(nullptr);
        quendral::Logger::initLogPath();
        std::cout << quendral::Logger::getLogPath() << '\n';
        return kSuccess;
    default:
        break;
    }
    CliSession session(invocation);
    return session.run();
}
