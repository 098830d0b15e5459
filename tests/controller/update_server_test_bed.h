#pragma once
// What the update server client tests share: a running local server, a client
// configured for it, a fixed operating-system version and a captured log.
#include "controller/update_server_client.h"
#include "local_update_server.h"
#include "log/logger.h"
#include "support/captured_console.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace quendral::test {

inline std::set<std::string> keysOf(const nlohmann::json& object)
{
    std::set<std::string> keys;
    for (const auto& [key, value] : object.items()) {
        keys.insert(key);
    }
    return keys;
}

class UpdateServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A proxy from the environment must not stand between the tests and 127.0.0.1.
        for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "http_proxy"}) {
            ::unsetenv(name);
        }
        Logger::reset();
        Logger::setConsole(&console);
    }
    void TearDown() override
    {
        Logger::setConsole(nullptr);
        Logger::reset();
    }

    // Starts (or restarts) the server with these options.
    void startServer(LocalUpdateServerOptions options = {})
    {
        server.reset();
        server = std::make_unique<LocalUpdateServer>(std::move(options));
        ASSERT_TRUE(server->running()) << server->error();
        std::ofstream(server->folder() / "os-release") << "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12.4\"\n";
    }

    [[nodiscard]] UpdateServerConfig config() const
    {
        UpdateServerConfig c;
        c.baseUrl = server->baseUrl();
        c.caFile = server->caFile();
        c.osReleasePath = (server->folder() / "os-release").string();
        return c;
    }
    [[nodiscard]] UpdateServerClient client() const { return UpdateServerClient(config()); }

    [[nodiscard]] std::vector<std::string> logged() const { return console.messages(); }

    static constexpr const char* kCid = "0123456789ABCDEF0123456789ABCDEF";

    CapturedConsole console;
    std::unique_ptr<LocalUpdateServer> server;
};

} // namespace quendral::test
