#include "controller/update_server_client.h"

#include "controller/update_request.h"
#include "log/logger.h"
#include "platform/app_info.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#ifndef QUENDRAL_UPDATE_SERVER_URL
#error "QUENDRAL_UPDATE_SERVER_URL must be defined by the build"
#endif

namespace quendral {

namespace {

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// libcurl's global set-up is not safe to race with a first easy handle made on another thread.
bool ensureCurlInitialised()
{
    static std::once_flag once;
    static CURLcode result = CURLE_FAILED_INIT;
    std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
    return result == CURLE_OK;
}

struct Download {
    std::string body;
    std::size_t limit = 0;
    bool tooLarge = false;
};

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* userdata)
{
    auto* download = static_cast<Download*>(userdata);
    const std::size_t bytes = size * count;
    if (download->body.size() + bytes > download->limit) {
        download->tooLarge = true;
        return 0; // makes libcurl stop with CURLE_WRITE_ERROR
    }
    try {
        download->body.append(data, bytes);
    } catch (...) {
        return 0;
    }
    return bytes;
}

// The request body, handed to libcurl piece by piece. There is
// deliberately no way back to its start: libcurl sends a request again on a
// fresh connection when a kept one died before any answer came, but the
// server may have read and acted on it (opened a ticket, recorded a report),
// and a server that drops connections must meet the same single request as
// before connections were kept. Without a rewind libcurl gives up instead.
struct Upload {
    const std::string* body = nullptr;
    std::size_t sent = 0;
};

std::size_t supplyBody(char* buffer, std::size_t size, std::size_t count, void* userdata)
{
    auto* upload = static_cast<Upload*>(userdata);
    const std::size_t bytes = std::min(size * count, upload->body->size() - upload->sent);
    std::memcpy(buffer, upload->body->data() + upload->sent, bytes);
    upload->sent += bytes;
    return bytes;
}

// Sends the request on `handle`, setting every option of it; the answer body,
// or none on any transport failure, with `failure` saying what it was.
std::optional<std::string> post(CURL* handle, const UpdateServerConfig& config, const std::string& body,
                                ServerProblemReport& failure)
{

    curl_slist* list = nullptr;
    for (const std::string& line : {
             "Content-Length: " + std::to_string(body.size()),
             // libcurl would add "Content-Type: application/x-www-form-urlencoded"; the server expects none.
             std::string("Content-Type:"),
             // Nor do we want a 100-continue round trip, whatever the body size.
             std::string("Expect:"),
         }) {
        curl_slist* extended = curl_slist_append(list, line.c_str());
        if (extended == nullptr) {
            curl_slist_free_all(list);
            return std::nullopt;
        }
        list = extended;
    }
    const std::unique_ptr<curl_slist, SlistDeleter> headers(list);

    Download download;
    download.limit = config.maxAnswerBytes;
    const std::string url = config.baseUrl + "/api.php";

    bool ok = curl_easy_setopt(handle, CURLOPT_URL, url.c_str()) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK;
    if (config.caFile) {
        ok = ok && curl_easy_setopt(handle, CURLOPT_CAINFO, config.caFile->c_str()) == CURLE_OK;
    }
    ok =
        ok && curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                               static_cast<long>(std::chrono::milliseconds(config.connectTimeout).count())) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, config.lowSpeedLimitBytesPerSecond) == CURLE_OK;
    ok = ok &&
         curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, static_cast<long>(config.lowSpeedTime.count())) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_POST, 1L) == CURLE_OK;
    Upload upload{&body, 0};
    ok = ok && curl_easy_setopt(handle, CURLOPT_READFUNCTION, &supplyBody) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_READDATA, &upload) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size())) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get()) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &collectBody) == CURLE_OK;
    ok = ok && curl_easy_setopt(handle, CURLOPT_WRITEDATA, &download) == CURLE_OK;
    char why[CURL_ERROR_SIZE] = {};
    ok = ok && curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, why) == CURLE_OK;
    if (!ok) {
        return std::nullopt;
    }
    const CURLcode result = curl_easy_perform(handle);
    if (result == CURLE_OK) {
        return std::move(download.body);
    }
    if (download.tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
        failure = {ServerProblem::AnswerTooLarge, std::to_string(config.maxAnswerBytes)};
    } else {
        failure = {ServerProblem::Unreachable, why[0] != '\0' ? why : curl_easy_strerror(result)};
    }
    return std::nullopt;
}

// The limits are ours, not the server's idea of an answer: say in the log
// why an answer that is JSON was not read.
void logUnreadAnswer(ServerAnswer::Unread why)
{
    switch (why) {
    case ServerAnswer::Unread::TooDeep:
        Logger::log("Update server answer nested deeper than " + std::to_string(ServerAnswer::kMaxDepth) +
                    " levels: not read");
        break;
    case ServerAnswer::Unread::TooManyValues:
        Logger::log("Update server answer holds more than " + std::to_string(ServerAnswer::kMaxValues) +
                    " values: not read");
        break;
    case ServerAnswer::Unread::NotJson:
    case ServerAnswer::Unread::NotAnObject:
        break;
    }
}

const std::string* bodyOf(const RequestBody& request)
{
    return std::get_if<std::string>(&request);
}

std::unique_ptr<CURL, EasyDeleter> newEasyHandle()
{
    if (!ensureCurlInitialised()) {
        return nullptr;
    }
    return std::unique_ptr<CURL, EasyDeleter>(curl_easy_init());
}

} // namespace

