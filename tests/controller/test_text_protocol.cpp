// The waiting procedures of the Controller text protocol against a simulated Controller.
#include "protocol_test_bed.h"

#include "log/logger.h"

#include <algorithm>
#include <sstream>
#include <sys/ioctl.h>

using namespace quendral;
using namespace quendral::test;

using TextProtocol = ProtocolTestBed;
using OptionalText = std::optional<std::string>;

namespace {

const std::string kCID = "QUENDRAL0123456789ABCDEF01234567";
const std::string kBooting = "Waiting for device to boot..";

bool startsWith(const std::vector<std::string>& texts, const std::vector<std::string>& prefix)
{
    return texts.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), texts.begin());
}

bool endsWith(const std::vector<std::string>& texts, const std::vector<std::string>& suffix)
{
    return texts.size() >= suffix.size() && std::equal(suffix.rbegin(), suffix.rend(), texts.rbegin());
}

} // namespace

TEST_F(TextProtocol, GetCIDIdentifiesAControllerThatAnswersOnlyFromItsThirdSecond)
{
    std::ostringstream console;
    Logger::setConsole(&console);
    simulator->setCID(kCID);
    simulator->setVersion("4.2.0");
    simulator->setBootDelay(Clock::Seconds(2.0));
    simulator->start();

    const OptionalText cid = runInBackground<OptionalText>([&] { return controller->getCID(); });
    Logger::setConsole(&std::cout);

    EXPECT_EQ(cid, kCID);
    EXPECT_EQ(controller->currentVersion(), "4.2.0");
    EXPECT_TRUE(view.alerts().empty());
    // Asked on every pass; the first two went unanswered.
    EXPECT_GE(simulator->countOf("getCID"), 3u);
    // Both commands on every pass (the last ones may still be on their way).
    EXPECT_TRUE(simulator->waitForLine("getVersion", 5000ms, simulator->countOf("getCID")));
    const auto texts = view.statusTexts();
    EXPECT_TRUE(startsWith(texts, countDown(kBooting, 20, 18)));
    EXPECT_TRUE(endsWith(texts, {"Please wait...", ""}));
    EXPECT_LT(texts.size(), 22u) << "it stopped waiting once identified";
    EXPECT_NE(console.str().find("] Opening port.."), std::string::npos);
    EXPECT_TRUE(waitFor([&] { return !controller->serial()->isOpen(); })) << "closed again at the end";
}

TEST_F(TextProtocol, RequestCIDOpensThePortAt115200WithDTRAndRTSOnThenAsks)
{
    simulator->start();
    std::mutex mutex;
    std::vector<unsigned long> requests;
    device->setIoctlHook([&](unsigned long request) {
        std::lock_guard lock(mutex);
        requests.push_back(request);
    });
    ASSERT_TRUE(controller->requestCID("/dev/ttyACM0"));
    EXPECT_EQ(device->speed(), 115200u);
    EXPECT_TRUE(device->lines().dtr);
    EXPECT_TRUE(device->lines().rts);
    EXPECT_EQ(controller->serial()->delegate(), controller->link().shared_from_this()); // the reply parser
    ASSERT_TRUE(simulator->waitForLine("getVersion", 5000ms));
    EXPECT_EQ(simulator->receivedLines(), (std::vector<std::string>{"getCID", "getVersion"}));
    device->setIoctlHook(nullptr);
    // Speed and lines were set on the closed port, so they reach the device
    // only with the open: both lines in one TIOCMSET after the exclusive open.
    std::lock_guard lock(mutex);
    const auto exclusive = std::find(requests.begin(), requests.end(), static_cast<unsigned long>(TIOCEXCL));
    const auto lines = std::find(requests.begin(), requests.end(), static_cast<unsigned long>(TIOCMSET));
    ASSERT_NE(exclusive, requests.end());
    ASSERT_NE(lines, requests.end());
    EXPECT_LT(exclusive, lines);
    EXPECT_EQ(std::count(requests.begin(), requests.end(), static_cast<unsigned long>(TIOCMSET)), 1);
}

TEST_F(TextProtocol, GetCIDShowsTheMessageOfAControllerThatSendsOneAndReturnsNone)
{
    simulator->setMessage("This Controller is registered to another account");
    simulator->start();

    const OptionalText cid = runInBackground<OptionalText>([&] { return controller->getCID(); });

    EXPECT_EQ(cid, std::nullopt);
    EXPECT_EQ(view.alerts(), (std::vector<std::string>{"This Controller is registered to another account"}));
    EXPECT_EQ(controller->deviceMessage(), "This Controller is registered to another account");
    EXPECT_TRUE(endsWith(view.statusTexts(), {"Please wait...", ""}));
    EXPECT_LT(view.statusTexts().size(), 22u);
}

