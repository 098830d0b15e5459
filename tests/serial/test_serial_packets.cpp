// Listening for packets on a port: bytes written at the device end of a
// umockdev tty arrive through the port's reader and are matched byte by byte.
#include "serial/serial_packet_descriptor.h"
#include "serial_test_bed.h"

#include <thread>

using namespace quendral;
using namespace quendral::test;

namespace {

SerialData bytes(std::string_view text)
{
    return SerialData(text.begin(), text.end());
}

class SerialPackets : public SerialTestBed {
protected:
    void writeDevice(const SerialData& data)
    {
        ASSERT_EQ(::write(device->deviceEnd(), data.data(), data.size()), static_cast<ssize_t>(data.size()));
    }
    void writeDevice(std::string_view text) { writeDevice(bytes(text)); }

    // Waits until the port has read and handled everything written so far:
    // a marker descriptor reports the marker only after the bytes before it.
    void settle(const SerialPort::Ptr& port, std::string_view markerText = "\x7f#settled#\x7f")
    {
        const auto marker = SerialPacketDescriptor::initWithPacketData(bytes(markerText), {});
        port->startListeningForPacketsMatchingDescriptor(marker);
        const std::size_t before = packetsFor(marker).size();
        writeDevice(markerText);
        ASSERT_TRUE(waitFor([&] { return packetsFor(marker).size() > before; }));
        port->stopListeningForPacketsMatchingDescriptor(marker);
    }

    // The port, open, listening for `descriptor`; none (after a failure) if it would not open.
    SerialPort::Ptr listeningPort(const SerialPacketDescriptor::Ptr& descriptor)
    {
        auto port = openPort(delegate);
        if (port) {
            port->startListeningForPacketsMatchingDescriptor(descriptor);
        }
        return port;
    }

    std::vector<SerialData> packetsFor(const SerialPacketDescriptor::Ptr& descriptor) const
    {
        std::vector<SerialData> packets;
        for (const auto& event : delegate->eventsOfKind("packet")) {
            if (event.descriptor == descriptor) {
                packets.push_back(event.data);
            }
        }
        return packets;
    }
};

} // namespace

TEST_F(SerialPackets, PrefixAndSuffixStreamReportsEachThreeBytePacketAndClearsTheBuffer)
{
    const auto descriptor = SerialPacketDescriptor::initWithPrefix(SerialData{0x24}, SerialData{0x0A}, 64, {});
    auto port = listeningPort(descriptor);
    ASSERT_TRUE(port);

    writeDevice(SerialData{0x24, 0x41, 0x0A, 0x24, 0x42, 0x0A});
    ASSERT_TRUE(waitFor([&] { return packetsFor(descriptor).size() >= 2; }));
    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{{0x24, 0x41, 0x0A}, {0x24, 0x42, 0x0A}}));
    for (const auto& event : delegate->eventsOfKind("packet")) {
        EXPECT_TRUE(event.onMainThread);
    }

    // Had the buffer kept "$B\n", "C\n" would end a longer "$B\nC\n" packet.
    writeDevice("C\n");
    settle(port);
    EXPECT_EQ(packetsFor(descriptor).size(), 2u);
}

TEST_F(SerialPackets, SuffixOnlyDescriptorReportsJustTheSuffixEachTimeItArrives)
{
    const auto descriptor = SerialPacketDescriptor::initWithPrefixString(std::nullopt, std::string("\r\n"), 128, {});
    auto port = listeningPort(descriptor);
    ASSERT_TRUE(port);

    writeDevice("first line\r\nsecond\r\n\r\nno end yet");
    settle(port);
    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{bytes("\r\n"), bytes("\r\n"), bytes("\r\n")}));
}

TEST_F(SerialPackets, PacketLongerThanTheMaximumIsNeverReported)
{
    const auto descriptor = SerialPacketDescriptor::initWithPrefixString(std::string("<"), std::string(">"), 8, {});
    auto port = listeningPort(descriptor);
    ASSERT_TRUE(port);

    writeDevice("<123456>");  // 8 bytes: fits
    writeDevice("<1234567>"); // 9 bytes: one too many
    writeDevice("<12345678901234567890>");
    settle(port);
    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{bytes("<123456>")}));
}