// The handle keeps the open connection and the TLS session cache between
// requests; it lives while any scope does.
struct UpdateServerClient::KeptConnection {
    std::mutex mutex;
    std::unique_ptr<CURL, EasyDeleter> easy;
    int scopes = 0;
};

UpdateServerClient::ConnectionScope::ConnectionScope(std::shared_ptr<KeptConnection> kept) : _kept(std::move(kept))
{
    if (_kept) {
        const std::lock_guard lock(_kept->mutex);
        ++_kept->scopes;
    }
}

UpdateServerClient::ConnectionScope::~ConnectionScope()
{
    if (_kept) {
        const std::lock_guard lock(_kept->mutex);
        if (--_kept->scopes == 0) {
            _kept->easy.reset();
        }
    }
}

UpdateServerClient::ConnectionScope UpdateServerClient::keepConnection() const
{
    return ConnectionScope(_config.reuseConnection ? _kept : nullptr);
}

std::optional<std::string> UpdateServerClient::send(const std::string& body, ServerProblemReport& failure) const
{
    failure = {ServerProblem::Unreachable, "the request could not be set up"};
    std::unique_lock lock(_kept->mutex);
    if (_kept->scopes == 0) {
        lock.unlock();
        const auto fresh = newEasyHandle();
        return fresh ? post(fresh.get(), _config, body, failure) : std::nullopt;
    }
    if (!_kept->easy) {
        _kept->easy = newEasyHandle();
        if (!_kept->easy) {
            return std::nullopt;
        }
    }
    auto answer = post(_kept->easy.get(), _config, body, failure);
    // Back to no options at all, so that nothing points into this call's
    // buffers; the connection and the TLS sessions stay.
    curl_easy_reset(_kept->easy.get());
    return answer;
}

std::string UpdateServerConfig::defaultBaseUrl()
{
    return QUENDRAL_UPDATE_SERVER_URL;
}

UpdateServerClient::UpdateServerClient(UpdateServerConfig config)
    : _config(std::move(config)), _kept(std::make_shared<KeptConnection>())
{
}

std::optional<ServerAnswer> UpdateServerClient::queryUpdate(const std::optional<std::string>& cid,
                                                            const std::optional<std::string>& platform,
                                                            const std::optional<std::string>& currentVersion,
                                                            const std::optional<std::string>& version,
                                                            std::optional<ServerProblemReport>* problem) const
{
    UpdateQuery query;
    query.cid = cid;
    query.platform = platform;
    query.currentVersion = currentVersion;
    query.appVersion = "mac_" + appinfo::shortVersion();
    if (const auto product = appinfo::osProductVersion(_config.osReleasePath)) {
        query.osVersion = "macOS" + *product;
    }
    query.version = version;

    const RequestBody request = checkUpdateBody(query);
    if (const auto* error = std::get_if<RequestBuildError>(&request)) {
        Logger::log(*error == RequestBuildError::MissingParameter ? "Error on querying update, nil parameter passed."
                                                                  : "Error on querying update");
        if (problem != nullptr) {
            *problem = {ServerProblem::QueryNotMade, *error == RequestBuildError::MissingParameter
                                                         ? "a value was missing"
                                                         : "a value was not UTF-8"};
        }
        return std::nullopt;
    }
    return contactServer(*bodyOf(request), problem);
}

std::optional<ServerAnswer> UpdateServerClient::queryTicket(const std::optional<TicketId>& ticket,
                                                            const std::optional<std::string>& cid) const
{
    const RequestBody request = ticketBody(ticket, cid);
    if (const auto* error = std::get_if<RequestBuildError>(&request)) {
        if (*error == RequestBuildError::SerializationFailed) {
            Logger::log("Error on querying ticket");
        }
        return std::nullopt;
    }
    return contactServer(*bodyOf(request));
}

std::optional<ServerAnswer> UpdateServerClient::reportUpdateStatus(const std::optional<TicketId>& ticket,
                                                                   const std::optional<std::string>& cid,
                                                                   bool success) const
{
    const RequestBody request = ticketStatusBody(ticket, cid, success);
    if (const auto* error = std::get_if<RequestBuildError>(&request)) {
        if (*error == RequestBuildError::MissingParameter) {
            Logger::log("Error reporting update status, passed nil parameter");
        }
        Logger::log("Error on reporting update status to server");
        return std::nullopt;
    }
    Logger::log(std::string("Reporting upload status ") + (success ? "true" : "false"));
    return contactServer(*bodyOf(request));
}

std::optional<ServerAnswer> UpdateServerClient::contactServer(const std::string& body,
                                                              std::optional<ServerProblemReport>* problem) const
{
    const auto note = [problem](std::optional<ServerProblemReport> report) {
        if (problem != nullptr) {
            *problem = std::move(report);
        }
    };
    try {
        ServerProblemReport failure;
        const std::optional<std::string> answer = send(body, failure);
        if (!answer) {
            note(std::move(failure));
            return ServerAnswer::connectionError();
        }
        ServerAnswer::Unread why = ServerAnswer::Unread::NotJson;
        auto parsed = ServerAnswer::fromJsonText(*answer, &why);
        if (!parsed) {
            logUnreadAnswer(why);
        }
        note(parsed ? std::nullopt : std::optional<ServerProblemReport>({ServerProblem::NotJsonObject, {}}));
        return parsed;
    } catch (...) {
        // Only running out of memory can land here; the caller still gets a defined answer.
        note(ServerProblemReport{ServerProblem::Unreachable, {}});
        return ServerAnswer::connectionError();
    }
}

} // namespace quendral
