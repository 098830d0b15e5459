#pragma once
// For the device lab's tests: a simulated board on a fresh pty of its own,
// stopped and closed at the end of the test.
#include "poll_until.h"
#include "pty.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <unistd.h>

namespace quendral::sim {

template <typename Board> struct BoardOnPty {
    Pty pty = openPty();
    Board board;

    template <typename Options> explicit BoardOnPty(Options options) : board(std::move(options)) {}
    ~BoardOnPty()
    {
        board.stop();
        if (pty.master >= 0) {
            ::close(pty.master);
        }
    }
    BoardOnPty(const BoardOnPty&) = delete;
    BoardOnPty& operator=(const BoardOnPty&) = delete;

    // watchNode false: the peer's open is seen only from the hang-up state of
    // the device end, as on a umockdev tty.
    ::testing::AssertionResult start(bool watchNode = true)
    {
        if (pty.master < 0) {
            return ::testing::AssertionFailure() << "no pty";
        }
        if (!board.start(pty.master, watchNode ? pty.slavePath : std::string())) {
            return ::testing::AssertionFailure() << board.error();
        }
        return ::testing::AssertionSuccess();
    }
};

} // namespace quendral::sim