TEST_F(SerialPackets, RegularExpressionReportsNothingForBytesThatAreNotUTF8)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    // "." matches any one character: every decodable tail would be a packet.
    const auto descriptor = SerialPacketDescriptor::initWithRegularExpression(
        SerialRegularExpression::regularExpressionWithPattern("."), 16, {});
    ASSERT_TRUE(descriptor->regularExpression());
    port->startListeningForPacketsMatchingDescriptor(descriptor);

    // Stray continuation bytes, bytes that never occur in UTF-8, an overlong
    // form, a surrogate and a truncated sequence.
    writeDevice(SerialData{0x80, 0xBF, 0xFF, 0xFE, 0xC0, 0xAF, 0xC1, 0xED, 0xA0, 0x80, 0xF5, 0xE2, 0x82});
    settle(port, "\r\n\r\n"); // line ends: text that "." does not match
    EXPECT_TRUE(packetsFor(descriptor).empty());

    // The same descriptor does match decodable text ("é", two bytes).
    writeDevice(SerialData{0xC3, 0xA9});
    ASSERT_TRUE(waitFor([&] { return !packetsFor(descriptor).empty(); }));
    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{{0xC3, 0xA9}}));
}

TEST_F(SerialPackets, RegularExpressionMatchesFromTheFirstCharacterOfTheShortestTail)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    const auto expression = SerialRegularExpression::regularExpressionWithPattern(R"(T=(\d+)C)");
    const auto descriptor = SerialPacketDescriptor::initWithRegularExpression(expression, 32, {});
    port->startListeningForPacketsMatchingDescriptor(descriptor);

    writeDevice("noise T=21C more T=7");
    ASSERT_TRUE(waitFor([&] { return !packetsFor(descriptor).empty(); }));
    writeDevice("C");
    ASSERT_TRUE(waitFor([&] { return packetsFor(descriptor).size() >= 2; }));
    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{bytes("T=21C"), bytes("T=7C")}));
}

TEST_F(SerialPackets, TwoDescriptorsWithTheSameSettingsBothGetEveryPacket)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    const auto first = SerialPacketDescriptor::initWithPrefixString(std::string("$"), std::string("\n"), 32, {});
    const auto second = SerialPacketDescriptor::initWithPrefixString(std::string("$"), std::string("\n"), 32, {});
    EXPECT_FALSE(first->isEqual(*second));
    port->startListeningForPacketsMatchingDescriptor(first);
    port->startListeningForPacketsMatchingDescriptor(second);
    EXPECT_EQ(port->packetDescriptors().size(), 2u);

    writeDevice("$A\n$B\n");
    ASSERT_TRUE(waitFor([&] { return packetsFor(first).size() >= 2 && packetsFor(second).size() >= 2; }));
    EXPECT_EQ(packetsFor(first), (std::vector<SerialData>{bytes("$A\n"), bytes("$B\n")}));
    EXPECT_EQ(packetsFor(second), packetsFor(first));
    // Found in listening order, one byte at a time.
    const auto events = delegate->eventsOfKind("packet");
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].descriptor, first);
    EXPECT_EQ(events[1].descriptor, second);
}

TEST_F(SerialPackets, ListeningTwiceForTheSameDescriptorKeepsOneBuffer)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    std::atomic<int> notifications{0};
    const auto observer = countNotifications(port, SerialPortProperty::PacketDescriptors, notifications);
    const auto descriptor = SerialPacketDescriptor::initWithPrefixString(std::string("$"), std::string("\n"), 32, {});
    // Tells when "$hal" went through the descriptors: its last byte is a packet here.
    const auto lastByte = SerialPacketDescriptor::initWithPacketData(bytes("l"), {});
    port->startListeningForPacketsMatchingDescriptor(descriptor);
    port->startListeningForPacketsMatchingDescriptor(lastByte);
    writeDevice("$hal");
    ASSERT_TRUE(waitFor([&] { return !packetsFor(lastByte).empty(); }));
    port->startListeningForPacketsMatchingDescriptor(descriptor);
    EXPECT_EQ(port->packetDescriptors().size(), 2u);
    EXPECT_EQ(notifications, 2); // the two first listens; not the second one for the same descriptor

    // The bytes before the second listen are still there, and the packet comes once.
    writeDevice("f\n");
    ASSERT_TRUE(waitFor([&] { return !packetsFor(descriptor).empty(); }));
    settle(port);
    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{bytes("$half\n")}));
    port->removePropertyObserver(observer);
}

