// Throughput of the Controller reply parser on a realistic stream, delivered
// as the serial port delivers it (reads of at most 1024 bytes), for growing
// stream lengths: the time per byte must stay flat (linear in the length).
#include "controller/controller_state.h"
#include "controller/reply_parser.h"
#include "log/logger.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <span>
#include <string>
#include <vector>

namespace {

// Replies a Controller sends during identification, IP dumps and web
// configuration, with a little of its own chatter in between.
std::string realisticStream(std::size_t length)
{
    const std::string block = "CID:0123456789ABCDEF0123456789ABCDEF\n"
                              "VERSION:2.14.3\n"
                              "start_dump\n"
                              "ip;192.168.10.50\n"
                              "subnet;255.255.255.0\n"
                              "gateway;192.168.10.1\n"
                              "dns;192.168.10.1\n"
                              "dev;1;Living room;192.168.10.60;1\n"
                              "dev;2;Garage door;192.168.10.61;0\n"
                              "end_dump\n"
                              "Sensor 3: 21.5 C, humidity 48 %\n"
                              "Starting webserver for configuration at http://192.168.10.50\n"
                              "Stopping webserver\n"
                              "IP address: 192.168.10.50\n";
    std::string stream;
    stream.reserve(length + block.size());
    while (stream.size() < length) {
        stream += block;
    }
    stream.resize(length);
    return stream;
}

void feedInReads(const std::string& stream)
{
    // A long stream fills the IP dump to its limit; the cut's log line is no figure.
    quendral::Logger::setConsole(nullptr);
    quendral::ControllerState state;
    quendral::ControllerReplyParser parser(state);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(stream.data());
    for (std::size_t offset = 0; offset < stream.size(); offset += 1024) {
        parser.receive(std::span(bytes + offset, std::min<std::size_t>(1024, stream.size() - offset)));
    }
    benchmark::DoNotOptimize(state.ipDumpCount());
}

void BM_ReplyParserRealisticStream(benchmark::State& state)
{
    const std::string stream = realisticStream(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        feedInReads(stream);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_ReplyParserRealisticStream)->RangeMultiplier(4)->Range(64 << 10, 16 << 20)->Complexity(benchmark::oN);

// One endless line (a Controller that never sends a line feed) must not go quadratic.
void BM_ReplyParserLineWithoutEnd(benchmark::State& state)
{
    const std::string stream(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        feedInReads(stream);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_ReplyParserLineWithoutEnd)->RangeMultiplier(4)->Range(64 << 10, 4 << 20)->Complexity(benchmark::oN);

} // namespace

BENCHMARK_MAIN();
