#pragma once
// The application's one log file, "QuendralFirmwareUpdater/log.txt" in the
// per-user data folder, and the in-memory buffer that collects a flashing
// tool's output so that it reaches the file in one piece, and only when the
// tool failed. All state is class-wide.
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

namespace quendral {

class Logger {
public:
    Logger() = delete;

    // Locates the log folder, creates it, trims the file to its last lines
    // and returns the file's path.
    static std::optional<std::filesystem::path> initLogPath();
    // The log file's path; empty before initLogPath() has run.
    static std::string getLogPath();

    // "[yyyy-MM-dd HH:mm:ss] message" to the console and appended to the file.
    // Control characters are made visible (log/visible_text.h); beyond 4 KiB
    // the message is cut, with "… (cut, N bytes)" for the N bytes left out.
    static void log(const std::string& message);
    // "[yyyy-MM-dd hh:mm:ss] message" (12-hour clock), made visible, appended
    // to the buffer only. The buffer keeps at most 64 KiB: its first lines and its last ones,
    // with a note of the bytes dropped between them.
    static void logBuffered(const std::string& message);
    // Writes the whole buffer as one entry, then empties it.
    static void logCurrentBuffer();
    static void clearCurrentBuffer();
    // Keeps the tail of the file, at most 1 MiB of it (see the .cpp for the exact cut).
    static void removeLinesFromFile(std::size_t linesToKeep);

    static std::optional<std::filesystem::path> logPath();
    static void setLogPath(std::optional<std::filesystem::path> path);
    static std::string logBuffer();
    static void setLogBuffer(std::string buffer);

    // --- injection points for the front ends and the tests ---
    using WallClock = std::function<std::chrono::system_clock::time_point()>;
    // nullptr restores the system clock.
    static void setClock(WallClock clock);
    // Replaces the per-user data folder lookup; nullopt restores it.
    static void setDataFolder(std::optional<std::filesystem::path> folder);
    // Where the console echo and the logger's own complaints go (default std::cout);
    // nullptr silences them.
    static void setConsole(std::ostream* console);
    // Forgets the log path and the buffer, as at process start.
    static void reset();
};

} // namespace quendral
