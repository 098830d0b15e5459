// Packet matching throughput: bytes per second through a listening port's
// per-byte work (append to the bounded buffer, look for the shortest valid
// tail, clear after a packet), with 1 KB maximum packet length.
//
// "Scanner" is what a port runs; "Shortcut" is packetMatchingAtEndOfBuffer()
// on its own (no memory between bytes); "TryingEveryTail" is the plain search,
// run on a shorter stream because it is slow.
#include "serial/serial_buffer.h"
#include "serial/serial_packet_descriptor.h"
#include "serial/serial_packet_scanner.h"

#include <benchmark/benchmark.h>

#include <random>
#include <string>

using namespace quendral;

namespace {

constexpr std::uint64_t kMaximumPacketLength = 1024;

// NMEA-like sentences ("$GPGGA,...*4F\r\n", 20 to 200 bytes) with some noise between them.
SerialData sentenceStream(std::size_t size)
{
    std::mt19937 random(42);
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const std::string payload = "0123456789.,ABCDEFNSEW";
    SerialData stream;
    while (stream.size() < size) {
        std::string sentence = "$GP";
        for (int i = 0; i < 3; ++i) {
            sentence.push_back(letters[random() % letters.size()]);
        }
        sentence.push_back(',');
        const std::size_t length = 20 + random() % 180;
        for (std::size_t i = 0; i < length; ++i) {
            sentence.push_back(payload[random() % payload.size()]);
        }
        sentence += "*4F\r\n";
        for (std::size_t i = random() % 4; i > 0; --i) {
            sentence.push_back(' ');
        }
        stream.insert(stream.end(), sentence.begin(), sentence.end());
    }
    stream.resize(size);
    return stream;
}

// Random bytes with the fixed packet now and then.
SerialData fixedDataStream(std::size_t size, const SerialData& packet)
{
    std::mt19937 random(7);
    SerialData stream;
    while (stream.size() < size) {
        for (std::size_t i = 0; i < 3000; ++i) {
            stream.push_back(static_cast<std::uint8_t>(random()));
        }
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    stream.resize(size);
    return stream;
}

SerialData fixedPacket()
{
    SerialData packet(kMaximumPacketLength);
    std::mt19937 random(3);
    for (auto& byte : packet) {
        byte = static_cast<std::uint8_t>(random());
    }
    return packet;
}

SerialPacketDescriptor::Ptr prefixSuffixDescriptor()
{
    return SerialPacketDescriptor::initWithPrefixString(std::string("$"), std::string("\r\n"), kMaximumPacketLength,
                                                        {});
}

SerialPacketDescriptor::Ptr regularExpressionDescriptor()
{
    return SerialPacketDescriptor::initWithRegularExpression(
        SerialRegularExpression::regularExpressionWithPattern(R"(\$GP[A-Z]{3},[^*\r\n]*\*[0-9A-F]{2}\r\n)"),
        kMaximumPacketLength, {});
}

SerialPacketDescriptor::Ptr fixedDataDescriptor()
{
    return SerialPacketDescriptor::initWithPacketData(fixedPacket(), {});
}

enum class Search { Scanner, Shortcut, TryingEveryTail };

template <typename MakeDescriptor, typename MakeStream>
void run(benchmark::State& state, MakeDescriptor makeDescriptor, MakeStream makeStream, Search search)
{
    const auto descriptor = makeDescriptor();
    const SerialData stream = makeStream(search == Search::TryingEveryTail ? 8 * 1024 : 1024 * 1024);
    std::size_t packets = 0;
    for (auto _ : state) {
        SerialBuffer buffer(descriptor->maximumPacketLength());
        auto scanner = descriptor->makeScanner();
        for (const std::uint8_t byte : stream) {
            buffer.appendByte(byte);
            std::size_t length = 0;
            switch (search) {
            case Search::Scanner:
                length = scanner->appendedByte(byte, buffer.data());
                break;
            case Search::Shortcut:
                length = descriptor->lengthOfPacketAtEndOfBuffer(buffer.data());
                break;
            case Search::TryingEveryTail:
                length = lengthOfPacketAtEndOfBufferTryingEveryTail(*descriptor, buffer.data());
                break;
            }
            if (length > 0) {
                ++packets;
                buffer.clearBuffer();
                scanner->bufferCleared();
            }
        }
    }
    benchmark::DoNotOptimize(packets);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream.size()));
    state.counters["packets"] = static_cast<double>(packets) / static_cast<double>(state.iterations());
}

void prefixSuffix(benchmark::State& state, Search search)
{
    run(state, prefixSuffixDescriptor, sentenceStream, search);
}
void regularExpression(benchmark::State& state, Search search)
{
    run(state, regularExpressionDescriptor, sentenceStream, search);
}
void fixedData(benchmark::State& state, Search search)
{
    run(
        state, fixedDataDescriptor, [](std::size_t size) { return fixedDataStream(size, fixedPacket()); }, search);
}

} // namespace

BENCHMARK_CAPTURE(prefixSuffix, Scanner, Search::Scanner)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prefixSuffix, Shortcut, Search::Shortcut)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prefixSuffix, TryingEveryTail, Search::TryingEveryTail)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(regularExpression, Scanner, Search::Scanner)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(regularExpression, Shortcut, Search::Shortcut)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(regularExpression, TryingEveryTail, Search::TryingEveryTail)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(fixedData, Scanner, Search::Scanner)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(fixedData, Shortcut, Search::Shortcut)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(fixedData, TryingEveryTail, Search::TryingEveryTail)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
