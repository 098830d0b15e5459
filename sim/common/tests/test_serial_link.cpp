// The device end of a simulated board's line: peer open/close detection (by
// inotify on the node and by hang-up alone), speed, no writes into a closed line.

#include "pty.h"
#include "serial_link.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

using namespace quendral::sim;

namespace {

struct Line {
    Pty pty = openPty();
    ~Line()
    {
        if (pty.master >= 0) {
            close(pty.master);
        }
    }
};

void pumpFew(SerialLink& link)
{
    for (int i = 0; i < 5; ++i) {
        link.pump(2);
    }
}

} // namespace

class SerialLinkTest : public ::testing::TestWithParam<bool> {};

TEST_P(SerialLinkTest, SeesThePeerComeAndGoAndCarriesBytesOnlyWhileItIsThere)
{
    Line line;
    ASSERT_GE(line.pty.master, 0);
    SerialLink link(line.pty.master, GetParam() ? line.pty.slavePath : std::string());
    pumpFew(link);
    EXPECT_FALSE(link.peerOpen());
    link.send("lost\n"); // nobody listens
    EXPECT_EQ(link.pendingOutput(), 0u);

    int peer = open(line.pty.slavePath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(peer, 0);
    termios tio{};
    tcgetattr(peer, &tio);
    cfmakeraw(&tio);
    cfsetospeed(&tio, B1200);
    cfsetispeed(&tio, B1200);
    tcsetattr(peer, TCSANOW, &tio);
    pumpFew(link);
    EXPECT_TRUE(link.peerOpen());
    EXPECT_EQ(link.takeOpens(), 1u);
    EXPECT_EQ(link.takeOpens(), 0u);
    EXPECT_EQ(link.baud(), 1200u);

    ASSERT_EQ(write(peer, "ping", 4), 4);
    pumpFew(link);
    EXPECT_EQ(std::string(link.input().begin(), link.input().end()), "ping");
    link.send("pong");
    char buf[16] = {};
    pumpFew(link);
    EXPECT_EQ(read(peer, buf, sizeof buf), 4);
    EXPECT_EQ(std::string(buf, 4), "pong");

    close(peer);
    pumpFew(link);
    EXPECT_FALSE(link.peerOpen());
    EXPECT_EQ(link.takeCloses(), 1u);
}

INSTANTIATE_TEST_SUITE_P(WatchedNodeAndHangUpOnly, SerialLinkTest, ::testing::Values(true, false));

TEST(SerialLink, InotifyCountsAnOpenAndCloseTooQuickToSee)
{
    Line line;
    SerialLink link(line.pty.master, line.pty.slavePath);
    int peer = open(line.pty.slavePath.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(peer, 0);
    close(peer);
    pumpFew(link);
    EXPECT_EQ(link.takeOpens(), 1u);
    EXPECT_EQ(link.takeCloses(), 1u);
}

TEST(SerialLink, BytesWrittenJustBeforeTheCloseAreStillRead)
{
    for (bool watchNode : {true, false}) {
        Line line;
        SerialLink link(line.pty.master, watchNode ? line.pty.slavePath : std::string());
        pumpFew(link);
        int peer = open(line.pty.slavePath.c_str(), O_RDWR | O_NOCTTY);
        ASSERT_GE(peer, 0);
        termios tio{};
        tcgetattr(peer, &tio);
        cfmakeraw(&tio);
        tcsetattr(peer, TCSANOW, &tio);
        ASSERT_EQ(write(peer, "last words", 10), 10);
        close(peer); // before the link has looked at all
        pumpFew(link);
        EXPECT_FALSE(link.peerOpen());
        EXPECT_EQ(std::string(link.input().begin(), link.input().end()), "last words") << watchNode;
    }
}
