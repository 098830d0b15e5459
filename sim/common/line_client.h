#pragma once
// The application's side of a simulated Controller's line, reduced to what the
// device lab's tests need: open the node raw at 115200, write commands, collect
// reply lines.

#include <string>
#include <vector>

namespace quendral::sim {

class LineClient {
public:
    explicit LineClient(const std::string& path);
    ~LineClient();
    LineClient(const LineClient&) = delete;
    LineClient& operator=(const LineClient&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    bool send(const std::string& text);
    // Reads for up to timeoutSeconds; returns once a line beginning with `prefix`
    // has arrived (the line without its line feed), or empty on time-out.
    std::string waitForLine(const std::string& prefix, double timeoutSeconds);
    // Sends `request` and waits `timeoutSeconds` for a line beginning with
    // `prefix`, up to `tries` times (a board that has just reset misses the
    // first requests). The line, or empty.
    std::string askUntilAnswered(const std::string& request, const std::string& prefix, int tries,
                                 double timeoutSeconds);
    // Asks "getCID" and "getVersion" together, a second for each reply, as
    // the application does, until both replies came or `tries` rounds passed.
    bool askIdentity(std::string& cid, std::string& version, int tries);
    // Everything received so far (complete and partial lines).
    const std::string& received() const { return received_; }

private:
    int fd_ = -1;
    std::string received_;
    size_t scanned_ = 0;
};

} // namespace quendral::sim
