#include "local_update_server.h"
#include "poll_until.h"

#include <curl/curl.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#ifndef QUENDRAL_UPDATE_SERVER_SCRIPT
#error "QUENDRAL_UPDATE_SERVER_SCRIPT must be defined by the build"
#endif

namespace quendral::test {

namespace {

// Debian's interpreter, never whatever python3 comes first on PATH.
constexpr const char* kPython = "/usr/bin/python3";
// Making the certificates and starting Python on a loaded machine.
constexpr auto kStartTimeout = std::chrono::seconds(60);

std::size_t appendTo(char* data, std::size_t size, std::size_t count, void* userdata)
{
    static_cast<std::string*>(userdata)->append(data, size * count);
    return size * count;
}

} // namespace

std::filesystem::path LocalUpdateServer::scriptPath()
{
    return QUENDRAL_UPDATE_SERVER_SCRIPT;
}

LocalUpdateServer::LocalUpdateServer(LocalUpdateServerOptions options)
{
    std::string pattern = (std::filesystem::temp_directory_path() / "quendral-update-server-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        _error = std::string("mkdtemp: ") + std::system_category().message(errno);
        return;
    }
    _folder = pattern;

    std::vector<std::string> args = {kPython,
                                     scriptPath().string(),
                                     "serve",
                                     "--certs",
                                     (_folder / "certs").string(),
                                     "--identity",
                                     options.identity,
                                     "--record",
                                     (_folder / "requests.jsonl").string(),
                                     "--exit-with-parent"};
    args.insert(args.end(), options.arguments.begin(), options.arguments.end());
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        _error = std::string("pipe: ") + std::system_category().message(errno);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    const int spawned = ::posix_spawn(&_pid, kPython, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    _stdout = fds[0];
    if (spawned != 0) {
        _pid = -1;
        _error = std::string("posix_spawn ") + kPython + ": " + std::system_category().message(spawned);
        return;
    }

    // The first line on standard output is the port, written once the socket listens.
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    while (line.find('\n') == std::string::npos) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            _error = "update_server.py did not report its port in time";
            stop();
            return;
        }
        pollfd pfd{_stdout, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        char chunk[64];
        const ssize_t n = ready > 0 ? ::read(_stdout, chunk, sizeof chunk) : 0;
        if (ready > 0 && n <= 0) {
            _error = "update_server.py ended before it reported its port (see its standard error)";
            stop();
            return;
        }
        line.append(chunk, static_cast<std::size_t>(n > 0 ? n : 0));
    }
    const int port = std::atoi(line.c_str());
    if (port <= 0 || port > 65535) {
        _error = "update_server.py reported no port but: " + line;
        stop();
        return;
    }
    _port = port;
}

LocalUpdateServer::~LocalUpdateServer()
{
    stop();
    if (!_folder.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(_folder, ec);
    }
}

std::string LocalUpdateServer::baseUrl() const
{
    return "https://127.0.0.1:" + std::to_string(_port);
}

void LocalUpdateServer::stop()
{
    if (_pid > 0) {
        ::kill(_pid, SIGTERM);
        int status = 0;
        pid_t done = 0;
        sim::pollUntil([&] { return (done = ::waitpid(_pid, &status, WNOHANG)) != 0; }, std::chrono::seconds(10),
                       [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
        if (done == 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, &status, 0);
        }
        _pid = -1;
    }
    if (_stdout >= 0) {
        ::close(_stdout);
        _stdout = -1;
    }
    _port = 0;
}

std::vector<nlohmann::json> LocalUpdateServer::recordedRequests() const
{
    std::vector<nlohmann::json> requests;
    std::ifstream in(_folder / "requests.jsonl");
    std::string line;
    while (std::getline(in, line)) {
        nlohmann::json entry = nlohmann::json::parse(line, nullptr, false);
        if (!entry.is_discarded()) {
            requests.push_back(std::move(entry));
        }
    }
    return requests;
}

std::vector<nlohmann::json> LocalUpdateServer::recordedBodies() const
{
    std::vector<nlohmann::json> bodies;
    for (const nlohmann::json& entry : recordedRequests()) {
        bodies.push_back(entry.value("json", nlohmann::json()));
    }
    return bodies;
}

std::optional<nlohmann::json> LocalUpdateServer::control(const nlohmann::json& settings) const
{
    CURL* handle = curl_easy_init();
    if (handle == nullptr) {
        return std::nullopt;
    }
    const std::string url = baseUrl() + "/control";
    const std::string body = settings.dump();
    const std::string ca = caFile().string();
    std::string answer;
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle, CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &appendTo);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &answer);
    const CURLcode result = curl_easy_perform(handle);
    curl_easy_cleanup(handle);
    if (result != CURLE_OK) {
        return std::nullopt;
    }
    nlohmann::json reply = nlohmann::json::parse(answer, nullptr, false);
    if (reply.is_discarded()) {
        return std::nullopt;
    }
    return reply;
}

} // namespace quendral::test
