// Opening, closing, sending and receiving on a umockdev tty.
#include "serial_test_bed.h"

#include <condition_variable>
#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

extern char** environ;

using namespace quendral;
using namespace quendral::test;

using SerialPortIO = SerialTestBed;

TEST_F(SerialPortIO, OpenTellsTheDelegateOnTheMainQueue)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    ASSERT_TRUE(waitFor([&] { return delegate->count("opened") == 1; }));
    const auto events = delegate->events();
    EXPECT_TRUE(events.front().onMainThread);
    EXPECT_GT(port->fileDescriptor(), 0);
}

TEST_F(SerialPortIO, OpenOnAnOpenPortDoesNothing)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    const int fd = port->fileDescriptor();
    port->open();
    EXPECT_EQ(port->fileDescriptor(), fd);
    dispatch::RunLoop::main().runFor(100ms);
    EXPECT_EQ(delegate->count("opened"), 1u);
    EXPECT_EQ(device->exclusiveRequests(), 1);
}

TEST_F(SerialPortIO, OpenRightAfterCloseWaitsForTheCloseAndWorks)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    for (int round = 0; round < 20; ++round) {
        // The reader thread finishes a close; the open must not take the
        // dying descriptor for an open port.
        port->close();
        port->open();
        ASSERT_TRUE(port->isOpen()) << "round " << round;
        ASSERT_TRUE(port->sendData("r" + std::to_string(round) + "\n"));
        EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "r" + std::to_string(round) + "\n") << "round " << round;
    }
    EXPECT_GT(port->fileDescriptor(), 0);
    ASSERT_TRUE(waitFor([&] { return delegate->count("opened") == 21 && delegate->count("closed") == 20; }));
    EXPECT_EQ(delegate->count("error"), 0u);
}

TEST_F(SerialPortIO, OpenTakesTheDeviceExclusivelyAndCloseGivesItBack)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    EXPECT_EQ(device->exclusiveRequests(), 1);
    EXPECT_EQ(device->nonExclusiveRequests(), 0);
    ASSERT_TRUE(closeAndWait(port));
    EXPECT_EQ(device->nonExclusiveRequests(), 1);
}

namespace {

// Another process holding the port: flock(1) keeps the lock while its child sleeps.
class LockHolder {
public:
    explicit LockHolder(const std::string& path)
    {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ready[1], STDOUT_FILENO);
        const char* argv[] = {
            "flock", "--no-fork", "--exclusive", path.c_str(), "sh", "-c", "echo locked; exec sleep 30", nullptr};
        if (::posix_spawnp(&_pid, "flock", &actions, nullptr, const_cast<char* const*>(argv), environ) != 0) {
            _pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(ready[1]);
        char text[16] = {};
        pollfd p{ready[0], POLLIN, 0};
        if (::poll(&p, 1, 5000) > 0) {
            _locked = ::read(ready[0], text, sizeof text) > 0;
        }
        ::close(ready[0]);
    }
    ~LockHolder()
    {
        if (_pid > 0) {
            ::kill(_pid, SIGTERM);
            int status = 0;
            ::waitpid(_pid, &status, 0);
        }
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
    [[nodiscard]] bool locked() const { return _locked; }

private:
    pid_t _pid = -1;
    bool _locked = false;
};

} // namespace

TEST_F(SerialPortIO, PortHeldByAnotherProcessFailsToOpenAndTheDelegateHearsWhy)
{
    LockHolder holder("/dev/ttyACM0");
    ASSERT_TRUE(holder.locked());
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setDelegate(delegate);
    port->open();
    EXPECT_FALSE(port->isOpen());
    ASSERT_TRUE(waitFor([&] { return delegate->count("error") == 1; }));
    const SerialError error = delegate->errors().front();
    EXPECT_EQ(error.code, EBUSY);
    EXPECT_EQ(error.description, "Device or resource busy");
    EXPECT_EQ(error.path, "/dev/ttyACM0");
    EXPECT_STREQ(SerialError::domain, "NSPOSIXErrorDomain");
    EXPECT_EQ(delegate->count("opened"), 0u);
}

TEST_F(SerialPortIO, SendingEmptyDataReturnsTrueWithoutWriting)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    EXPECT_TRUE(port->sendData(std::string_view()));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd(), 200ms), "");
    EXPECT_TRUE(port->sendData("x"));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "x");
}

TEST_F(SerialPortIO, SendingOnAClosedPortReturnsFalseWithoutAnError)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setDelegate(delegate);
    EXPECT_FALSE(port->sendData("getCID\n"));
    dispatch::RunLoop::main().runFor(50ms);
    EXPECT_EQ(delegate->count("error"), 0u);
}

