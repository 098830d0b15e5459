// SerialPort: listening for packets and finding them in the received bytes.
#include "serial/serial_port_packets_requests.h"

#include <algorithm>

namespace quendral {

std::shared_ptr<SerialPort::PacketsAndRequests> SerialPort::makePacketsAndRequests()
{
    return std::make_shared<PacketsAndRequests>();
}

void SerialPort::startListeningForPacketsMatchingDescriptor(const std::shared_ptr<SerialPacketDescriptor>& descriptor)
{
    if (!descriptor || _requestHandlingQueue->isCurrent()) {
        return;
    }
    bool added = false;
    _requestHandlingQueue->sync([&] {
        auto& state = *_packetsAndRequests;
        std::lock_guard lock(state.mutex);
        const bool listening =
            std::any_of(state.packetDescriptorsAndBuffers.begin(), state.packetDescriptorsAndBuffers.end(),
                        [&](const auto& entry) { return entry->descriptor->isEqual(*descriptor); });
        if (!listening) {
            state.packetDescriptorsAndBuffers.push_back(std::make_shared<PacketsAndRequests::Listening>(descriptor));
            added = true;
        }
    });
    if (added) {
        notifyPropertyObservers(SerialPortProperty::PacketDescriptors);
    }
}

void SerialPort::stopListeningForPacketsMatchingDescriptor(const std::shared_ptr<SerialPacketDescriptor>& descriptor)
{
    if (!descriptor || _requestHandlingQueue->isCurrent()) {
        return;
    }
    _requestHandlingQueue->sync([&] {
        auto& state = *_packetsAndRequests;
        std::lock_guard lock(state.mutex);
        std::erase_if(state.packetDescriptorsAndBuffers,
                      [&](const auto& entry) { return entry->descriptor->isEqual(*descriptor); });
    });
    // Observers hear of it also when the descriptor was not listened for.
    notifyPropertyObservers(SerialPortProperty::PacketDescriptors);
}

std::vector<std::shared_ptr<SerialPacketDescriptor>> SerialPort::packetDescriptors() const
{
    const auto& state = *_packetsAndRequests;
    std::lock_guard lock(state.mutex);
    std::vector<std::shared_ptr<SerialPacketDescriptor>> descriptors;
    descriptors.reserve(state.packetDescriptorsAndBuffers.size());
    for (const auto& entry : state.packetDescriptorsAndBuffers) {
        descriptors.push_back(entry->descriptor);
    }
    return descriptors;
}

void SerialPort::detectPackets(std::uint8_t byte)
{
    auto& state = *_packetsAndRequests;
    // A snapshot: an evaluator may start or stop listening (from another thread).
    std::vector<std::shared_ptr<PacketsAndRequests::Listening>> entries;
    {
        std::lock_guard lock(state.mutex);
        if (state.packetDescriptorsAndBuffers.empty()) {
            return;
        }
        entries = state.packetDescriptorsAndBuffers;
    }
    std::shared_ptr<SerialPortDelegate> target;
    bool targetChecked = false;
    for (const auto& entry : entries) {
        const std::size_t length = entry->receiver.receiveByte(byte);
        if (length == 0) {
            continue;
        }
        if (!targetChecked) {
            target = delegate();
            if (target && !target->respondsTo(SerialPortDelegateCallback::DidReceivePacket)) {
                target.reset();
            }
            targetChecked = true;
        }
        if (target) {
            const auto tail = entry->receiver.buffer.data().last(length);
            SerialData packet(tail.begin(), tail.end());
            dispatch::mainQueue()->async(
                [self = shared_from_this(), target, packet = std::move(packet), descriptor = entry->descriptor] {
                    target->serialPortDidReceivePacket(self, packet, descriptor);
                });
        }
        entry->receiver.clear();
    }
}

} // namespace quendral
