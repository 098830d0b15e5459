#pragma once
// What the flashing tests expect of the wrappers, written out once: the
// status texts exactly as the window shows them, and readers for the log and
// the progress a run leaves behind.
#include <regex>
#include <string>
#include <vector>

namespace quendral::test {

inline const std::string kPreparing = "Preparing upload...";
inline const std::string kWriting = "Writing firmware...";
inline const std::string kVerifying = "Verifying firmware...";
inline const std::string kSuccess = "Firmware successfully updated!";
inline const std::string kFailure = "An error occured during the firmware update";

// The tool's own text, put back together from the log's "Avrdude: " (or
// "Bossac: ") entries: avrdude writes its messages in small pieces, and a
// word often arrives split over two chunks.
inline std::string toolOutput(const std::string& log, const std::string& prefix)
{
    static const std::regex stamp(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] )");
    const std::string unstamped = std::regex_replace(log, stamp, "");
    std::string output;
    for (auto at = unstamped.find(prefix); at != std::string::npos;) {
        const auto next = unstamped.find(prefix, at + prefix.size());
        auto piece = unstamped.substr(at + prefix.size(),
                                      next == std::string::npos ? std::string::npos : next - at - prefix.size());
        // logBuffered ends every piece with a newline of its own.
        if (!piece.empty() && piece.back() == '\n') {
            piece.pop_back();
        }
        output += piece;
        at = next;
    }
    return output;
}

// How often the bar fills up: arrivals at 100 from below.
inline int timesReaching100(const std::vector<int>& progress)
{
    int times = 0;
    int previous = 0;
    for (const int value : progress) {
        times += (value == 100 && previous != 100) ? 1 : 0;
        previous = value;
    }
    return times;
}

} // namespace quendral::test
