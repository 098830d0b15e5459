// What a peer that sends without end or beyond reason costs: the reply parser
// fed a line or an IP dump that never ends, the update server answer parser
// fed deep nesting, millions of small values, and firmware strings of real
// and of the largest admitted size. Each case runs in a child process of its
// own (tests/support/peak_memory.h); printed are its wall time and how far the
// child's peak resident memory rose above the input it was given.
//
//     build/bench/bench_hostile_peers
#include "controller/controller_state.h"
#include "controller/reply_parser.h"
#include "controller/server_answer.h"
#include "log/logger.h"
#include "support/peak_memory.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <span>
#include <string>

using namespace quendral;

namespace {

constexpr std::size_t kMB = 1000 * 1000;

// Runs `work` in a child; what it returns is reported as `yes` or `no`.
void measure(const char* name, std::size_t inputBytes, const std::function<bool()>& work, const char* yes = "read",
             const char* no = "refused")
{
    const auto measured = test::measurePeakMemory([&] {
        const auto start = std::chrono::steady_clock::now();
        const bool outcome = work();
        const auto micros =
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
        // Microseconds in the result's upper bits, the outcome in the lowest.
        return static_cast<int>(std::min<long long>(micros, (1LL << 30) - 1) << 1) | (outcome ? 1 : 0);
    });
    if (!measured) {
        std::printf("| %s | %.0f MB | (the child failed) | | |\n", name, static_cast<double>(inputBytes) / kMB);
        return;
    }
    const double seconds = static_cast<double>(static_cast<unsigned>(measured->result) >> 1) / 1e6;
    std::printf("| %s | %.0f MB | %.3f s | %.1f MB | %s |\n", name, static_cast<double>(inputBytes) / kMB, seconds,
                static_cast<double>(measured->peakGrowth) / kMB, (measured->result & 1) != 0 ? yes : no);
}

bool parseAnswer(const std::string& body)
{
    return ServerAnswer::fromJsonText(body).has_value();
}

// `total` bytes of a never-ending stream, in reads of 1024 bytes as the serial port delivers them.
bool feedParser(const std::string& start, const std::string& piece, std::size_t total)
{
    ControllerState state;
    ControllerReplyParser parser(state);
    const auto bytes = [](const std::string& text) {
        return std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    };
    parser.receive(bytes(start));
    for (std::size_t sent = start.size(); sent < total; sent += piece.size()) {
        parser.receive(bytes(piece));
    }
    return parser.serialInput().size() <= ControllerReplyParser::kLineLimit + piece.size() &&
           state.ipDumpCount() <= ControllerState::kIPDumpLineLimit;
}

std::string repeated(const std::string& unit, std::size_t bytes)
{
    std::string text;
    text.reserve(bytes + unit.size());
    while (text.size() < bytes) {
        text += unit;
    }
    return text;
}

} // namespace

int main()
{
    Logger::setConsole(nullptr); // the cuts' log lines are not the figures

    std::printf("| case | input | time | peak above the input | outcome |\n|---|---|---|---|---|\n");

    const std::string nested = std::string(60 * kMB, '[');
    measure("answer: 60 MB of \"[\"", nested.size(), [&] { return parseAnswer(nested); });

    const std::string values = R"({"status":"ok","list":[)" + repeated("0,", 60 * kMB) + "0]}";
    measure("answer: 60 MB of \"0,\" in an object", values.size(), [&] { return parseAnswer(values); });

    const std::string hash = R"("hash":"0123456789abcdef0123456789abcdef")";
    const std::string firmware = R"({"status":"ok",)" + hash + R"(,"hexfile":")" + std::string(2 * kMB, 'Q') + "\"}";
    measure("answer: 2 MB firmware (a real one's size)", firmware.size(), [&] { return parseAnswer(firmware); });

    const std::string largest =
        R"({"status":"ok",)" + hash + R"(,"hexfile":")" + std::string(64 * 1024 * 1024 - 100, 'Q') + "\"}";
    measure("answer: one string up to the 64 MiB answer cap", largest.size(), [&] { return parseAnswer(largest); });

    const std::string chunk(1024, 'a');
    measure(
        "Controller: 77 MB line without end", 77 * kMB, [&] { return feedParser("", chunk, 77 * kMB); }, "cut",
        "kept whole");

    const std::string dumpLines = repeated("dev;1;Living room;192.168.10.60;1\n", 1000);
    measure(
        "Controller: 156 MB IP dump without end", 156 * kMB,
        [&] { return feedParser("start_dump\n", dumpLines, 156 * kMB); }, "cut", "kept whole");
    return 0;
}
