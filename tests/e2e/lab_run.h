#pragma once
// Running quendral-cli inside the device lab (quendral-lab) from a test: the
// program's merged output, its exit code, the log file it wrote (kept apart
// by a data folder of the run's own) and the requests the update server saw.
#include "../support/shell_command.h"
#include "../support/temp_dir.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace quendral::test {

struct LabRun {
    int exitCode = -1;
    std::string output;
    std::string log;
    std::vector<nlohmann::json> requests; // the parsed bodies, oldest first

    [[nodiscard]] bool says(const std::string& text) const { return output.find(text) != std::string::npos; }
    [[nodiscard]] bool logged(const std::string& line) const
    {
        return log.find("] " + line + "\n") != std::string::npos;
    }
    [[nodiscard]] long count(const std::string& command) const
    {
        long n = 0;
        for (const auto& body : requests) {
            n += body.is_object() && body.value("cmd", "") == command ? 1 : 0;
        }
        return n;
    }
    [[nodiscard]] long outputCount(const std::string& text) const
    {
        long n = 0;
        for (auto at = output.find(text); at != std::string::npos; at = output.find(text, at + text.size())) {
            ++n;
        }
        return n;
    }
};

inline std::string cliPath()
{
    return std::getenv("QUENDRAL_CLI");
}

// The quendral-cli command line that talks to the lab's server and tools.
inline std::vector<std::string> cliUpdate(std::vector<std::string> more = {})
{
    std::vector<std::string> words{cliPath(),   "update", "--server",    "{server}",
                                   "--ca-file", "{ca}",   "--resources", "{resources}"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

inline std::vector<std::string> cliFlash(const std::string& file)
{
    return {cliPath(), "flash", "--resources", "{resources}", file};
}

// quendral-lab [labArguments] --server-arg --record ... -- program...
inline LabRun runInLab(std::vector<std::string> labArguments, const std::vector<std::string>& program)
{
    TempDir dir;
    const auto record = dir.path() / "requests.jsonl";
    labArguments.insert(labArguments.end(), {"--server-arg", "--record", "--server-arg", record.string()});
    std::string command =
        "XDG_DATA_HOME=" + shellQuoted(dir.path().string()) + " " + shellQuoted(std::getenv("QUENDRAL_LAB"));
    for (const auto& argument : labArguments) {
        command += " " + shellQuoted(argument);
    }
    command += " --";
    for (const auto& word : program) {
        command += " " + shellQuoted(word);
    }
    command += " 2>&1";
    auto result = runShellCommand(command);
    LabRun run;
    run.exitCode = result.exitCode;
    run.output = std::move(result.output);

    std::ifstream logFile(dir.path() / "QuendralFirmwareUpdater" / "log.txt");
    std::stringstream text;
    text << logFile.rdbuf();
    run.log = text.str();
    std::ifstream in(record);
    for (std::string line; std::getline(in, line);) {
        const auto entry = nlohmann::json::parse(line, nullptr, false);
        if (entry.is_object() && entry.contains("json")) {
            run.requests.push_back(entry["json"]);
        }
    }
    return run;
}

// True when the texts appear in this order (others may stand between).
inline bool inOrder(const std::string& text, const std::vector<std::string>& parts)
{
    std::size_t at = 0;
    for (const auto& part : parts) {
        at = text.find(part, at);
        if (at == std::string::npos) {
            return false;
        }
        at += part.size();
    }
    return true;
}

} // namespace quendral::test
