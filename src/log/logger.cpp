#include "log/logger.h"

#include "log/visible_text.h"
#include "platform/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iostream>
#include <mutex>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral {
namespace {

const char* const kFolderName = "QuendralFirmwareUpdater";
const char* const kFileName = "log.txt";

// Bounds against text of any size (a server answer of 50 MB once became one
// entry, and every later run carried it along):
// - an entry longer than this is cut, with a note of how much was left out;
constexpr std::size_t kMaxEntryBytes = 4096;
// - a flashing tool's output keeps its first kToolOutputHeadBytes and its
//   last lines (where a failing tool says why) up to this much in all;
constexpr std::size_t kMaxToolOutputBytes = std::size_t{64} * 1024;
constexpr std::size_t kToolOutputHeadBytes = std::size_t{16} * 1024;
// - the start-of-run trim keeps at most this much, whatever the line count.
constexpr std::size_t kMaxKeptBytes = std::size_t{1024} * 1024;

struct State {
    std::recursive_mutex mutex;
    std::optional<std::filesystem::path> logPath;
    std::string logBuffer;
    // Where the kept start of a bounded tool output ends, and how many bytes
    // after it were dropped (0: nothing dropped).
    std::size_t toolOutputHead = 0;
    std::size_t toolOutputDropped = 0;
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

// "… (cut, N bytes)": what stands in for the N bytes left out.
std::string cutNote(std::size_t dropped)
{
    return "\u2026 (cut, " + std::to_string(dropped) + " bytes)";
}

// The largest length up to `length` that does not end inside a UTF-8
// character (looking back at most three bytes, so bytes that are no UTF-8
// at all are cut where they are).
std::size_t characterBoundary(std::string_view text, std::size_t length)
{
    if (length >= text.size()) {
        return text.size();
    }
    for (std::size_t back = 0; back < 4 && back < length; ++back) {
        if ((static_cast<unsigned char>(text[length - back]) & 0xC0) != 0x80) {
            return length - back;
        }
    }
    return length;
}

// The message as an entry holds it: made visible (visible_text.h), at most
// `limit` bytes of that, then the note of how many of the message's own bytes
// were left out.
std::string boundedMessage(std::string_view message, std::size_t limit)
{
    std::string kept;
    const std::size_t taken = appendVisibleText(kept, message, limit);
    if (taken < message.size()) {
        kept += cutNote(message.size() - taken);
    }
    return kept;
}

// Keeps the collected tool output within kMaxToolOutputBytes: the first whole
// lines up to kToolOutputHeadBytes stay, then whole lines are dropped after
// them until a quarter of the bound is free again (so that a flood costs a
// cut now and then, not one per chunk).
void boundToolOutput(State& s)
{
    std::string& buffer = s.logBuffer;
    if (buffer.size() <= kMaxToolOutputBytes) {
        return;
    }
    if (s.toolOutputDropped == 0) {
        const std::size_t lineEnd = buffer.rfind('\n', kToolOutputHeadBytes - 1);
        s.toolOutputHead = lineEnd == std::string::npos ? characterBoundary(buffer, kToolOutputHeadBytes) : lineEnd + 1;
    }
    const std::size_t wanted = buffer.size() - kMaxToolOutputBytes * 3 / 4;
    std::size_t cutEnd = buffer.find('\n', s.toolOutputHead + wanted - 1);
    cutEnd = cutEnd == std::string::npos ? characterBoundary(buffer, s.toolOutputHead + wanted) : cutEnd + 1;
    s.toolOutputDropped += cutEnd - s.toolOutputHead;
    buffer.erase(s.toolOutputHead, cutEnd - s.toolOutputHead);
}

// The collected tool output as it is written: a note on a line of its own
// where lines were dropped.
std::string toolOutput(const State& s)
{
    if (s.toolOutputDropped == 0) {
        return s.logBuffer;
    }
    return s.logBuffer.substr(0, s.toolOutputHead) + cutNote(s.toolOutputDropped) + "\n" +
           s.logBuffer.substr(s.toolOutputHead);
}

std::string errorText(int error)
{
    return std::strerror(error);
}

// Closes the descriptor when the scope ends.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : _fd(fd) {}
    ~FileDescriptor()
    {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    [[nodiscard]] int get() const { return _fd; }

private:
    int _fd;
};

// Writes all of `data` at the descriptor's position (or at the end for
// O_APPEND); false with errno set when the file system takes no more.
bool writeAll(int fd, std::string_view data)
{
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Appends one entry. The file is never read and rewritten: that cost a whole
// rewrite of the file per entry. An entry the file system does not take whole
// (a full disk) is taken back, so the file only ever holds whole lines; and
// an entry after a last line left unfinished (by an older version, or by a
// crash) starts on a line of its own. The window and the command line share
// the file, hence the lock.
bool appendEntry(const std::filesystem::path& path, std::string line, std::string& error)
{
    const FileDescriptor file(::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (file.get() < 0) {
        error = errorText(errno);
        return false;
    }
    while (::flock(file.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        error = errorText(errno);
        return false;
    }
    const off_t before = status.st_size;
    char last = '\n';
    if (before > 0 && ::pread(file.get(), &last, 1, before - 1) == 1 && last != '\n') {
        line.insert(0, 1, '\n');
    }
    if (!writeAll(file.get(), line)) {
        error = errorText(errno);
        while (::ftruncate(file.get(), before) != 0 && errno == EINTR) {
        }
        return false;
    }
    return true;
}

// The last `limit` bytes of the file and where they start in it; none with
// errno telling why. The start-of-run trim looks no further back: what it
// keeps is within that much anyway, and a huge file is never read whole.
struct FileTail {
    std::string data;
    std::uint64_t offset = 0;
};

std::optional<FileTail> readTail(const std::filesystem::path& path, std::size_t limit)
{
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
        return std::nullopt;
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    FileTail tail;
    tail.offset = size > limit ? size - limit : 0;
    tail.data.resize(static_cast<std::size_t>(size - tail.offset));
    std::size_t done = 0;
    while (done < tail.data.size()) {
        const ssize_t n = ::pread(file.get(), tail.data.data() + done, tail.data.size() - done,
                                  static_cast<off_t>(tail.offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                break; // shrunk meanwhile: keep what was there
            }
            return std::nullopt;
        }
        done += static_cast<std::size_t>(n);
    }
    tail.data.resize(done);
    return tail;
}

// Writes in place (truncate, then write), as the log is meant to be rewritten at the trim.
bool replaceContents(const std::filesystem::path& path, std::string_view data, std::string& error)
{
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (file.get() < 0 || !writeAll(file.get(), data)) {
        error = errorText(errno);
        return false;
    }
    return true;
}

// "[yyyy-MM-dd HH:mm:ss] message" to the console and appended to the file,
// the message cut beyond `limit` bytes.
void logEntry(std::string_view message, std::size_t limit)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    const std::string line = "[" + timestamp(HourClock::TwentyFour) + "] " + boundedMessage(message, limit) + "\n";
    printToConsole(line);
    if (!s.logPath) {
        return;
    }
    std::string error;
    if (!appendEntry(*s.logPath, line, error)) {
        printToConsole("Unexpected error: " + error + ".");
    }
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
    logEntry(message, kMaxEntryBytes);
}

void Logger::logBuffered(const std::string& message)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.logBuffer += "[" + timestamp(HourClock::Twelve) + "] " + visibleText(message) + "\n";
    boundToolOutput(s);
}

void Logger::logCurrentBuffer()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    // One entry, bounded already as it was collected.
    logEntry(toolOutput(s), std::string::npos);
    clearCurrentBuffer();
}

void Logger::clearCurrentBuffer()
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.logBuffer.clear();
    s.toolOutputHead = 0;
    s.toolOutputDropped = 0;
}

// Searches backwards for newline bytes and keeps everything from the
// (linesToKeep + 1)-th newline from the end, that newline included. With 500
// the file thus starts with an empty line followed by the last 501 lines; this
// cut is the intended one. A file with too few newlines is left alone.
//
// The file is also bounded in bytes: whatever the line count, at most
// kMaxKeptBytes are kept, cut at a newline too (so lines of a few
// kilobytes, or one unbounded entry of an older version, cannot keep a
// file of many megabytes that every run carries along).
void Logger::removeLinesFromFile(std::size_t linesToKeep)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.logPath) {
        return;
    }
    const auto tail = readTail(*s.logPath, kMaxKeptBytes);
    if (!tail) {
        // No file yet (first launch) simply means there is nothing to trim.
        if (errno != ENOENT) {
            printToConsole(std::strerror(errno));
        }
        return;
    }
    const std::string& data = tail->data;
    if (data.empty()) {
        return;
    }
    std::optional<std::size_t> lineCut;
    std::size_t position = data.size() - 1;
    std::size_t found = 0;
    while (found <= linesToKeep && position > 0) {
        const std::size_t index = data.rfind('\n', position - 1);
        if (index == std::string::npos) {
            break;
        }
        ++found;
        position = index;
    }
    if (found > linesToKeep) {
        lineCut = position;
    }
    const bool tooLarge = tail->offset > 0;
    if (!lineCut && !tooLarge) {
        return;
    }
    // A file larger than the bound that holds fewer lines within it than wanted
    // keeps what follows the first newline of its last kMaxKeptBytes (nothing
    // when there is none: one line longer than the bound).
    const std::size_t keepFrom = lineCut ? *lineCut : std::min(data.find('\n'), data.size());
    std::string error;
    if (!replaceContents(*s.logPath, std::string_view(data).substr(keepFrom), error)) {
        printToConsole(error);
        return;
    }
    log(lineCut ? "Truncated file to 500 lines" : "Truncated file to " + std::to_string(kMaxKeptBytes) + " bytes");
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
    return toolOutput(s);
}

void Logger::setLogBuffer(std::string buffer)
{
    State& s = state();
    std::lock_guard lock(s.mutex);
    clearCurrentBuffer();
    s.logBuffer = std::move(buffer);
    boundToolOutput(s);
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
    clearCurrentBuffer();
}

} // namespace quendral
