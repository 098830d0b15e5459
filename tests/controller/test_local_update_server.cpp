// The local update server itself: later end-to-end tests and the demo rely on
// each of its behaviours, so each is pinned here (through the real client).
#include "update_server_test_bed.h"

#include <curl/curl.h>
#include <openssl/evp.h>

#include <cctype>
#include <cstdio>

using quendral::ServerAnswer;
using quendral::TicketId;
using quendral::test::UpdateServerTest;

namespace {

std::optional<std::string> decodeBase64(const std::string& text)
{
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string out(text.size() / 4 * 3, '\0');
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (n < 0) {
        return std::nullopt;
    }
    auto length = static_cast<std::size_t>(n);
    for (auto it = text.rbegin(); it != text.rend() && *it == '='; ++it) {
        --length;
    }
    out.resize(length);
    return out;
}

std::string md5Hex(const std::string& data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(data.data(), data.size(), digest, &size, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned int i = 0; i < size; ++i) {
        char two[3];
        (void)std::snprintf(two, sizeof two, "%02x", digest[i]);
        hex += two;
    }
    return hex;
}

std::string upper(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

class LocalUpdateServerTest : public UpdateServerTest {
protected:
    // check_update, then ticket polls until the answer carries "hexfile" (at most `limit`).
    std::pair<std::optional<ServerAnswer>, int> pollUntilFile(int limit = 10)
    {
        const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
        if (!answer || !answer->ticketId()) {
            return {answer, 0};
        }
        std::optional<ServerAnswer> poll;
        for (int polls = 1; polls <= limit; ++polls) {
            poll = client().queryTicket(answer->ticketId(), kCid);
            if (!poll || poll->hexfile() || (poll->status() == "error" && poll->description() != "internal")) {
                return {poll, polls};
            }
        }
        return {poll, limit};
    }
};

} // namespace

TEST_F(LocalUpdateServerTest, BuildsFirmwareForTheCidAfterConfiguredPolls)
{
    startServer({.arguments = {"--polls", "3"}});
    const auto [answer, polls] = pollUntilFile();
    ASSERT_TRUE(answer);
    EXPECT_EQ(polls, 4);
    ASSERT_TRUE(answer->hexfile());
    const auto firmware = decodeBase64(*answer->hexfile());
    ASSERT_TRUE(firmware);
    EXPECT_EQ(answer->hash(), md5Hex(*firmware));
    EXPECT_EQ(firmware->front(), ':');
    EXPECT_NE(firmware->find(":00000001FF"), std::string::npos);

    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 5u);
    for (std::size_t i = 1; i < bodies.size(); ++i) {
        EXPECT_EQ(bodies[i]["cmd"], "ticket");
    }
}

TEST_F(LocalUpdateServerTest, AnswersInternalWhileGeneratingByDefault)
{
    startServer({.arguments = {"--polls", "2"}});
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer && answer->ticketId());
    EXPECT_EQ(answer->status(), "success");
    EXPECT_TRUE(answer->description());
    for (int i = 0; i < 2; ++i) {
        const auto poll = client().queryTicket(answer->ticketId(), kCid);
        ASSERT_TRUE(poll);
        EXPECT_EQ(poll->status(), "error");
        EXPECT_EQ(poll->description(), "internal");
        EXPECT_FALSE(poll->hexfile());
    }
    ASSERT_TRUE(server->control({{"pending", "pending"}, {"polls", 5}}));
    const auto poll = client().queryTicket(answer->ticketId(), kCid);
    ASSERT_TRUE(poll);
    EXPECT_EQ(poll->status(), "pending");
    EXPECT_FALSE(poll->hexfile());
}

TEST_F(LocalUpdateServerTest, ServesTheFirmwareFileItIsGiven)
{
    quendral::test::LocalUpdateServer probe; // only for a scratch folder that outlives the file
    ASSERT_TRUE(probe.running()) << probe.error();
    const auto file = probe.folder() / "given.hex";
    const std::string hex = ":0400000001020304F2\n:00000001FF\n";
    std::ofstream(file) << hex;
    startServer({.arguments = {"--polls", "0", "--firmware", file.string()}});
    const auto [answer, polls] = pollUntilFile();
    ASSERT_TRUE(answer && answer->hexfile());
    EXPECT_EQ(polls, 1);
    EXPECT_EQ(decodeBase64(*answer->hexfile()), hex);
    EXPECT_EQ(answer->hash(), md5Hex(hex));
}