TEST_F(TextProtocol, GetCIDGivesUpOnASilentControllerWithTheStatusTextsInOrder)
{
    simulator->setSilent(true);
    simulator->start();

    const OptionalText cid = runInBackground<OptionalText>([&] { return controller->getCID(); });

    EXPECT_EQ(cid, std::nullopt);
    auto expected = countDown(kBooting, 20, 1);
    expected.push_back("Please wait...");
    expected.push_back("");
    EXPECT_EQ(view.statusTexts(), expected);
    EXPECT_TRUE(view.alerts().empty());
    EXPECT_TRUE(simulator->waitForLine("getCID", 5000ms, 20));
    EXPECT_EQ(simulator->countOf("getCID"), 20u);
    EXPECT_NEAR(clock.elapsedSeconds(), 21.0, 0.01) << "20 one-second passes and the closing second";
}

namespace {

// The fast clock, with one sleep that overruns by `extra`.
class ClockWithASlowSleep final : public Clock {
public:
    ClockWithASlowSleep(FastForwardClock& base, int slowSleep, Seconds extra)
        : _base(base), _slowSleep(slowSleep), _extra(extra)
    {
    }
    [[nodiscard]] TimePoint now() const override { return _base.now(); }
    void sleepFor(Seconds duration) override
    {
        _base.sleepFor(duration);
        if (++_sleeps == _slowSleep) {
            _base.advance(_extra);
        }
    }

private:
    FastForwardClock& _base;
    const int _slowSleep;
    const Seconds _extra;
    std::atomic<int> _sleeps{0};
};

} // namespace

TEST_F(TextProtocol, GetCIDCountFollowsTheClockAndSkipsNumbersAfterASlowPass)
{
    simulator->setSilent(true);
    simulator->start();
    ClockWithASlowSleep slowClock(clock, 2, Clock::Seconds(2.5));
    auto slowController = MainViewController::create(view, nullptr, slowClock);

    const OptionalText cid = runInBackground<OptionalText>([&] { return slowController->getCID(); });

    EXPECT_EQ(cid, std::nullopt);
    // After the second pass 4.5 s have passed: 20 - 4 = 16.
    EXPECT_TRUE(startsWith(view.statusTexts(),
                           {kBooting + " (20)", kBooting + " (19)", kBooting + " (16)", kBooting + " (15)"}));
    EXPECT_EQ(view.statusTexts().size(), 18u + 2u) << "numbers 18 and 17 were skipped";
    if (auto port = slowController->serial()) {
        waitFor([&] { return !port->isOpen(); });
    }
}

TEST_F(TextProtocol, GetCIDWithoutASelectedPortTriesEverySecondAndGivesUp)
{
    selectPort(std::nullopt);
    simulator->start();
    const OptionalText cid = runInBackground<OptionalText>([&] { return controller->getCID(); });
    EXPECT_EQ(cid, std::nullopt);
    EXPECT_EQ(view.statusTexts().size(), 22u);
    EXPECT_EQ(simulator->countOf("getCID"), 0u);
    EXPECT_FALSE(controller->requestCID(""));
}

TEST_F(TextProtocol, GetIPReturnsTheAddressAnnouncedInConfigurationMode)
{
    simulator->setAddress("192.168.10.77");
    simulator->setTrailer("\n");
    simulator->start();

    const OptionalText address = runInBackground<OptionalText>([&] { return controller->getIP(); });

    EXPECT_EQ(address, "192.168.10.77");
    EXPECT_EQ(simulator->countOf("config"), 1u);
    EXPECT_GE(simulator->openCount(), 2) << "closed and opened again after config";
    const auto texts = view.statusTexts();
    // The first text shows the initial 20; from then on the count follows the
    // clock, which includes the 2 s pause.
    EXPECT_TRUE(startsWith(texts, {"Waiting for device to enter configuration mode.. (20)",
                                   "Waiting for device to enter configuration mode.. (17)"}));
    EXPECT_TRUE(endsWith(texts, {"Please wait...", ""}));
}

