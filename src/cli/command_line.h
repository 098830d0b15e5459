#pragma once
// quendral-cli's command line: parsing, help and exit codes.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quendral::cli {

// Exit codes, as --help lists them.
enum ExitCode : int {
    kSuccess = 0,
    kFailure = 1,        // the operation failed (no identification, upload failed, ...)
    kUsage = 2,          // wrong arguments
    kNoUpdateNeeded = 3, // the Controller already runs the newest firmware
    kRefused = 4,        // the server refused: not registered, or a message from the maker
    kNoConnection = 5,   // the update server could not be reached
    kDeclined = 6,       // a question was answered no
};

enum class Command { Ports, Identify, Update, Flash, Ip, WebConfig, OnlineConfig, Monitor, Doctor, Log, Help, Version };

enum class Answer { Ask, Yes, No };

struct Invocation {
    Command command = Command::Help;
    std::optional<std::string> port;                              // -p NAME or /dev path
    std::optional<std::string> build;                             // update --build
    bool all = false;                                             // identify/update --all
    bool raw = false;                                             // ip --raw
    bool quiet = false;                                           // --quiet
    bool json = false;                                            // --json
    Answer answer = Answer::Ask;                                  // update --yes / --no
    std::optional<std::string> serverURL;                         // update --server https://host[:port]
    std::optional<std::string> caFile;                            // update --ca-file FILE
    std::optional<std::string> firmwareFile;                      // flash FILE
    std::optional<std::string> resources;                         // --resources DIR (the device lab's tools)
    std::vector<std::pair<std::string, std::string>> assignments; // ip KEY=VALUE ...
};

struct UsageError {
    std::string message;
};

std::variant<Invocation, UsageError> parseCommandLine(const std::vector<std::string>& args);

// The device number N of an accepted "devN" or "enableN" key (from 1); none
// for every other key. parseCommandLine refuses a number this cannot hold.
std::optional<std::size_t> deviceNumber(std::string_view key);

std::string helpText();
// The few lines shown with a usage error.
std::string shortUsage();

} // namespace quendral::cli
