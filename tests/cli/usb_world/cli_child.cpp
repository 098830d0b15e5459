#include "cli_child.h"
#include "poll_until.h"
#include "write_all.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace quendral::test {
namespace {

std::vector<std::string> childEnvironment(const CliChild::EnvironmentChanges& changes)
{
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry;
        const std::string name = variable.substr(0, variable.find('='));
        if (changes.find(name) == changes.end()) {
            result.push_back(variable);
        }
    }
    for (const auto& [name, value] : changes) {
        if (value) {
            result.push_back(name + "=" + *value);
        }
    }
    return result;
}

} // namespace

CliChild::CliChild(const std::vector<std::string>& arguments, const EnvironmentChanges& environment, Input input)
    : _terminal(input == Input::Terminal)
{
    // A child that ended early must not take the test down with SIGPIPE.
    static const bool ignoringBrokenPipes = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
    (void)ignoringBrokenPipes;
    const char* binary = std::getenv("QUENDRAL_CLI");
    if (binary == nullptr) {
        return;
    }
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    if (_terminal) {
        // The master is both the input's writing end and the output's reading end.
        const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[128] = {};
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
            ::ptsname_r(master, name, sizeof name) != 0) {
            return;
        }
        const int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        const int masterCopy = ::fcntl(master, F_DUPFD_CLOEXEC, 0);
        if (slave < 0 || masterCopy < 0) {
            return;
        }
        in[0] = slave;
        in[1] = master;
        out[0] = masterCopy;
        out[1] = ::fcntl(slave, F_DUPFD_CLOEXEC, 0);
    } else if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        return;
    }
    if (::pipe2(err, O_CLOEXEC) != 0) {
        return;
    }
    std::vector<std::string> argumentStorage{binary};
    argumentStorage.insert(argumentStorage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argumentStorage) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::vector<std::string> environmentStorage = childEnvironment(environment);
    std::vector<char*> envp;
    for (auto& variable : environmentStorage) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    const int spawned = ::posix_spawn(&_pid, binary, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (spawned != 0) {
        _pid = -1;
        ::close(in[1]);
        ::close(out[0]);
        ::close(err[0]);
        return;
    }
    _input = in[1];
    _collector = std::thread([this, outFd = out[0], errFd = err[0]] { collect(outFd, errFd); });
}

CliChild::~CliChild()
{
    if (_pid > 0) {
        ::kill(_pid, SIGKILL);
        int status = 0;
        while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    closeInput();
    if (_collector.joinable()) {
        _collector.join();
    }
}

void CliChild::collect(int outFd, int errFd)
{
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    int open = 2;
    while (open > 0) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                std::lock_guard lock(_mutex);
                (i == 0 ? _out : _err).append(buffer, static_cast<std::size_t>(n));
                _changed.notify_all();
            } else if (n == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    std::lock_guard lock(_mutex);
    _collected = true;
    _changed.notify_all();
}

bool CliChild::writeInput(std::string_view text)
{
    return text.empty() || (_input >= 0 && sim::writeAll(_input, text));
}

void CliChild::closeInput()
{
    if (_input >= 0) {
        ::close(_input);
        _input = -1;
    }
}

bool CliChild::waitForOutput(const std::string& text, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] { return _out.find(text) != std::string::npos || _collected; }) &&
           _out.find(text) != std::string::npos;
}

bool CliChild::waitForErrorOutput(const std::string& text, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] { return _err.find(text) != std::string::npos || _collected; }) &&
           _err.find(text) != std::string::npos;
}

std::optional<termios> CliChild::terminalSettings() const
{
    if (_terminalSettingsAtEnd) {
        return _terminalSettingsAtEnd;
    }
    termios settings{};
    if (!_terminal || _input < 0 || ::tcgetattr(_input, &settings) != 0) {
        return std::nullopt;
    }
    return settings;
}

std::string CliChild::output() const
{
    std::lock_guard lock(_mutex);
    return _out;
}

CliResult CliChild::finish(std::chrono::milliseconds timeout)
{
    CliResult result;
    if (!_terminal) {
        closeInput(); // a terminal's master side is also where the output is read
    }
    if (_pid <= 0) {
        return result;
    }
    int status = 0;
    pid_t ended = 0;
    sim::pollUntil([&] { return (ended = ::waitpid(_pid, &status, WNOHANG)) != 0; }, timeout,
                   [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
    if (ended == _pid) {
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    } else {
        ::kill(_pid, SIGKILL);
        while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    _pid = -1;
    if (_terminal) {
        termios settings{};
        if (::tcgetattr(_input, &settings) == 0) {
            _terminalSettingsAtEnd = settings;
        }
    }
    closeInput();
    if (_collector.joinable()) {
        _collector.join();
    }
    std::lock_guard lock(_mutex);
    result.out = _out;
    result.err = _err;
    return result;
}

CliResult runCli(const std::vector<std::string>& arguments, const CliChild::EnvironmentChanges& environment,
                 const std::string& input, std::chrono::milliseconds timeout)
{
    CliChild child(arguments, environment);
    if (!input.empty()) {
        child.writeInput(input);
    }
    return child.finish(timeout);
}

} // namespace quendral::test
