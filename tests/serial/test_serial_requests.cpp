// Requests on a port: written to the device end of a umockdev tty, answered
// (or not) from there, one at a time.
#include "serial/serial_packet_descriptor.h"
#include "serial/serial_request.h"
#include "serial_test_bed.h"

#include <thread>

using namespace quendral;
using namespace quendral::test;

namespace {

SerialData bytes(std::string_view text)
{
    return SerialData(text.begin(), text.end());
}

SerialPacketDescriptor::Ptr lineResponse()
{
    return SerialPacketDescriptor::initWithPrefixString(std::string("OK"), std::string("\n"), 64, {});
}

class SerialRequests : public SerialTestBed {
protected:
    void writeDevice(std::string_view text)
    {
        ASSERT_EQ(::write(device->deviceEnd(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // Waits for the request queue to have run everything posted to it so far.
    static void flushRequestQueue(const SerialPort::Ptr& port)
    {
        port->requestHandlingQueue()->sync([] {});
    }

    std::vector<SerialRequest::Ptr> requestsOf(const std::string& kind) const
    {
        std::vector<SerialRequest::Ptr> requests;
        for (const auto& event : delegate->eventsOfKind(kind)) {
            requests.push_back(event.request);
        }
        return requests;
    }
};

} // namespace

TEST_F(SerialRequests, RequestWithoutResponseDescriptorCompletesRightAfterItsDataIsWritten)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto first = SerialRequest::requestWithDataToSend(bytes("first\n"), {}, 0, nullptr);
    EXPECT_TRUE(port->sendRequest(first));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "first\n");
    EXPECT_EQ(port->pendingRequest(), nullptr);

    // Behind a request that waits for its response, a request without
    // descriptor completes at once and lets the one after it go out.
    auto waiting = SerialRequest::requestWithDataToSend(bytes("ask\n"), {}, 0, lineResponse());
    auto silent = SerialRequest::requestWithDataToSend(bytes("silent\n"), {}, 0, nullptr);
    auto last = SerialRequest::requestWithDataToSend(bytes("last\n"), {}, 0, lineResponse());
    EXPECT_TRUE(port->sendRequest(waiting));
    EXPECT_TRUE(port->sendRequest(silent));
    EXPECT_TRUE(port->sendRequest(last));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "ask\n");
    EXPECT_EQ(port->queuedRequests(), (std::vector<SerialRequest::Ptr>{silent, last}));

    writeDevice("OK\n");
    EXPECT_EQ(readDeviceEnd(device->deviceEnd(), 500ms), "silent\nlast\n");
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 1; }));
    EXPECT_EQ(port->pendingRequest(), last);
    EXPECT_TRUE(port->queuedRequests().empty());
    dispatch::RunLoop::main().runFor(100ms);
    EXPECT_EQ(requestsOf("response"), (std::vector<SerialRequest::Ptr>{waiting})); // none for "silent"
    EXPECT_EQ(delegate->count("timeout"), 0u);
}

TEST_F(SerialRequests, BackToBackRequestsWriteTheSecondOnlyAfterTheFirstGotItsResponse)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto first = SerialRequest::requestWithDataToSend(bytes("getCID\n"), std::string("cid"), 5, lineResponse());
    auto second =
        SerialRequest::requestWithDataToSend(bytes("getVersion\n"), std::string("version"), 5, lineResponse());
    EXPECT_TRUE(port->sendRequest(first));
    EXPECT_TRUE(port->sendRequest(second));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd(), 300ms), "getCID\n"); // and nothing more for a while

    writeDevice("OK 0123\n");
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "getVersion\n");
    writeDevice("OK 1.2\n");
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 2; }));
    const auto responses = delegate->eventsOfKind("response");
    EXPECT_EQ(responses[0].request, first);
    EXPECT_EQ(responses[0].data, bytes("OK 0123\n"));
    EXPECT_EQ(responses[1].request, second);
    EXPECT_EQ(responses[1].data, bytes("OK 1.2\n"));
    EXPECT_TRUE(responses[0].onMainThread);
    flushRequestQueue(port); // the callback is posted before the queue moves on
    EXPECT_EQ(port->pendingRequest(), nullptr);
}