TEST_F(SerialPortIO, BytesWrittenReachTheDeviceAndBytesFromItReachTheDelegateInOrder)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    EXPECT_TRUE(port->sendData("getCID\n"));
    EXPECT_TRUE(port->sendData("getVersion\n"));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "getCID\ngetVersion\n");

    std::string expected;
    for (int i = 0; i < 50; ++i) {
        const std::string line = "line " + std::to_string(i) + "\n";
        expected += line;
        ASSERT_EQ(::write(device->deviceEnd(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    ASSERT_TRUE(waitFor([&] { return delegate->receivedText().size() >= expected.size(); }));
    EXPECT_EQ(delegate->receivedText(), expected);
    for (const auto& event : delegate->events()) {
        EXPECT_TRUE(event.onMainThread) << event.kind;
        EXPECT_LE(event.data.size(), 1024u);
    }
}

TEST_F(SerialPortIO, LargeBurstArrivesInChunksOfAtMost1024Bytes)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    const std::string burst(3000, 'a');
    ASSERT_EQ(::write(device->deviceEnd(), burst.data(), burst.size()), static_cast<ssize_t>(burst.size()));
    ASSERT_TRUE(waitFor([&] { return delegate->receivedText().size() >= burst.size(); }));
    EXPECT_EQ(delegate->receivedText(), burst);
    EXPECT_GE(delegate->count("data"), 3u);
}

TEST_F(SerialPortIO, PortIsRawWithTheRequestedSpeed)
{
    auto port = openAtSpeed(115200);
    ASSERT_TRUE(port && port->isOpen());
    termios seen{};
    ASSERT_EQ(::tcgetattr(device->deviceEnd(), &seen), 0);
    EXPECT_EQ(seen.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(seen.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_NE(seen.c_cflag & CLOCAL, 0u);
    EXPECT_NE(seen.c_cflag & CREAD, 0u);
    EXPECT_NE(seen.c_cflag & HUPCL, 0u);
    EXPECT_EQ(seen.c_cc[VMIN], 1);
    EXPECT_EQ(seen.c_cc[VTIME], 2);
}

TEST_F(SerialPortIO, CloseRestoresTheSettingsFoundAtOpen)
{
    termios before{};
    ASSERT_EQ(::tcgetattr(device->deviceEnd(), &before), 0);
    auto port = openAtSpeed(57600);
    ASSERT_TRUE(port && port->isOpen());
    ASSERT_TRUE(closeAndWait(port));
    termios after{};
    ASSERT_EQ(::tcgetattr(device->deviceEnd(), &after), 0);
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
    EXPECT_EQ(after.c_lflag, before.c_lflag);
}

TEST_F(SerialPortIO, OutputLinesReachTheDeviceInTheOrderSet)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setDTR(true);
    port->setRTS(true);
    EXPECT_EQ(device->modemLineSets(), 0) << "a closed port only stores the lines";
    port->open();
    ASSERT_TRUE(port->isOpen());
    EXPECT_TRUE(device->lines().dtr);
    EXPECT_TRUE(device->lines().rts);
    port->setDTR(false);
    EXPECT_FALSE(device->lines().dtr);
    EXPECT_TRUE(device->lines().rts);
    const int sets = device->modemLineSets();
    port->setDTR(false); // unchanged: nothing reaches the device
    EXPECT_EQ(device->modemLineSets(), sets);
}

TEST_F(SerialPortIO, InputLineChangesReachThePortOnTheMainQueue)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    std::mutex mutex;
    std::vector<std::pair<SerialPortProperty, bool>> changes;
    port->addPropertyObserver([&](const SerialPort::Ptr&, SerialPortProperty property) {
        if (property == SerialPortProperty::IsOpen) {
            return;
        }
        std::lock_guard lock(mutex);
        changes.emplace_back(property, dispatch::isMainThread());
    });
    device->setInputLines(true, false, true);
    ASSERT_TRUE(waitFor([&] { return port->CTS() && port->DCD(); }));
    EXPECT_FALSE(port->DSR());
    device->setInputLines(false, true, true);
    ASSERT_TRUE(waitFor([&] { return !port->CTS() && port->DSR(); }));
    std::lock_guard lock(mutex);
    ASSERT_EQ(changes.size(), 4u);
    EXPECT_EQ(changes[0].first, SerialPortProperty::CTS);
    EXPECT_EQ(changes[1].first, SerialPortProperty::DCD);
    for (const auto& change : changes) {
        EXPECT_TRUE(change.second);
    }
}

TEST_F(SerialPortIO, DeviceWithoutModemLinesIsReportedOnceThenItsLinesAreLeftAlone)
{
    device->setModemLinesSupported(false);
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    // One ENOTTY for setting DTR/RTS at open, one from the line poll, then quiet.
    ASSERT_TRUE(waitFor([&] { return delegate->count("error") >= 2; }));
    const int gets = device->modemLineGets();
    dispatch::RunLoop::main().runFor(300ms);
    EXPECT_EQ(delegate->count("error"), 2u);
    EXPECT_EQ(device->modemLineGets(), gets);
    for (const auto& error : delegate->errors()) {
        EXPECT_EQ(error.code, ENOTTY);
        EXPECT_EQ(error.description, "Inappropriate ioctl for device");
    }
    EXPECT_TRUE(port->isOpen());
    EXPECT_TRUE(port->sendData("still works\n"));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "still works\n");
}

TEST_F(SerialPortIO, IsOpenTurnsFalseOnlyOnceTheDescriptorIsReallyClosed)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    // Hold the closing thread back at its TIOCNXCL, just before close(2).
    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
    std::atomic<bool> closingHeld{false};
    device->setIoctlHook([&](unsigned long request) {
        if (request != TIOCNXCL) {
            return;
        }
        closingHeld = true;
        std::unique_lock lock(mutex);
        released.wait(lock, [&] { return release; });
    });
    EXPECT_TRUE(port->close());
    ASSERT_TRUE(waitFor([&] { return closingHeld.load(); }));
    EXPECT_TRUE(port->isOpen()) << "close() has returned, the descriptor is not closed yet";
    EXPECT_EQ(delegate->count("closed"), 0u);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    released.notify_all();
    ASSERT_TRUE(waitFor([&] { return delegate->count("closed") == 1; }));
    EXPECT_FALSE(port->isOpen());
    const auto events = delegate->events();
    EXPECT_FALSE(events.back().portOpenDuringCall);
    EXPECT_TRUE(events.back().onMainThread);
    device->setIoctlHook(nullptr);
}