TEST_F(SerialPackets, StopListeningEndsTheReportsAndEmptiesTheList)
{
    const auto descriptor = SerialPacketDescriptor::initWithPacketData(bytes("ping"), {});
    auto port = listeningPort(descriptor);
    ASSERT_TRUE(port);
    writeDevice("ping");
    ASSERT_TRUE(waitFor([&] { return packetsFor(descriptor).size() == 1; }));
    port->stopListeningForPacketsMatchingDescriptor(descriptor);
    EXPECT_TRUE(port->packetDescriptors().empty());
    writeDevice("ping");
    settle(port);
    EXPECT_EQ(packetsFor(descriptor).size(), 1u);
}

TEST_F(SerialPackets, BufferOfMaximumLengthFourHoldsTheNewestFourBytes)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    // The evaluator sees every tail of the buffer; the longest one after the
    // sixth byte ("f") is the whole buffer.
    std::mutex mutex;
    SerialData longestTail;
    const auto descriptor =
        SerialPacketDescriptor::initWithMaximumPacketLength(4, {}, [&](std::span<const std::uint8_t> tail) {
            std::lock_guard lock(mutex);
            if (!tail.empty() && tail.back() == 'f' && tail.size() >= longestTail.size()) {
                longestTail.assign(tail.begin(), tail.end());
            }
            return false;
        });
    port->startListeningForPacketsMatchingDescriptor(descriptor);
    writeDevice("abcdef");
    settle(port);
    port->stopListeningForPacketsMatchingDescriptor(descriptor);
    std::lock_guard lock(mutex);
    EXPECT_EQ(longestTail, bytes("cdef"));
}

TEST_F(SerialPackets, PacketsAreFoundAcrossChunks)
{
    const auto descriptor = SerialPacketDescriptor::initWithPrefixString(std::string("<<"), std::string(">>"), 64, {});
    auto port = listeningPort(descriptor);
    ASSERT_TRUE(port);
    writeDevice("<");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    writeDevice("<payl");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    writeDevice("oad>");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    writeDevice(">");
    ASSERT_TRUE(waitFor([&] { return !packetsFor(descriptor).empty(); }));
    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{bytes("<<payload>>")}));
    EXPECT_GE(delegate->count("data"), 2u);
}

TEST_F(SerialPackets, ListeningFromTheRequestHandlingQueueIsRefused)
{
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    const auto descriptor = SerialPacketDescriptor::initWithPacketData(bytes("x"), {});
    port->requestHandlingQueue()->sync([&] { port->startListeningForPacketsMatchingDescriptor(descriptor); });
    EXPECT_TRUE(port->packetDescriptors().empty());
}

TEST_F(SerialPackets, ADescriptorAddedDuringAFloodSeesThePacketsAfterItAndTheDataKeepsItsOrder)
{
    // Chunks that nothing listens for skip the request queue; the moment a
    // descriptor is added (on that queue), the chunks behind it must go
    // through it again, in order, and the data callbacks must not change.
    auto port = openPort(delegate);
    ASSERT_TRUE(port);
    const auto descriptor = SerialPacketDescriptor::initWithPrefixString(std::string("<<"), std::string(">>"), 64, {});
    std::string written;
    const auto flood = [&](int lines, char tag) {
        for (int i = 0; i < lines; ++i) {
            const std::string line = std::string(1, tag) + std::to_string(i) + " filler filler filler filler\r\n";
            writeDevice(line);
            written += line;
        }
    };
    flood(2000, 'a');
    port->startListeningForPacketsMatchingDescriptor(descriptor);
    writeDevice("<<one>>");
    written += "<<one>>";
    flood(2000, 'b');
    writeDevice("<<two>>");
    written += "<<two>>";
    ASSERT_TRUE(waitFor([&] { return packetsFor(descriptor).size() >= 2; }));
    port->stopListeningForPacketsMatchingDescriptor(descriptor);
    flood(500, 'c');
    settle(port);

    EXPECT_EQ(packetsFor(descriptor), (std::vector<SerialData>{bytes("<<one>>"), bytes("<<two>>")}));
    std::string received;
    for (const auto& event : delegate->eventsOfKind("data")) {
        received.append(event.data.begin(), event.data.end());
    }
    EXPECT_EQ(received.substr(0, written.size()), written);
}
