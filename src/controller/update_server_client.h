#pragma once
// The client side of the update server: three request builders and the one
// transport operation, each a synchronous HTTPS POST of a JSON object to
// <base URL>/api.php. Owned by MainViewController, which forwards the
// operations of the same names; called from the update job's background
// queue, one request at a time, never from the main queue.
//
// Transport rules:
// - TLS peer and host name verification are always on. The system CA store is
//   used unless a CA file is configured (tests hand in their own test CA); only
//   https:// URLs are accepted and redirects are not followed.
// - Time limits. A synchronous request without any limit could hang an update
//   for ever on a half-open connection, so:
//     * connecting (TCP and the TLS handshake) may take at most 30 s;
//     * once connected, a transfer that moves fewer than 16 bytes/s for 60 s
//       in a row is abandoned. The 60 s also bound how long the server may
//       think before it sends the first byte of its answer.
//   There is deliberately no limit on the whole exchange: a firmware answer
//   (about 2 MB of Base64 for a full 512 kB flash) over a slow but working
//   link takes as long as it takes, and the low-speed rule alone catches a
//   stall. Worst case for a dead server: 30 s to fail the connection, or 60 s
//   after the last byte moved.
// - An answer larger than 64 MiB is abandoned as a transport failure: no
//   firmware comes close, and the whole answer is held in memory.
// - Connection reuse. One update asks several times within seconds (query,
//   ticket polls, report); each fresh HTTPS request would pay a TCP and a
//   TLS handshake. While a ConnectionScope from keepConnection() lives, the
//   requests share one libcurl handle, so they ride on one kept connection,
//   and when the server has closed it in between (keep-alive ended, server
//   restarted) the new connection resumes the TLS session. Every request still
//   sets all its options and limits afresh. A kept connection that dies
//   after the request went out (the server dropped it, or ended it just as
//   the request was on its way) is a transport failure, as a fresh one's
//   would be: the request is not sent again, since the server may have
//   acted on it.
// - Every transport failure (no connection, TLS failure, time-out) is
//   answered with ServerAnswer::connectionError(). The HTTP status is not
//   looked at: an error page with a JSON body is an answer like any other, one
//   without a JSON body is none.
#include "controller/server_answer.h"
#include "controller/update_outcome.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace quendral {

struct UpdateServerConfig {
    // "https://host[:port]" without the path; "/api.php" is appended.
    // Defaults to the build's QUENDRAL_UPDATE_SERVER_URL.
    std::string baseUrl = defaultBaseUrl();
    // PEM bundle to trust instead of the system CA store.
    std::optional<std::filesystem::path> caFile;

    std::chrono::seconds connectTimeout{30};
    long lowSpeedLimitBytesPerSecond = 16;
    std::chrono::seconds lowSpeedTime{60};
    std::size_t maxAnswerBytes = std::size_t{64} * 1024 * 1024;
    // Whether keepConnection() keeps one (see above); off, every request
    // connects afresh (the benchmark compares the two).
    bool reuseConnection = true;

    // Where the system's product version ("VERSION_ID") is read from.
    std::string osReleasePath = "/etc/os-release";

    static std::string defaultBaseUrl();
};

class UpdateServerClient {
    struct KeptConnection;

public:
    explicit UpdateServerClient(UpdateServerConfig config = {});

    // Keeps the connection of this client's requests open while it lives; the
    // connection closes when the last scope ends. Move-only.
    class ConnectionScope {
    public:
        ConnectionScope(ConnectionScope&&) noexcept = default;
        ConnectionScope& operator=(ConnectionScope&&) noexcept = default;
        ConnectionScope(const ConnectionScope&) = delete;
        ConnectionScope& operator=(const ConnectionScope&) = delete;
        ~ConnectionScope();

    private:
        friend class UpdateServerClient;
        explicit ConnectionScope(std::shared_ptr<KeptConnection> kept);
        std::shared_ptr<KeptConnection> _kept;
    };
    // For the requests of one update (see the transport rules above).
    [[nodiscard]] ConnectionScope keepConnection() const;

    // "check_update". None, with a log line, when a parameter (or the
    // application or system version) is missing or cannot be serialised.
    // `problem`, when given, is set to why the answer is unusable (see
    // contactServer), or to QueryNotMade; reset otherwise.
    [[nodiscard]] std::optional<ServerAnswer> queryUpdate(const std::optional<std::string>& cid,
                                                          const std::optional<std::string>& platform,
                                                          const std::optional<std::string>& currentVersion,
                                                          const std::optional<std::string>& version,
                                                          std::optional<ServerProblemReport>* problem = nullptr) const;
    // "ticket". None, silently, when the ticket or the CID is missing.
    [[nodiscard]] std::optional<ServerAnswer> queryTicket(const std::optional<TicketId>& ticket,
                                                          const std::optional<std::string>& cid) const;
    // "ticket_status". None, with two log lines, when the ticket or the CID is missing.
    [[nodiscard]] std::optional<ServerAnswer> reportUpdateStatus(const std::optional<TicketId>& ticket,
                                                                 const std::optional<std::string>& cid,
                                                                 bool success) const;
    // POSTs `body` as it is. The answer, the connection-error answer, or none
    // when the server's body is not a JSON object. `problem`, when given, is
    // set for the last two (Unreachable, AnswerTooLarge, NotJsonObject) and
    // reset for an answer.
    [[nodiscard]] std::optional<ServerAnswer>
    contactServer(const std::string& body, std::optional<ServerProblemReport>* problem = nullptr) const;

    [[nodiscard]] const UpdateServerConfig& config() const { return _config; }

private:
    // POSTs on the kept connection while a scope lives, else on a fresh one.
    std::optional<std::string> send(const std::string& body, ServerProblemReport& failure) const;

    UpdateServerConfig _config;
    // Shared with the scopes, which may outlive a client that was replaced.
    std::shared_ptr<KeptConnection> _kept;
};

} // namespace quendral
