// Pulling the cable while the port is open.
#include "serial_test_bed.h"

#include "support/descriptors.h"

#include <algorithm>
#include <filesystem>
#include <unistd.h>

using namespace quendral;
using namespace quendral::test;

using SerialPortRemoval = SerialTestBed;

namespace {

std::size_t indexOf(const std::vector<std::string>& kinds, const std::string& kind)
{
    return static_cast<std::size_t>(std::find(kinds.begin(), kinds.end(), kind) - kinds.begin());
}

} // namespace

TEST_F(SerialPortRemoval, UnplugWhileOpenReportsErrorThenRemovalThenCloseWithoutLeaks)
{
    // One full open/close first, so that lazily created descriptors of the
    // test bed are in the baseline.
    {
        auto warmUp = openPort(delegate);
        ASSERT_TRUE(warmUp);
        ASSERT_TRUE(closeAndWait(warmUp));
    }
    ASSERT_TRUE(waitFor([&] { return delegate->count("closed") == 1; }));
    dispatch::RunLoop::main().drain();
    const auto before = openDescriptors();

    auto recorder = std::make_shared<RecordingSerialDelegate>();
    auto port = openPort(recorder);
    ASSERT_TRUE(port);
    ASSERT_TRUE(waitFor([&] { return recorder->count("opened") == 1; }));
    const auto whileOpen = openDescriptors();
    ASSERT_TRUE(whileOpen.contains(port->fileDescriptor()));
    EXPECT_TRUE(whileOpen.at(port->fileDescriptor()).starts_with("/dev/pts/")) << "the check below would miss it";

    testbed->unplug(*device);

    ASSERT_TRUE(waitFor([&] { return recorder->count("closed") == 1; }, 10000ms)) << "the port never closed";
    EXPECT_FALSE(port->isOpen());
    const auto kinds = recorder->kinds();
    const std::size_t error = indexOf(kinds, "error");
    const std::size_t removed = indexOf(kinds, "removed");
    const std::size_t closed = indexOf(kinds, "closed");
    ASSERT_LT(error, kinds.size());
    ASSERT_LT(removed, kinds.size());
    EXPECT_LT(error, removed);
    EXPECT_LT(removed, closed);
    EXPECT_EQ(recorder->count("removed"), 1u);
    EXPECT_EQ(recorder->errors().front().code, EIO);
    EXPECT_EQ(recorder->errors().front().path, "/dev/ttyACM0");
    for (const auto& event : recorder->events()) {
        EXPECT_TRUE(event.onMainThread) << event.kind;
    }

    // Nothing more arrives, and every descriptor the port had is gone.
    dispatch::RunLoop::main().runFor(200ms);
    EXPECT_EQ(recorder->count("removed"), 1u);
    EXPECT_EQ(recorder->count("closed"), 1u);
    // (umockdev's handler may close the server end of its ioctl socket a
    // little later, so the set may shrink; it must not grow.)
    const auto after = openDescriptors();
    for (const auto& [fd, target] : after) {
        const auto found = before.find(fd);
        EXPECT_TRUE(found != before.end() && found->second == target)
            << "descriptor " << fd << " -> " << target << " left open";
    }
    const auto countOf = [](const std::map<int, std::string>& fds, const std::string& prefix) {
        return std::count_if(fds.begin(), fds.end(), [&](const auto& fd) { return fd.second.starts_with(prefix); });
    };
    EXPECT_EQ(countOf(after, "/dev/pts/"), countOf(before, "/dev/pts/"));
    EXPECT_EQ(countOf(after, "anon_inode:[eventfd]"), countOf(before, "anon_inode:[eventfd]"));
}

TEST_F(SerialPortRemoval, UnplugOfAPortWithoutModemLinesIsSeenThroughTheHangUp)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "hanging up a pseudo-terminal (TIOCVHANGUP) needs CAP_SYS_ADMIN";
    }
    device->setModemLinesSupported(false);
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    ASSERT_TRUE(waitFor([&] { return delegate->count("error") >= 2; })); // the ENOTTYs
    testbed->unplug(*device);
    ASSERT_TRUE(waitFor([&] { return delegate->count("closed") == 1; }, 10000ms));
    const auto kinds = delegate->kinds();
    EXPECT_LT(indexOf(kinds, "removed"), indexOf(kinds, "closed"));
    EXPECT_EQ(delegate->errors().back().code, EIO);
}

TEST_F(SerialPortRemoval, HangUpAloneCountsAsRemoval)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "hanging up a pseudo-terminal (TIOCVHANGUP) needs CAP_SYS_ADMIN";
    }
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    ASSERT_TRUE(sim::UmockdevTestbed::hangUp(*device));
    ASSERT_TRUE(waitFor([&] { return delegate->count("closed") == 1; }, 10000ms));
    EXPECT_EQ(delegate->count("removed"), 1u);
    EXPECT_FALSE(port->isOpen());
}

TEST_F(SerialPortRemoval, UnplugWithoutADelegateStillClosesThePort)
{
    auto port = openPort(nullptr);
    ASSERT_TRUE(port);
    testbed->unplug(*device);
    EXPECT_TRUE(waitFor([&] { return !port->isOpen(); }, 10000ms));
}

TEST_F(SerialPortRemoval, RemovalByThePortManagerTellsTheDelegateAndCloses)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    port->cleanupAfterSystemRemoval();
    ASSERT_TRUE(waitFor([&] { return delegate->count("closed") == 1; }));
    const auto kinds = delegate->kinds();
    EXPECT_LT(indexOf(kinds, "removed"), indexOf(kinds, "closed"));
    EXPECT_EQ(delegate->count("error"), 0u);
}

TEST_F(SerialPortRemoval, OpeningAPortThatHasLeftFailsWithNoSuchFileAsOftenAsItIsTried)
{
    // The touch that resets a board retries its open without pause until the
    // removal is reported; every try must fail the same way, and the lab's
    // umockdev preload must live through hundreds of them.
    auto recorder = std::make_shared<RecordingSerialDelegate>();
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setDelegate(recorder);
    testbed->unplug(*device);
    ASSERT_TRUE(waitFor([] { return !std::filesystem::exists("/dev/ttyACM0"); }));

    constexpr int kTries = 500;
    for (int i = 0; i < kTries; ++i) {
        port->open();
        ASSERT_FALSE(port->isOpen());
    }
    dispatch::RunLoop::main().drain();
    const auto errors = recorder->errors();
    ASSERT_EQ(errors.size(), static_cast<std::size_t>(kTries));
    EXPECT_TRUE(std::all_of(errors.begin(), errors.end(), [](const auto& e) { return e.code == ENOENT; }));
    EXPECT_EQ(recorder->count("opened"), 0u);
}
