#include "platform/child_process.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace quendral {
namespace {

std::atomic<ChildProcess::HandleId> gNextHandle{1};

// How long the reader threads may keep going after the process has exited.
// Normally the pipes reach end of file the moment the tool exits; only a
// process the tool left behind can keep them open, and then we stop listening.
constexpr auto kOutputGracePeriod = std::chrono::seconds(2);
// How long a process being destroyed gets to act on SIGTERM before SIGKILL.
constexpr auto kTerminateGracePeriod = std::chrono::seconds(2);
constexpr std::size_t kChunkSize = 4096;
// Reads made after a stop request, so that a process that keeps writing cannot
// hold a reader forever.
constexpr int kMaxReadsAfterStop = 64;

std::size_t indexOf(ChildProcess::Stream stream)
{
    return stream == ChildProcess::Stream::StandardOutput ? 0 : 1;
}
ChildProcess::Stream streamAt(std::size_t index)
{
    return index == 0 ? ChildProcess::Stream::StandardOutput : ChildProcess::Stream::StandardError;
}

void closeIfOpen(int& fd)
{
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

std::string errnoText(const char* what, int error)
{
    return std::string(what) + ": " + std::strerror(error);
}

} // namespace

struct ChildProcess::State {
    State()
    {
        handles[0] = gNextHandle.fetch_add(1);
        handles[1] = gNextHandle.fetch_add(1);
    }
    ~State()
    {
        for (int& fd : readFds) {
            closeIfOpen(fd);
        }
        closeIfOpen(stopFd);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    // Fixed before launch, read-only afterwards.
    std::array<HandleId, 2> handles{};
    std::array<bool, 2> manual{false, false};
    std::array<int, 2> readFds{-1, -1};
    int stopFd = -1;
    DataHandler dataHandler;
    TerminationHandler terminationHandler;

    // Held while a handler runs: handlers of one process never overlap.
    std::mutex delivery;

    std::mutex mutex;
    std::condition_variable changed;
    bool launchAttempted = false;
    bool launched = false;
    bool threadsStarted = false; // launch() has stored every thread object
    pid_t pid = -1;
    bool reaped = false; // waitpid has collected the process; its pid may be reused
    int readersRunning = 0;
    bool finished = false; // the termination handler has run
    Termination termination;

    std::array<std::thread, 2> readers;
    std::thread waiter;
};

namespace {

// The State whose thread is running on this thread, if any: lets the
// destructor notice it is being called from one of the process's own handlers.
thread_local const ChildProcess::State* tOwnState = nullptr;

void deliver(ChildProcess::State& s, std::size_t index, const char* bytes, std::size_t count)
{
    std::lock_guard lock(s.delivery);
    if (s.dataHandler) {
        s.dataHandler(s.handles[index], streamAt(index), std::string_view(bytes, count));
    }
}

// A handler may destroy the process; it must not run before launch() has
// finished storing the thread objects the destructor then detaches.
void waitUntilThreadsStarted(ChildProcess::State& s)
{
    std::unique_lock lock(s.mutex);
    s.changed.wait(lock, [&] { return s.threadsStarted; });
}

void readerLoop(const std::shared_ptr<ChildProcess::State>& state, std::size_t index)
{
    ChildProcess::State& s = *state;
    tOwnState = &s;
    waitUntilThreadsStarted(s);
    const int fd = s.readFds[index];
    char buffer[kChunkSize];
    for (;;) {
        std::array<pollfd, 2> fds{{{fd, POLLIN, 0}, {s.stopFd, POLLIN, 0}}};
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n > 0) {
                deliver(s, index, buffer, static_cast<std::size_t>(n));
                continue;
            }
            if (n < 0 && errno == EINTR) {
                continue;
            }
            break; // end of file or a broken pipe
        }
        if ((fds[1].revents & POLLIN) != 0) {
            // Hand over what is already in the pipe, then stop listening.
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
            for (int reads = 0; reads < kMaxReadsAfterStop; ++reads) {
                const ssize_t n = ::read(fd, buffer, sizeof buffer);
                if (n <= 0) {
                    break;
                }
                deliver(s, index, buffer, static_cast<std::size_t>(n));
            }
            break;
        }
    }
    std::lock_guard lock(s.mutex);
    --s.readersRunning;
    s.changed.notify_all();
}

ChildProcess::Termination terminationFrom(int status)
{
    if (WIFEXITED(status)) {
        return {ChildProcess::TerminationReason::Exit, WEXITSTATUS(status)};
    }
    if (WIFSIGNALED(status)) {
        return {ChildProcess::TerminationReason::UncaughtSignal, WTERMSIG(status)};
    }
    return {ChildProcess::TerminationReason::Exit, -1};
}

void waiterLoop(const std::shared_ptr<ChildProcess::State>& state)
{
    ChildProcess::State& s = *state;
    tOwnState = &s;
    waitUntilThreadsStarted(s);
    // Wait without reaping first: while the zombie exists its pid cannot be
    // reused, so interrupt() and terminate() can never signal a stranger.
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(s.pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    {
        std::lock_guard lock(s.mutex);
        int status = 0;
        while (::waitpid(s.pid, &status, 0) < 0 && errno == EINTR) {
        }
        s.reaped = true;
        s.termination = terminationFrom(status);
        s.changed.notify_all();
    }
    {
        std::unique_lock lock(s.mutex);
        if (!s.changed.wait_for(lock, kOutputGracePeriod, [&] { return s.readersRunning == 0; })) {
            const std::uint64_t one = 1;
            [[maybe_unused]] const ssize_t n = ::write(s.stopFd, &one, sizeof one);
        }
        s.changed.wait(lock, [&] { return s.readersRunning == 0; });
    }
    {
        std::lock_guard lock(s.delivery);
        if (s.terminationHandler) {
            s.terminationHandler(s.termination);
        }
    }
    std::lock_guard lock(s.mutex);
    s.finished = true;
    s.changed.notify_all();
}

} // namespace

ChildProcess::ChildProcess() : _state(std::make_shared<State>()) {}

ChildProcess::~ChildProcess()
{
    State& s = *_state;
    bool launched = false;
    {
        std::lock_guard lock(s.mutex);
        launched = s.launched;
    }
    if (launched) {
        if (tOwnState == &s) {
            // Destroyed from one of our own handlers: the threads cannot be
            // joined from here. Make sure the process goes away; the threads
            // hold the state and finish on their own.
            sendSignal(SIGKILL);
            for (auto& reader : s.readers) {
                if (reader.joinable()) {
                    reader.detach();
                }
            }
            if (s.waiter.joinable()) {
                s.waiter.detach();
            }
            return;
        }
        std::unique_lock lock(s.mutex);
        if (!s.finished) {
            lock.unlock();
            sendSignal(SIGTERM);
            lock.lock();
            if (!s.changed.wait_for(lock, kTerminateGracePeriod, [&] { return s.reaped; })) {
                lock.unlock();
                sendSignal(SIGKILL);
                lock.lock();
            }
            s.changed.wait(lock, [&] { return s.finished; });
        }
        lock.unlock();
        for (auto& reader : s.readers) {
            if (reader.joinable()) {
                reader.join();
            }
        }
        if (s.waiter.joinable()) {
            s.waiter.join();
        }
    }
}

void ChildProcess::setExecutablePath(std::filesystem::path path)
{
    _executablePath = std::move(path);
}
void ChildProcess::setArguments(std::vector<std::string> arguments)
{
    _arguments = std::move(arguments);
}
void ChildProcess::setDataHandler(DataHandler handler)
{
    _state->dataHandler = std::move(handler);
}
void ChildProcess::setTerminationHandler(TerminationHandler handler)
{
    _state->terminationHandler = std::move(handler);
}
void ChildProcess::setReadsManually(Stream stream)
{
    _state->manual[indexOf(stream)] = true;
}

ChildProcess::HandleId ChildProcess::handle(Stream stream) const
{
    return _state->handles[indexOf(stream)];
}

namespace {

// [0]: the tool's standard output, [1]: its standard error; each {read end, write end}.
using OutputPipes = std::array<std::array<int, 2>, 2>;

void closePipes(OutputPipes& pipes)
{
    for (auto& p : pipes) {
        closeIfOpen(p[0]);
        closeIfOpen(p[1]);
    }
}

// Both pipes, close-on-exec; on failure none stays open.
std::optional<std::string> openPipes(OutputPipes& pipes)
{
    for (auto& p : pipes) {
        if (::pipe2(p.data(), O_CLOEXEC) != 0) {
            const int e = errno;
            closePipes(pipes);
            return errnoText("pipe2", e);
        }
    }
    return std::nullopt;
}

// Starts the tool with its standard input on /dev/null and its output on
// the pipes' write ends; 0 or posix_spawn's error number.
int spawnOnPipes(const std::filesystem::path& executable, const std::vector<std::string>& arguments,
                 const OutputPipes& pipes, pid_t& pid)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipes[0][1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipes[1][1], 2);
    // Descriptors opened elsewhere in the program without close-on-exec (a
    // serial port, a library's own) must not reach the tool either.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    // A signal this program ignores (SIGPIPE, say) would otherwise stay ignored in the tool.
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> argvStrings;
    argvStrings.reserve(arguments.size() + 1);
    argvStrings.push_back(executable.string());
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(argvStrings.size() + 1);
    for (auto& argument : argvStrings) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    const int spawnError =
        ::posix_spawn(&pid, argvStrings.front().c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return spawnError;
}

} // namespace

bool ChildProcess::launch(std::string* error)
{
    State& s = *_state;
    auto fail = [&](std::string reason) {
        if (error != nullptr) {
            *error = std::move(reason);
        }
        return false;
    };
    {
        std::lock_guard lock(s.mutex);
        if (s.launchAttempted) {
            return fail("the process has already been launched");
        }
        s.launchAttempted = true;
    }

    OutputPipes pipes{{{-1, -1}, {-1, -1}}};
    if (auto problem = openPipes(pipes)) {
        return fail(std::move(*problem));
    }
    s.stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (s.stopFd < 0) {
        const int e = errno;
        closePipes(pipes);
        return fail(errnoText("eventfd", e));
    }
    pid_t pid = -1;
    const int spawnError = spawnOnPipes(_executablePath, _arguments, pipes, pid);
    closeIfOpen(pipes[0][1]);
    closeIfOpen(pipes[1][1]);
    if (spawnError != 0) {
        closePipes(pipes);
        return fail(errnoText("posix_spawn", spawnError));
    }
    s.readFds = {pipes[0][0], pipes[1][0]};
    startWatching(pid);
    return true;
}

void ChildProcess::startWatching(pid_t pid)
{
    State& s = *_state;
    int readers = 0;
    for (std::size_t i = 0; i < 2; ++i) {
        readers += s.manual[i] ? 0 : 1;
    }
    {
        std::lock_guard lock(s.mutex);
        s.pid = pid;
        s.launched = true;
        s.readersRunning = readers;
    }
    for (std::size_t i = 0; i < 2; ++i) {
        if (!s.manual[i]) {
            s.readers[i] = std::thread(readerLoop, _state, i);
        }
    }
    s.waiter = std::thread(waiterLoop, _state);
    {
        std::lock_guard lock(s.mutex);
        s.threadsStarted = true;
    }
    s.changed.notify_all();
}

std::string ChildProcess::readAvailable(Stream stream, std::size_t maxBytes)
{
    State& s = *_state;
    const std::size_t index = indexOf(stream);
    {
        std::lock_guard lock(s.mutex);
        if (!s.launched || !s.manual[index]) {
            return {};
        }
    }
    std::string data(maxBytes, '\0');
    for (;;) {
        const ssize_t n = ::read(s.readFds[index], data.data(), maxBytes);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        data.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return data;
    }
}

ChildProcess::Termination ChildProcess::waitUntilExit()
{
    State& s = *_state;
    std::unique_lock lock(s.mutex);
    if (!s.launched) {
        return {};
    }
    s.changed.wait(lock, [&] { return s.finished; });
    return s.termination;
}

bool ChildProcess::isRunning() const
{
    std::lock_guard lock(_state->mutex);
    return _state->launched && !_state->reaped;
}

pid_t ChildProcess::processIdentifier() const
{
    std::lock_guard lock(_state->mutex);
    return _state->pid;
}

void ChildProcess::interrupt()
{
    sendSignal(SIGINT);
}
void ChildProcess::terminate()
{
    sendSignal(SIGTERM);
}

void ChildProcess::sendSignal(int signal)
{
    std::lock_guard lock(_state->mutex);
    if (_state->launched && !_state->reaped) {
        ::kill(_state->pid, signal);
    }
}

bool ChildProcess::isExecutableFile(const std::filesystem::path& path)
{
    struct stat info {};
    return !path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

} // namespace quendral
