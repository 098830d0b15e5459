// The one 1200-baud touch detector, fed as each kind of board feeds it.
#include "baud_touch.h"
#include "pty.h"

#include <gtest/gtest.h>

#include <termios.h>
#include <unistd.h>

using quendral::sim::BaudTouchDetector;

TEST(BaudTouchDetector, ASessionAt1200BaudEndedByACloseIsATouch)
{
    BaudTouchDetector touch;
    EXPECT_FALSE(touch.inSession());
    touch.sawSpeed(115200);
    touch.sawSpeed(1200);
    EXPECT_TRUE(touch.inSession());
    EXPECT_TRUE(touch.hostClosed());
    EXPECT_FALSE(touch.inSession());
    EXPECT_EQ(touch.touches(), 1);
}

TEST(BaudTouchDetector, ASessionNeverAt1200BaudIsNoTouch)
{
    BaudTouchDetector touch;
    touch.sawSpeed(115200);
    EXPECT_FALSE(touch.hostClosed());
    EXPECT_FALSE(touch.hostClosed(57600));
    EXPECT_EQ(touch.touches(), 0);
}

TEST(BaudTouchDetector, TheSpeedLeftAtTheCloseCountsWhenNoSampleSawIt)
{
    BaudTouchDetector touch;
    EXPECT_TRUE(touch.hostClosed(1200));
    EXPECT_EQ(touch.touches(), 1);
}

TEST(BaudTouchDetector, EachSessionIsJudgedOnItsOwn)
{
    BaudTouchDetector touch;
    touch.sawSpeed(1200);
    EXPECT_TRUE(touch.hostClosed());
    touch.sawSpeed(115200);
    EXPECT_FALSE(touch.hostClosed()) << "the earlier session's 1200 baud must not carry over";
    EXPECT_EQ(touch.touches(), 1);
}

TEST(BaudTouchDetector, ModemLinesSetAt1200BaudAreATouch)
{
    BaudTouchDetector touch;
    EXPECT_FALSE(touch.modemLinesSet(115200));
    EXPECT_TRUE(touch.modemLinesSet(1200));
    EXPECT_TRUE(touch.modemLinesSet(1200));
    EXPECT_EQ(touch.touches(), 2);
}

TEST(BaudTouchDetector, TheHostsTouchLeavesThePortAt1200Baud)
{
    const auto pty = quendral::sim::openPty();
    ASSERT_GE(pty.master, 0);
    ASSERT_TRUE(quendral::sim::touchAt1200Baud(pty.slavePath));
    termios tio{};
    ASSERT_EQ(::tcgetattr(pty.master, &tio), 0);
    EXPECT_EQ(::cfgetospeed(&tio), static_cast<speed_t>(B1200));
    EXPECT_FALSE(quendral::sim::touchAt1200Baud("/dev/quendral-no-such-port"));
    ::close(pty.master);
}