TEST_F(SerialRequests, BackToBackRequestsWriteTheSecondOnlyAfterTheFirstTimedOut)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto first = SerialRequest::requestWithDataToSend(bytes("one\n"), {}, 0.3, lineResponse());
    auto second = SerialRequest::requestWithDataToSend(bytes("two\n"), {}, 0, lineResponse());
    const auto sentAt = std::chrono::steady_clock::now();
    EXPECT_TRUE(port->sendRequest(first));
    EXPECT_TRUE(port->sendRequest(second));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd(), 150ms), "one\n");

    // The second goes out only after the delegate (on the main queue) heard of the time-out.
    std::string written;
    ASSERT_TRUE(waitFor([&] {
        written += readDeviceEnd(device->deviceEnd(), 10ms);
        return !written.empty();
    }));
    const auto writtenAt = std::chrono::steady_clock::now();
    EXPECT_EQ(written, "two\n");
    ASSERT_EQ(delegate->count("timeout"), 1u);
    const auto timeout = delegate->eventsOfKind("timeout").front();
    EXPECT_EQ(timeout.request, first);
    EXPECT_GE(timeout.at - sentAt, 250ms);
    EXPECT_LE(timeout.at, writtenAt);
    EXPECT_EQ(port->pendingRequest(), second);
}

TEST_F(SerialRequests, OneSecondTimeOutArrivesOnceAboutOneSecondAfterSending)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto request = SerialRequest::requestWithDataToSend(bytes("hello?\n"), {}, 1.0, lineResponse());
    const auto sentAt = std::chrono::steady_clock::now();
    ASSERT_TRUE(port->sendRequest(request));
    ASSERT_TRUE(waitFor([&] { return delegate->count("timeout") >= 1; }, 5000ms));
    const auto elapsed = delegate->eventsOfKind("timeout").front().at - sentAt;
    // One tenth of leeway is allowed early; a loaded machine may be late.
    EXPECT_GE(elapsed, 900ms);
    EXPECT_LE(elapsed, 3000ms);
    // The timer repeats by construction; the time-out cancels it, so no second one.
    dispatch::RunLoop::main().runFor(2500ms);
    EXPECT_EQ(delegate->count("timeout"), 1u);
    EXPECT_EQ(requestsOf("timeout"), (std::vector<SerialRequest::Ptr>{request}));
    flushRequestQueue(port);
    EXPECT_EQ(port->pendingRequest(), nullptr);
}

TEST_F(SerialRequests, TimeOutWithoutADelegateThatWantsItSendsTheNextAtOnce)
{
    auto port = openPortDeclining(SerialPortDelegateCallback::RequestDidTimeout);
    ASSERT_TRUE(port);
    auto first = SerialRequest::requestWithDataToSend(bytes("one\n"), {}, 0.2, lineResponse());
    auto second = SerialRequest::requestWithDataToSend(bytes("two\n"), {}, 0, lineResponse());
    ASSERT_TRUE(port->sendRequest(first));
    ASSERT_TRUE(port->sendRequest(second));
    // The main queue is not run here: the next request must not wait for it.
    std::string written = readDeviceEnd(device->deviceEnd(), 1500ms);
    EXPECT_EQ(written, "one\ntwo\n");
    EXPECT_EQ(port->pendingRequest(), second);
}

TEST_F(SerialRequests, CancellingThePendingRequestHasNoEffect)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto request = SerialRequest::requestWithDataToSend(bytes("ask\n"), {}, 0, lineResponse());
    ASSERT_TRUE(port->sendRequest(request));
    port->cancelQueuedRequest(request);
    flushRequestQueue(port);
    EXPECT_EQ(port->pendingRequest(), request);
    writeDevice("OK\n");
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 1; }));
    EXPECT_EQ(requestsOf("response"), (std::vector<SerialRequest::Ptr>{request}));
}

