// Answers nested or sized beyond reason, sent by the local HTTPS update server:
// the client treats them like an answer that is not JSON, says why in the log,
// and the whole request stays near the size of the body it downloaded. The
// memory is measured in a child process (support/peak_memory.h).
#include "support/peak_memory.h"
#include "update_server_test_bed.h"

#include <string>

using quendral::test::UpdateServerTest;

namespace {

constexpr std::size_t kMiB = 1024 * 1024;

class HostileServerAnswers : public UpdateServerTest {
protected:
    // Serves `body` to every request.
    void serve(const std::string& body)
    {
        startServer();
        ASSERT_TRUE(server->control({{"fault", "raw"}, {"raw_body", body}}));
    }
    // The peak memory of one update query, made in a child process; and
    // whether it gave an answer there.
    [[nodiscard]] std::optional<quendral::test::MeasuredWork> measuredQuery() const
    {
        return quendral::test::measurePeakMemory(
            [this] { return client().queryUpdate(kCid, "due", "1.0", std::nullopt) ? 1 : 0; });
    }
};

} // namespace

TEST_F(HostileServerAnswers, MegabytesOfNestingAreNotReadAndSaySo)
{
    const std::string body = R"({"status":)" + std::string(4 * kMiB, '[');
    serve(body);
    const auto measured = measuredQuery();
    ASSERT_TRUE(measured) << "the child could not measure";
    EXPECT_EQ(measured->result, 0) << "no answer";
    // The downloaded body itself (a string grown by doubling: up to about
    // three times its size while it grows) and the transport's buffers;
    // parsing it whole took 350 MB here.
    EXPECT_LT(measured->peakGrowth, quendral::test::peakMemoryBound(4 * body.size() + 8 * kMiB));

    EXPECT_FALSE(client().queryUpdate(kCid, "due", "1.0", std::nullopt));
    EXPECT_EQ(logged(), (std::vector<std::string>{"Update server answer nested deeper than 64 levels: not read"}));
}

TEST_F(HostileServerAnswers, MegabytesOfSmallValuesAreNotReadAndSaySo)
{
    std::string body = R"({"status":"success","list":[0)";
    while (body.size() < 8 * kMiB) {
        body += ",0";
    }
    body += "]}";
    serve(body);
    const auto measured = measuredQuery();
    ASSERT_TRUE(measured) << "the child could not measure";
    EXPECT_EQ(measured->result, 0) << "no answer";
    EXPECT_LT(measured->peakGrowth,
              quendral::test::peakMemoryBound(4 * body.size() + 8 * kMiB)); // parsing it whole took 177 MB

    EXPECT_FALSE(client().queryUpdate(kCid, "due", "1.0", std::nullopt));
    EXPECT_EQ(logged(), (std::vector<std::string>{"Update server answer holds more than 4096 values: not read"}));
}

TEST_F(HostileServerAnswers, AnAnswerThatIsNotJsonStillSaysNothing)
{
    serve("Service temporarily unavailable");
    EXPECT_FALSE(client().queryUpdate(kCid, "due", "1.0", std::nullopt));
    EXPECT_TRUE(logged().empty());
}
