// SerialPort: requests, their queue, responses and time-outs.
//
// One request is pending at a time; the others wait in requestsQueue, oldest
// first. A request completes when its response arrives, when its time limit
// passes, or (without a response descriptor) as soon as it was written; then
// the next one is sent. All of it runs on requestHandlingQueue.
#include "serial/serial_port_packets_requests.h"

#include <algorithm>
#include <chrono>

namespace quendral {

bool SerialPort::sendRequest(const std::shared_ptr<SerialRequest>& request)
{
    if (!request || _requestHandlingQueue->isCurrent()) {
        return false;
    }
    bool sent = false;
    _requestHandlingQueue->sync([&] { sent = reallySendRequest(request); });
    return sent;
}

bool SerialPort::reallySendRequest(const std::shared_ptr<SerialRequest>& request)
{
    auto& state = *_packetsAndRequests;
    {
        std::unique_lock lock(state.mutex);
        if (state.pendingRequest) {
            state.requestsQueue.push_back(request);
            lock.unlock();
            notifyPropertyObservers(SerialPortProperty::QueuedRequests);
            return true;
        }
        state.pendingRequest = request;
    }
    const auto& descriptor = request->responseDescriptor();
    if (descriptor) {
        state.requestResponseReceiveBuffer = std::make_unique<SerialPacketReceiver>(*descriptor);
    } else {
        state.requestResponseReceiveBuffer.reset();
    }

    if (request->timeoutInterval() > 0) {
        const auto interval =
            std::chrono::duration_cast<dispatch::Duration>(std::chrono::duration<double>(request->timeoutInterval()));
        std::weak_ptr<SerialPort> weakSelf = weak_from_this();
        auto timer = dispatch::Timer::create(_requestHandlingQueue, interval, interval, interval / 10, [weakSelf] {
            if (const Ptr self = weakSelf.lock()) {
                self->pendingRequestDidTimeout();
            }
        });
        if (state.pendingRequestTimeoutTimer) {
            state.pendingRequestTimeoutTimer->cancel();
        }
        state.pendingRequestTimeoutTimer = timer;
        timer->resume();
    }

    const bool sent = sendData(request->dataToSend());
    if (sent) {
        // Without a response descriptor the request is complete right now.
        checkResponseToPendingRequestAndContinueIfValidWithReceivedByte(std::nullopt);
    }
    // A failed send leaves the request pending: its time limit (if any) ends it.
    return sent;
}

void SerialPort::sendNextRequest()
{
    auto& state = *_packetsAndRequests;
    SerialRequest::Ptr next;
    {
        std::lock_guard lock(state.mutex);
        state.pendingRequest.reset();
        if (!state.requestsQueue.empty()) {
            next = std::move(state.requestsQueue.front());
            state.requestsQueue.pop_front();
        }
    }
    if (next) {
        notifyPropertyObservers(SerialPortProperty::QueuedRequests);
        reallySendRequest(next);
    }
}

void SerialPort::checkResponseToPendingRequestAndContinueIfValidWithReceivedByte(std::optional<std::uint8_t> byte)
{
    auto& state = *_packetsAndRequests;
    SerialRequest::Ptr request;
    {
        std::lock_guard lock(state.mutex);
        request = state.pendingRequest;
    }
    if (!request) {
        return;
    }
    if (!byte) {
        if (!request->responseDescriptor()) {
            sendNextRequest();
        }
        return;
    }
    // Without a descriptor nothing is kept and nothing is a response.
    if (!state.requestResponseReceiveBuffer) {
        return;
    }
    auto& receiver = *state.requestResponseReceiveBuffer;
    const std::size_t length = receiver.receiveByte(*byte);
    if (length == 0) {
        return;
    }
    if (state.pendingRequestTimeoutTimer) {
        state.pendingRequestTimeoutTimer->cancel();
        state.pendingRequestTimeoutTimer.reset();
    }
    auto target = delegate();
    if (target && target->respondsTo(SerialPortDelegateCallback::DidReceiveResponse)) {
        const auto tail = receiver.buffer.data().last(length);
        SerialData response(tail.begin(), tail.end());
        dispatch::mainQueue()->async([self = shared_from_this(), target, response = std::move(response), request] {
            target->serialPortDidReceiveResponse(self, response, request);
        });
    }
    sendNextRequest();
}

void SerialPort::pendingRequestDidTimeout()
{
    auto& state = *_packetsAndRequests;
    if (state.pendingRequestTimeoutTimer) {
        state.pendingRequestTimeoutTimer->cancel(); // it repeats: this makes it fire once
        state.pendingRequestTimeoutTimer.reset();
    }
    SerialRequest::Ptr request;
    {
        std::lock_guard lock(state.mutex);
        request = state.pendingRequest;
    }
    auto target = delegate();
    if (!target || !target->respondsTo(SerialPortDelegateCallback::RequestDidTimeout)) {
        sendNextRequest();
        return;
    }
    // The next request goes out only once the delegate has heard of this one.
    dispatch::mainQueue()->async([self = shared_from_this(), target, request] {
        target->serialPortRequestDidTimeout(self, request);
        self->_requestHandlingQueue->async([self] { self->sendNextRequest(); });
    });
}

void SerialPort::cancelQueuedRequest(const std::shared_ptr<SerialRequest>& request)
{
    if (!request) {
        return;
    }
    _requestHandlingQueue->async([self = shared_from_this(), request] {
        auto& state = *self->_packetsAndRequests;
        bool removed = false;
        {
            std::lock_guard lock(state.mutex);
            if (state.pendingRequest == request) {
                return; // a request in flight runs to its end
            }
            const auto it = std::find(state.requestsQueue.begin(), state.requestsQueue.end(), request);
            if (it != state.requestsQueue.end()) {
                state.requestsQueue.erase(it);
                removed = true;
            }
        }
        if (removed) {
            self->notifyPropertyObservers(SerialPortProperty::QueuedRequests);
        }
    });
}

void SerialPort::cancelAllQueuedRequests()
{
    _requestHandlingQueue->async([self = shared_from_this()] {
        bool hadQueuedRequests = false;
        {
            auto& state = *self->_packetsAndRequests;
            std::lock_guard lock(state.mutex);
            hadQueuedRequests = !state.requestsQueue.empty();
            state.requestsQueue.clear();
        }
        if (hadQueuedRequests) {
            self->notifyPropertyObservers(SerialPortProperty::QueuedRequests);
        }
    });
}

std::vector<std::shared_ptr<SerialRequest>> SerialPort::queuedRequests() const
{
    const auto& state = *_packetsAndRequests;
    std::lock_guard lock(state.mutex);
    return {state.requestsQueue.begin(), state.requestsQueue.end()};
}

std::shared_ptr<SerialRequest> SerialPort::pendingRequest() const
{
    const auto& state = *_packetsAndRequests;
    std::lock_guard lock(state.mutex);
    return state.pendingRequest;
}

} // namespace quendral