TEST_F(SerialRequests, CancellingAQueuedRequestRemovesItBeforeItIsSent)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto first = SerialRequest::requestWithDataToSend(bytes("first\n"), {}, 0, lineResponse());
    auto cancelled = SerialRequest::requestWithDataToSend(bytes("cancelled\n"), {}, 0, lineResponse());
    auto third = SerialRequest::requestWithDataToSend(bytes("third\n"), {}, 0, lineResponse());
    ASSERT_TRUE(port->sendRequest(first));
    ASSERT_TRUE(port->sendRequest(cancelled));
    ASSERT_TRUE(port->sendRequest(third));
    port->cancelQueuedRequest(cancelled);
    flushRequestQueue(port);
    EXPECT_EQ(port->queuedRequests(), (std::vector<SerialRequest::Ptr>{third}));

    writeDevice("OK\n");
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "first\nthird\n");
    EXPECT_EQ(port->pendingRequest(), third);
}

TEST_F(SerialRequests, CancelAllQueuedRequestsKeepsThePendingOne)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    std::atomic<int> queueNotifications{0};
    const auto observer = countNotifications(port, SerialPortProperty::QueuedRequests, queueNotifications);
    auto pending = SerialRequest::requestWithDataToSend(bytes("pending\n"), {}, 0, lineResponse());
    ASSERT_TRUE(port->sendRequest(pending));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(port->sendRequest(SerialRequest::requestWithDataToSend(bytes("queued\n"), {}, 0, lineResponse())));
    }
    EXPECT_EQ(port->queuedRequests().size(), 3u);
    port->cancelAllQueuedRequests();
    flushRequestQueue(port);
    EXPECT_TRUE(port->queuedRequests().empty());
    EXPECT_EQ(port->pendingRequest(), pending);
    EXPECT_EQ(queueNotifications.load(), 4); // three appends, one reset

    writeDevice("OK\n");
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 1; }));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "pending\n");
    flushRequestQueue(port);
    EXPECT_EQ(port->pendingRequest(), nullptr);
    port->removePropertyObserver(observer);
}

TEST_F(SerialRequests, ResponseSplitOverSeveralChunksIsRecognisedWhenItsLastByteArrives)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto request = SerialRequest::requestWithDataToSend(
        bytes("dumpIP\n"), {}, 0,
        SerialPacketDescriptor::initWithPrefixString(std::string("IP:"), std::string(";\r\n"), 64, {}));
    ASSERT_TRUE(port->sendRequest(request));
    EXPECT_EQ(readDeviceEnd(device->deviceEnd()), "dumpIP\n");
    for (const std::string_view chunk : {"I", "P:192.16", "8.0.10;", "\r"}) {
        writeDevice(chunk);
        ASSERT_TRUE(waitFor([&] { return delegate->receivedText().ends_with(chunk); }));
        flushRequestQueue(port);
        dispatch::RunLoop::main().runFor(20ms);
        EXPECT_EQ(delegate->count("response"), 0u) << "after " << chunk;
    }
    writeDevice("\n");
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 1; }));
    EXPECT_GE(delegate->count("data"), 5u);
    EXPECT_EQ(delegate->eventsOfKind("response").front().data, bytes("IP:192.168.0.10;\r\n"));
}

TEST_F(SerialRequests, ResponseLongerThanTheMaximumIsNeverRecognised)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    auto request = SerialRequest::requestWithDataToSend(
        bytes("x\n"), {}, 0, SerialPacketDescriptor::initWithPrefixString(std::string("["), std::string("]"), 4, {}));
    ASSERT_TRUE(port->sendRequest(request));
    writeDevice("[abc]");
    writeDevice("[ab]");
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 1; }));
    EXPECT_EQ(delegate->eventsOfKind("response").front().data, bytes("[ab]"));
}

TEST_F(SerialRequests, ClosingResetsTheRequestsWhenTheDelegateHearsOfTheClose)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    ASSERT_TRUE(port->sendRequest(SerialRequest::requestWithDataToSend(bytes("a\n"), {}, 0, lineResponse())));
    ASSERT_TRUE(port->sendRequest(SerialRequest::requestWithDataToSend(bytes("b\n"), {}, 0, lineResponse())));
    EXPECT_EQ(port->queuedRequests().size(), 1u);
    ASSERT_TRUE(closeAndWait(port));
    // The reset is posted once the delegate has run serialPortWasClosed.
    EXPECT_TRUE(waitFor([&] { return port->pendingRequest() == nullptr && port->queuedRequests().empty(); }));
    EXPECT_EQ(delegate->count("closed"), 1u);
}