TEST_F(SerialPortIO, ClosedPortCanBeOpenedAgain)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    ASSERT_TRUE(closeAndWait(port));
    port->open();
    ASSERT_TRUE(port->isOpen());
    ASSERT_TRUE(port->sendData("again\n"));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "again\n");
    ASSERT_TRUE(waitFor([&] { return delegate->count("opened") == 2; }));
}

TEST_F(SerialPortIO, CloseDoesNotWaitForADelegateThatIgnoresClosing)
{
    auto port = openPortDeclining(SerialPortDelegateCallback::WasClosed);
    ASSERT_TRUE(port);
    port->close();
    // The main thread does not run its loop here: a waiting close would hang.
    for (int i = 0; i < 500 && port->isOpen(); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(port->isOpen());
    dispatch::RunLoop::main().drain();
    EXPECT_EQ(decliningDelegate->count("closed"), 0u);
}

TEST_F(SerialPortIO, ATtyWithoutTheTestBedsHandlerIsReadAndWrittenStraight)
{
    // Benchmarks plug such a tty so that each read is the program's own and
    // not a round trip to the test bed.
    sim::UsbSerialDeviceInfo info;
    info.ttyName = "ttyACM1";
    info.handleCalls = false;
    const auto plain = plugDevice(info);
    ASSERT_TRUE(plain);
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM1");
    ASSERT_TRUE(port);
    port->setDelegate(delegate);
    port->open();
    ASSERT_TRUE(port->isOpen());
    const std::string text = "line from the board\r\n";
    ASSERT_EQ(::write(plain->deviceEnd(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ASSERT_TRUE(waitFor([&] { return delegate->receivedText() == text; }));
    ASSERT_TRUE(port->sendData("to the board\n"));
    EXPECT_EQ(readDeviceEnd(plain->deviceEnd()), "to the board\n");
    // Nothing of it reached the test bed: no exclusive-use request and no
    // modem-line call were seen there, which the handled tty does see.
    EXPECT_EQ(plain->exclusiveRequests(), 0);
    EXPECT_EQ(plain->modemLineGets(), 0);
    // A plain pseudo-terminal has no modem lines: said once for setting them
    // at open and once by the line poll, which then stops.
    ASSERT_TRUE(waitFor([&] { return delegate->count("error") >= 2; }));
    dispatch::RunLoop::main().runFor(100ms);
    EXPECT_EQ(delegate->count("error"), 2u);
    for (const auto& error : delegate->errors()) {
        EXPECT_EQ(error.code, ENOTTY);
    }
    auto handled = openPort(std::make_shared<RecordingSerialDelegate>());
    ASSERT_TRUE(handled);
    EXPECT_EQ(device->exclusiveRequests(), 1);
    ASSERT_TRUE(closeAndWait(port));
}
