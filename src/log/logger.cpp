#include "log/logger.h"

#include "platform/paths.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral {
namespace {

const char* const kFolderName = "QuendralFirmwareUpdater";
const char* const kFileName = "log.txt";

struct State {
    std::recursive_mutex mutex;
    std::optional<std::filesystem::path> logPath;
    std::string logBuffer;
    Logger::WallClock clock;
    std::optional<std::filesystem::path> dataFolder;
    std::ostream* console = &std::cout;
};

State& state()
{
    static State* s = new State; // used from detached threads until exit
    return *s;
}

enum class HourClock { TwentyFour, Twelve };

// "yyyy-MM-dd HH:mm:ss" or, with the 12-hour clock, "yyyy-MM-dd hh:mm:ss"
// (no AM/PM marker: the buffered tool output has always looked like that).
std::string timestamp(HourClock hours)
{
    State& s = state();
    const auto now = s.clock ? s.clock() : std::chrono::system_clock::now();
    const std::time_t t = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&t, &local);
    char text[64];
    const std::size_t n = hours == HourClock::TwentyFour
                              ? std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)
                              : std::strftime(text, sizeof text, "%Y-%m-%d %I:%M:%S", &local);
    return std::string(text, n);
}

void printToConsole(const std::string& text)
{
    if (std::ostream* console = state().console) {
        *console << text << '\n' << std::flush;
    }
}

// The whole file, or none with errno telling why.
std::optional<std::string> readWholeFile(const std::filesystem::path& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string data;
    char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int error = errno;
            ::close(fd);
            errno = error;
            return std::nullopt;
        }
        if (n == 0) {
            break;
        }
        data.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return data;
}

// Writes in place (truncate, then write), as the log is meant to be rewritten.
bool writeWholeFile(const std::filesystem::path& path, const std::string& data, std::string& error)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        error = std::strerror(errno);
        return false;
    }
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    out.flush();
    if (!out) {
        error = std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace

std::optional<std::filesystem::path> Logger::initLogPath()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    auto base = s.dataFolder ? s.dataFolder : paths::userDataFolder();
    if (!base) {
        // Nowhere to keep a file: stay console-only rather than stopping the program.
        printToConsole("No per-user data folder (HOME is not set); logging to the console only.");
        return std::nullopt;
    }
    // The per-user data folder itself is the platform's to provide; on a fresh
    // Linux account it may not exist yet, so make sure it does before creating
    // our own folder inside it.
    std::error_code ec;
    std::filesystem::create_directories(*base, ec);

    auto folder = *base / kFolderName;
    s.logPath = folder;
    // Not recursive: on every launch after the first this fails with "File exists",
    // which is expected and only reported on the console.
    if (::mkdir(folder.c_str(), 0755) != 0) {
        const int error = errno;
        printToConsole(folder.string());
        printToConsole(std::strerror(error));
    }
    s.logPath = folder / kFileName;
    printToConsole("file://" + s.logPath->string());
    removeLinesFromFile(500);
    return s.logPath;
}

std::string Logger::getLogPath()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    return s.logPath ? s.logPath->string() : std::string();
}

void Logger::log(const std::string& message)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    const std::string line = "[" + timestamp(HourClock::TwentyFour) + "] " + message + "\n";
    printToConsole(line);
    if (!s.logPath) {
        return;
    }
    std::string text = readWholeFile(*s.logPath).value_or(std::string());
    text += line;
    std::string error;
    if (!writeWholeFile(*s.logPath, text, error)) {
        printToConsole("Unexpected error: " + error + ".");
    }
}

void Logger::logBuffered(const std::string& message)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.logBuffer += "[" + timestamp(HourClock::Twelve) + "] " + message + "\n";
}

void Logger::logCurrentBuffer()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    log(s.logBuffer);
    clearCurrentBuffer();
}

void Logger::clearCurrentBuffer()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.logBuffer.clear();
}

// Searches backwards for newline bytes and keeps everything from the
// (linesToKeep + 1)-th newline from the end, that newline included. With 500
// the file thus starts with an empty line followed by the last 501 lines; this
// cut is the intended one. A file with too few newlines is left alone.
void Logger::removeLinesFromFile(std::size_t linesToKeep)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.logPath) {
        return;
    }
    const auto data = readWholeFile(*s.logPath);
    if (!data) {
        // No file yet (first launch) simply means there is nothing to trim.
        if (errno != ENOENT) {
            printToConsole(std::strerror(errno));
        }
        return;
    }
    if (data->empty()) {
        return;
    }
    std::size_t position = data->size() - 1;
    std::size_t found = 0;
    while (found <= linesToKeep) {
        if (position == 0) {
            return;
        }
        const std::size_t index = data->rfind('\n', position - 1);
        if (index == std::string::npos) {
            return;
        }
        ++found;
        position = index;
    }
    std::string error;
    if (!writeWholeFile(*s.logPath, data->substr(position), error)) {
        printToConsole(error);
        return;
    }
    log("Truncated file to 500 lines");
}

std::optional<std::filesystem::path> Logger::logPath()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    return s.logPath;
}

void Logger::setLogPath(std::optional<std::filesystem::path> path)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.logPath = std::move(path);
}

std::string Logger::logBuffer()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    return s.logBuffer;
}

void Logger::setLogBuffer(std::string buffer)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.logBuffer = std::move(buffer);
}

void Logger::setClock(WallClock clock)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.clock = std::move(clock);
}

void Logger::setDataFolder(std::optional<std::filesystem::path> folder)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.dataFolder = std::move(folder);
}

void Logger::setConsole(std::ostream* console)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.console = console;
}

void Logger::reset()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.logPath.reset();
    s.logBuffer.clear();
}

} // namespace quendral