TEST_F(LocalUpdateServerTest, GeneratedFirmwareDiffersPerCid)
{
    startServer({.arguments = {"--polls", "0"}});
    const auto first = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    const auto second = client().queryUpdate("FEDCBA9876543210FEDCBA9876543210", "due", "1.0", std::nullopt);
    ASSERT_TRUE(first && second);
    const auto a = client().queryTicket(first->ticketId(), kCid);
    const auto b = client().queryTicket(second->ticketId(), "FEDCBA9876543210FEDCBA9876543210");
    ASSERT_TRUE(a && b && a->hash() && b->hash());
    EXPECT_NE(*a->hash(), *b->hash());
    // A ticket polled with another Controller's CID is refused.
    const auto wrong = client().queryTicket(first->ticketId(), "FEDCBA9876543210FEDCBA9876543210");
    ASSERT_TRUE(wrong);
    EXPECT_EQ(wrong->status(), "error");
    EXPECT_FALSE(wrong->hexfile());
}

TEST_F(LocalUpdateServerTest, FailsGenerationWhenTold)
{
    startServer({.arguments = {"--polls", "1", "--generation", "fail"}});
    const auto [answer, polls] = pollUntilFile();
    ASSERT_TRUE(answer);
    EXPECT_EQ(polls, 2);
    EXPECT_EQ(answer->status(), "error");
    EXPECT_EQ(answer->description(), "generation_failed");
    EXPECT_FALSE(answer->hexfile());
}

TEST_F(LocalUpdateServerTest, SendsTheHashInUpperCaseWhenTold)
{
    startServer({.arguments = {"--polls", "0", "--hash", "upper"}});
    const auto [answer, polls] = pollUntilFile();
    ASSERT_TRUE(answer && answer->hexfile() && answer->hash());
    const std::string digest = md5Hex(*decodeBase64(*answer->hexfile()));
    EXPECT_NE(*answer->hash(), digest);
    EXPECT_EQ(*answer->hash(), upper(digest));
}

TEST_F(LocalUpdateServerTest, CorruptsTheHashWhenTold)
{
    startServer({.arguments = {"--polls", "0", "--hash", "corrupt"}});
    const auto [answer, polls] = pollUntilFile();
    ASSERT_TRUE(answer && answer->hexfile() && answer->hash());
    const std::string digest = md5Hex(*decodeBase64(*answer->hexfile()));
    EXPECT_EQ(answer->hash()->size(), 32u);
    EXPECT_NE(*answer->hash(), digest);
    EXPECT_NE(upper(*answer->hash()), upper(digest));
}

TEST_F(LocalUpdateServerTest, BreaksTheBase64WithLineBreaksWhenTold)
{
    startServer({.arguments = {"--polls", "0", "--base64", "line_breaks"}});
    const auto [answer, polls] = pollUntilFile();
    ASSERT_TRUE(answer && answer->hexfile());
    std::string text = *answer->hexfile();
    EXPECT_NE(text.find('\n'), std::string::npos);
    std::erase(text, '\n');
    const auto firmware = decodeBase64(text);
    ASSERT_TRUE(firmware);
    EXPECT_EQ(answer->hash(), md5Hex(*firmware)) << "only the line breaks are wrong";
}

TEST_F(LocalUpdateServerTest, RefusesInEachWay)
{
    startServer();
    for (const char* description : {"not_authorized", "no_update", "connection", "message", "maintenance"}) {
        ASSERT_TRUE(server->control({{"refuse", description}, {"message", "Back on Monday."}}));
        const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
        ASSERT_TRUE(answer) << description;
        EXPECT_EQ(answer->status(), "error");
        EXPECT_EQ(answer->description(), description);
        EXPECT_FALSE(answer->ticketId());
        EXPECT_EQ(answer->message(),
                  std::string(description) == "message" ? std::optional<std::string>("Back on Monday.") : std::nullopt);
    }
}

TEST_F(LocalUpdateServerTest, RefusesUnregisteredCidsAndUpToDateControllers)
{
    startServer({.arguments = {"--registered", kCid, "--latest", "2.0"}});
    const auto stranger = client().queryUpdate("FEDCBA9876543210FEDCBA9876543210", "due", "1.0", std::nullopt);
    ASSERT_TRUE(stranger);
    EXPECT_EQ(stranger->description(), "not_authorized");
    const auto upToDate = client().queryUpdate(kCid, "due", "2.0", std::nullopt);
    ASSERT_TRUE(upToDate);
    EXPECT_EQ(upToDate->description(), "no_update");
    // A requested build is made even for an up-to-date Controller.
    const auto master = client().queryUpdate(kCid, "due", "2.0", "master");
    ASSERT_TRUE(master);
    EXPECT_TRUE(master->ticketId());
}

