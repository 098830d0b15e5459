#pragma once
// Starts update_server.py on 127.0.0.1 with a fresh test CA for the life of
// the object, so tests and end-to-end runs talk to a real HTTPS peer.
//
//     quendral::test::LocalUpdateServer server({.arguments = {"--polls", "3"}});
//     ASSERT_TRUE(server.running()) << server.error();
//     UpdateServerConfig config;
//     config.baseUrl = server.baseUrl();
//     config.caFile = server.caFile();
//     ...
//     server.control({{"fault", "stall"}});         // re-script between requests
//     auto requests = server.recordedRequests();    // what reached /api.php
#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quendral::test {

struct LocalUpdateServerOptions {
    // Which certificate the server presents: "server" (localhost and 127.0.0.1,
    // signed by the test CA), "wronghost" (signed by the test CA for another
    // name) or "selfsigned" (trusted by nobody).
    std::string identity = "server";
    // More options for "update_server.py serve", e.g. {"--polls", "0"}.
    std::vector<std::string> arguments;
};

class LocalUpdateServer {
public:
    explicit LocalUpdateServer(LocalUpdateServerOptions options = {});
    ~LocalUpdateServer();
    LocalUpdateServer(const LocalUpdateServer&) = delete;
    LocalUpdateServer& operator=(const LocalUpdateServer&) = delete;

    [[nodiscard]] bool running() const { return _port != 0; }
    // Why it did not start.
    [[nodiscard]] const std::string& error() const { return _error; }

    [[nodiscard]] int port() const { return _port; }
    // "https://127.0.0.1:<port>"
    [[nodiscard]] std::string baseUrl() const;
    // The test CA that signed the "server" and "wronghost" certificates.
    [[nodiscard]] std::filesystem::path caFile() const { return _folder / "certs" / "ca.pem"; }
    [[nodiscard]] const std::filesystem::path& folder() const { return _folder; }

    // Every request that reached the server's /api.php so far, oldest first:
    // {"seq", "time", "method", "path", "headers": [[name, value]...], "body", "json"}.
    [[nodiscard]] std::vector<nlohmann::json> recordedRequests() const;
    // Just the parsed request bodies of the above (null where a body was not JSON).
    [[nodiscard]] std::vector<nlohmann::json> recordedBodies() const;

    // POST /control: merges the settings ({"reset": true} restores the start-up
    // ones). The server's reply, or none when it could not be reached.
    std::optional<nlohmann::json> control(const nlohmann::json& settings) const;

    // SIGTERM, then SIGKILL if it lingers; waits for the process. Idempotent.
    void stop();

    // Where update_server.py lives (set by the build).
    static std::filesystem::path scriptPath();

private:
    std::filesystem::path _folder;
    pid_t _pid = -1;
    int _stdout = -1;
    int _port = 0;
    std::string _error;
};

} // namespace quendral::test
