// The Controller reply parser, fed through MainViewController's data callback.
#include "../support/recording_main_view.h"
#include "controller/main_view_controller.h"

#include <gtest/gtest.h>

using namespace quendral;

namespace {

const std::string kCID = "0123456789ABCDEF0123456789ABCDEF";

class ReplyParser : public ::testing::Test {
protected:
    void feed(const std::string& bytes)
    {
        controller->serialPortDidReceiveData(nullptr, SerialData(bytes.begin(), bytes.end()));
    }
    [[nodiscard]] std::string serialInput() const
    {
        const auto& input = controller->serialInput();
        return std::string(input.begin(), input.end());
    }

    test::RecordingMainView view;
    std::shared_ptr<MainViewController> controller = MainViewController::create(view, nullptr);
};

} // namespace

TEST_F(ReplyParser, CompleteIdentifierReplyAsOneChunkLeavesTheIdentifierUnsetUntilAnotherByteArrives)
{
    feed("CID:" + kCID + "\n");
    EXPECT_EQ(controller->deviceCID(), std::nullopt);
    EXPECT_EQ(serialInput(), "CID:" + kCID + "\n");
    feed("C");
    EXPECT_EQ(controller->deviceCID(), kCID);
    EXPECT_EQ(serialInput(), "C");
}

TEST_F(ReplyParser, IdentifierVersionAndOneMoreByteInOneChunkSetBothAndKeepTheByte)
{
    feed("CID:" + kCID + "\nVERSION:1.2\nX");
    EXPECT_EQ(controller->deviceCID(), kCID);
    EXPECT_EQ(controller->currentVersion(), "1.2");
    EXPECT_EQ(serialInput(), "X");
}

TEST_F(ReplyParser, IdentifierLineOf35Or37CharactersIsIgnored)
{
    feed("CID:" + kCID.substr(1) + "\n");
    feed("CID:" + kCID + "Z\n");
    feed("\n");
    EXPECT_EQ(controller->deviceCID(), std::nullopt);
    EXPECT_EQ(controller->deviceMessage(), std::nullopt);
}

TEST_F(ReplyParser, MessageLineSetsTheMessageToTheTextAfterThePrefix)
{
    feed("CID:MSG:Please contact your dealer\n\n");
    EXPECT_EQ(controller->deviceMessage(), "Please contact your dealer");
    EXPECT_EQ(controller->deviceCID(), std::nullopt);
}

TEST_F(ReplyParser, MessageLineOf36CharactersCountsAsAnIdentifier)
{
    const std::string line = "CID:MSG:" + std::string(28, 'm');
    ASSERT_EQ(line.size(), 36u);
    feed(line + "\n\n");
    EXPECT_EQ(controller->deviceCID(), line.substr(4));
    EXPECT_EQ(controller->deviceMessage(), std::nullopt);
}

TEST_F(ReplyParser, StartDumpInsideALongerLineStartsADumpThatKeepsLinesUnchangedUntilEndDump)
{
    feed("xx start_dump yy\nip;192.168.10.50\nCID:" + kCID + "\nVERSION:9\n  spaced  \nend_dump trailing\n\n");
    EXPECT_EQ(controller->ipDump(),
              (std::vector<std::string>{"ip;192.168.10.50", "CID:" + kCID, "VERSION:9", "  spaced  "}));
    EXPECT_FALSE(controller->dumpingIP());
    EXPECT_EQ(controller->deviceCID(), std::nullopt) << "reply-like lines inside a dump are only stored";
    EXPECT_EQ(controller->currentVersion(), std::nullopt);
}

TEST_F(ReplyParser, EndDumpWithoutADumpIsHarmless)
{
    feed("end_dump\nVERSION:2.0\n\n");
    EXPECT_FALSE(controller->dumpingIP());
    EXPECT_TRUE(controller->ipDump().empty());
    EXPECT_EQ(controller->currentVersion(), "2.0");
}

TEST_F(ReplyParser, WebserverAnnouncementSetsTheHostAndStoppingSetsOff)
{
    feed("Starting webserver for configuration at http://192.168.10.99\n\n");
    EXPECT_EQ(controller->deviceIP(), "192.168.10.99");
    feed("Stopping webserver now\n\n");
    EXPECT_EQ(controller->deviceIP(), "off");
}

TEST_F(ReplyParser, ShortWebserverAnnouncementGivesAnEmptyAddress)
{
    feed("Starting webserver for configuration at http:/\n\n");
    EXPECT_EQ(controller->deviceIP(), "");
}

TEST_F(ReplyParser, AddressLineSetsTheAddress)
{
    feed("IP address: 10.1.2.3\n\n");
    EXPECT_EQ(controller->deviceIP(), "10.1.2.3");
}

TEST_F(ReplyParser, CarriageReturnStaysInTheLine)
{
    feed("VERSION:1.2\r\n\n");
    EXPECT_EQ(controller->currentVersion(), "1.2\r");
    feed("CID:" + kCID + "\r\n\n");
    EXPECT_EQ(controller->deviceCID(), std::nullopt) << "37 characters with the carriage return";
}

TEST_F(ReplyParser, NonAsciiLinesAreSkippedAndNeverStoredInTheDump)
{
    feed("VERSION:caf\xc3\xa9\n\n");
    EXPECT_EQ(controller->currentVersion(), std::nullopt);
    feed("start_dump\nip;1.2.3.4\n\xff\xfe\nend_dump\n\n");
    EXPECT_EQ(controller->ipDump(), (std::vector<std::string>{"ip;1.2.3.4"}));
}

TEST_F(ReplyParser, LinesSplitOverManyChunksAreJoined)
{
    const std::string reply = "CID:" + kCID + "\nVERSION:3.1.4\n";
    for (char c : reply) {
        feed(std::string(1, c));
    }
    EXPECT_EQ(controller->deviceCID(), kCID);
    EXPECT_EQ(controller->currentVersion(), std::nullopt) << "its line feed is still the last byte";
    feed("C");
    EXPECT_EQ(controller->currentVersion(), "3.1.4");
}

TEST_F(ReplyParser, LongLineWithoutLineFeedIsKeptWhole)
{
    // Below the 64 KiB at which a line is cut (tests/controller/hostile_reply_parser.cpp).
    const std::string chunk(1000, 'a');
    for (int i = 0; i < 60; ++i) {
        feed(chunk);
    }
    EXPECT_EQ(controller->serialInput().size(), 60000u);
    feed("\nVERSION:7\n\n");
    EXPECT_EQ(controller->currentVersion(), "7");
    EXPECT_EQ(serialInput(), "\n");
}

TEST_F(ReplyParser, LaterRepliesReplaceEarlierOnes)
{
    feed("VERSION:1\nVERSION:2\n\n");
    EXPECT_EQ(controller->currentVersion(), "2");
}

TEST_F(ReplyParser, EmptyChunkOnAnEmptyBufferDoesNothing)
{
    feed("");
    EXPECT_TRUE(controller->serialInput().empty());
}