TEST_F(LocalUpdateServerTest, FaultsCanBeLimitedToCommandsAndCounts)
{
    startServer({.arguments = {"--polls", "0"}});
    ASSERT_TRUE(server->control({{"fault", "html_500"}, {"fault_commands", {"ticket"}}, {"fault_count", 1}}));
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer && answer->ticketId());
    EXPECT_FALSE(client().queryTicket(answer->ticketId(), kCid)) << "first poll gets the HTML page";
    const auto second = client().queryTicket(answer->ticketId(), kCid);
    ASSERT_TRUE(second);
    EXPECT_TRUE(second->hexfile());

    ASSERT_TRUE(server->control({{"refuse", "no_update"}}));
    ASSERT_TRUE(server->control({{"reset", true}}));
    const auto afterReset = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(afterReset);
    EXPECT_TRUE(afterReset->ticketId());
}

TEST_F(LocalUpdateServerTest, UnknownControlSettingsAreRefused)
{
    startServer();
    const auto reply = server->control({{"no_such_setting", 1}});
    ASSERT_TRUE(reply);
    EXPECT_EQ((*reply)["status"], "error");
}

TEST_F(LocalUpdateServerTest, RecordsStatusReports)
{
    startServer({.arguments = {"--polls", "0"}});
    const auto answer = client().queryUpdate(kCid, "due", "1.0", std::nullopt);
    ASSERT_TRUE(answer && answer->ticketId());
    const auto report = client().reportUpdateStatus(answer->ticketId(), kCid, false);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->status(), "success");
    const auto bodies = server->recordedBodies();
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_EQ(bodies[1]["cmd"], "ticket_status");
    EXPECT_EQ(bodies[1]["success"], false);
}

// The road benchmark takes the server's own work out of an update's time: the
// server counts the CPU time of its handshakes and of the API requests it
// handles, and not the control requests that ask for the figure.
TEST_F(LocalUpdateServerTest, CountsItsOwnCpuTimeForTheApiOnly)
{
    startServer({.arguments = {"--polls", "0"}});
    const auto busy = [this] {
        const auto reply = server->control(nlohmann::json::object());
        return reply && reply->contains("busy_seconds") ? (*reply)["busy_seconds"].get<double>() : -1.0;
    };
    EXPECT_EQ(busy(), 0.0) << "control requests are not counted";
    const auto [file, polls] = pollUntilFile();
    ASSERT_TRUE(file && file->hexfile());
    const double afterUpdate = busy();
    EXPECT_GT(afterUpdate, 0.0);
    EXPECT_LT(afterUpdate, 5.0) << "CPU seconds, not wall time or milliseconds";
    EXPECT_EQ(busy(), afterUpdate) << "asking again adds nothing";
}

// The wrong-host certificate fails only by its name: reached under that name it
// is trusted, so the client's refusal of it is host-name checking at work.
TEST_F(LocalUpdateServerTest, WrongHostCertificateIsValidForItsOwnName)
{
    startServer({.identity = "wronghost", .arguments = {}});
    CURL* handle = curl_easy_init();
    ASSERT_NE(handle, nullptr);
    const std::string name = "wrong-host.quendral.example";
    const std::string port = std::to_string(server->port());
    curl_slist* resolve = curl_slist_append(nullptr, (name + ":" + port + ":127.0.0.1").c_str());
    const std::string url = "https://" + name + ":" + port + "/api.php";
    const std::string ca = server->caFile().string();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_RESOLVE, resolve);
    curl_easy_setopt(handle, CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, "{}");
    curl_easy_setopt(handle, CURLOPT_NOBODY, 0L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(
        handle, CURLOPT_WRITEFUNCTION, +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
    const CURLcode result = curl_easy_perform(handle);
    curl_easy_cleanup(handle);
    curl_slist_free_all(resolve);
    EXPECT_EQ(result, CURLE_OK) << curl_easy_strerror(result);
    EXPECT_EQ(server->recordedRequests().size(), 1u);
}