TEST_F(TextProtocol, GetIPAndGetIPConfigWithSkipWaitAlreadySetSendTheirCommandThenSkipTheLoop)
{
    simulator->setTrailer("\n");
    simulator->start();
    controller->setSkipWait(true);

    const OptionalText address = runInBackground<OptionalText>([&] { return controller->getIP(); });
    EXPECT_EQ(address, std::nullopt);
    EXPECT_TRUE(simulator->waitForLine("config", 5000ms));
    EXPECT_EQ(view.statusTexts(), (std::vector<std::string>{"Please wait...", ""}));
    ASSERT_TRUE(waitFor([&] { return !controller->serial()->isOpen(); }));

    const auto dump = runInBackground<std::vector<std::string>>([&] { return controller->getIPConfig(); });
    EXPECT_TRUE(dump.empty());
    EXPECT_TRUE(simulator->waitForLine("dumpIP", 5000ms));
    EXPECT_EQ(view.statusTexts(), (std::vector<std::string>{"Please wait...", "", "Please wait...", ""}));
    EXPECT_TRUE(controller->skipWait()) << "only getCID clears it";
}

TEST_F(TextProtocol, GetIPConfigReturnsTheDumpedLines)
{
    simulator->setTrailer("\n");
    simulator->start();
    const auto dump = runInBackground<std::vector<std::string>>([&] { return controller->getIPConfig(); });
    EXPECT_EQ(dump, (std::vector<std::string>{"ip;192.168.10.50", "subnet;255.255.255.0", "gateway;192.168.10.1",
                                              "dns;192.168.10.1", "dev;1;Label;192.168.10.60;1"}));
    EXPECT_EQ(simulator->countOf("dumpIP"), 1u);
    const auto texts = view.statusTexts();
    EXPECT_TRUE(startsWith(texts, {"Waiting for controller to send IP configuration.. (20)"}));
    EXPECT_LT(texts.size(), 22u);
}

TEST_F(TextProtocol, GetIPConfigReturnsADumpCutOffByTheTimeOutAsFarAsItCame)
{
    // Without a trailer the "end_dump" line is never completed.
    simulator->start();
    const auto dump = runInBackground<std::vector<std::string>>([&] { return controller->getIPConfig(); });
    EXPECT_EQ(dump.size(), 5u);
    EXPECT_TRUE(controller->dumpingIP());
    EXPECT_EQ(view.statusTexts().size(), 22u);
}

TEST_F(TextProtocol, GetIPConfigOnAPortAlreadyOpenOnTheSelectedPathReturnsEmptyWithoutAsking)
{
    simulator->start();
    ASSERT_TRUE(controller->requestCID("/dev/ttyACM0"));
    ASSERT_TRUE(simulator->waitForLine("getVersion", 5000ms));

    const auto dump = runInBackground<std::vector<std::string>>([&] { return controller->getIPConfig(); });

    EXPECT_TRUE(dump.empty());
    dispatch::RunLoop::main().runFor(100ms);
    EXPECT_EQ(simulator->countOf("dumpIP"), 0u);
    EXPECT_TRUE(view.statusTexts().empty());
    EXPECT_TRUE(controller->serial()->isOpen()) << "left as it was";
}

TEST_F(TextProtocol, ToggleWebconfigReturnsTheAddressThenOff)
{
    simulator->setAddress("192.168.10.99");
    simulator->setTrailer("\n");
    simulator->start();

    const OptionalText on = runInBackground<OptionalText>([&] { return controller->toggleWebconfig(); });
    EXPECT_EQ(on, "192.168.10.99");
    EXPECT_TRUE(simulator->webserverRunning());
    EXPECT_EQ(view.statusTexts(), (std::vector<std::string>{"Waiting for device .. (20)"}));
    ASSERT_TRUE(waitFor([&] { return !controller->serial()->isOpen(); }));

    const OptionalText off = runInBackground<OptionalText>([&] { return controller->toggleWebconfig(); });
    EXPECT_EQ(off, "off");
    EXPECT_FALSE(simulator->webserverRunning());
}

TEST_F(TextProtocol, ToggleWebconfigOnASilentControllerReturnsNoneAfterThreeSeconds)
{
    simulator->setSilent(true);
    simulator->start();
    const OptionalText result = runInBackground<OptionalText>([&] { return controller->toggleWebconfig(); });
    EXPECT_EQ(result, std::nullopt);
    EXPECT_NEAR(clock.elapsedSeconds(), 3.0, 0.01);
    // The simulator may read the line a moment after the procedure has returned.
    EXPECT_TRUE(simulator->waitForLine("webconfig", 5000ms));
    EXPECT_EQ(simulator->countOf("webconfig"), 1u);
}

TEST_F(TextProtocol, ChunkedGarbledRepliesStillIdentifyTheController)
{
    simulator->setCID(kCID);
    simulator->setChunking(7, 1ms);
    simulator->start();
    simulator->sendRaw("\x80\xff garbage without end");
    const OptionalText cid = runInBackground<OptionalText>([&] { return controller->getCID(); });
    EXPECT_EQ(cid, kCID);
}