TEST_F(SerialRequests, ClosingKeepsTheRequestsWhenTheDelegateDoesNotHearOfTheClose)
{
    auto port = openPortDeclining(SerialPortDelegateCallback::WasClosed);
    ASSERT_TRUE(port);
    auto pending = SerialRequest::requestWithDataToSend(bytes("a\n"), {}, 0, lineResponse());
    auto queued = SerialRequest::requestWithDataToSend(bytes("b\n"), {}, 0, lineResponse());
    ASSERT_TRUE(port->sendRequest(pending));
    ASSERT_TRUE(port->sendRequest(queued));
    ASSERT_TRUE(closeAndWait(port));
    dispatch::RunLoop::main().runFor(200ms);
    flushRequestQueue(port);
    EXPECT_EQ(port->pendingRequest(), pending);
    EXPECT_EQ(port->queuedRequests(), (std::vector<SerialRequest::Ptr>{queued}));
}

TEST_F(SerialRequests, SendingOnAClosedPortFailsAndLeavesTheRequestPending)
{
    auto port = SerialPort::serialPortWithPath("/dev/ttyACM0");
    ASSERT_TRUE(port);
    port->setDelegate(delegate);
    auto request = SerialRequest::requestWithDataToSend(bytes("a\n"), {}, 0, lineResponse());
    EXPECT_FALSE(port->sendRequest(request));
    EXPECT_EQ(port->pendingRequest(), request);
    // The next one waits behind it (and says so).
    EXPECT_TRUE(port->sendRequest(SerialRequest::requestWithDataToSend(bytes("b\n"), {}, 0, lineResponse())));
    EXPECT_EQ(port->queuedRequests().size(), 1u);
}

TEST_F(SerialRequests, DeprecatedEvaluatorRequestSeesEveryByteSinceItWasSent)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    auto request = SerialRequest::requestWithDataToSendResponseEvaluator(
        bytes("status\n"), {}, 0, [](std::span<const std::uint8_t> data) {
            return data.size() >= 6 && std::string_view(reinterpret_cast<const char*>(data.data()), 6) == "READY:";
        });
#pragma GCC diagnostic pop
    EXPECT_EQ(request->responseDescriptor()->maximumPacketLength(), 9223372036854775807ULL);
    ASSERT_TRUE(port->sendRequest(request));
    writeDevice("junk READY:1");
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 1; }));
    // The shortest tail that passes the test.
    EXPECT_EQ(delegate->eventsOfKind("response").front().data, bytes("READY:"));
}

TEST_F(SerialRequests, SendRequestFromTheRequestHandlingQueueIsRefused)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    bool result = true;
    port->requestHandlingQueue()->sync(
        [&] { result = port->sendRequest(SerialRequest::requestWithDataToSend(bytes("a\n"), {}, 0, nullptr)); });
    EXPECT_FALSE(result);
    EXPECT_EQ(readDeviceEnd(device->deviceEnd(), 100ms), "");
}

TEST_F(SerialRequests, ARequestSentDuringAFloodGetsItsResponse)
{
    // Chunks that nothing waits for skip the request queue; once a request is
    // out, the chunks behind it must reach its response check again.
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    const auto flood = [&](int lines) {
        for (int i = 0; i < lines; ++i) {
            writeDevice(std::to_string(i) + " filler filler filler filler\r\n");
        }
    };
    flood(2000);
    auto request = SerialRequest::requestWithDataToSend(bytes("getCID\n"), std::string("cid"), 5, lineResponse());
    EXPECT_TRUE(port->sendRequest(request));
    flood(1000);
    writeDevice("OK 0123\n");
    flood(1000);
    ASSERT_TRUE(waitFor([&] { return delegate->count("response") == 1; }));
    const auto responses = delegate->eventsOfKind("response");
    EXPECT_EQ(responses[0].request, request);
    EXPECT_EQ(responses[0].data, bytes("OK 0123\n"));
    flushRequestQueue(port);
    EXPECT_EQ(port->pendingRequest(), nullptr);
}
