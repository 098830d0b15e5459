#include "line_client.h"

#include "pty.h"

#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace quendral::sim {

LineClient::LineClient(const std::string& path)
{
    fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
        return;
    }
    makeRaw(fd_);
}

LineClient::~LineClient()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool LineClient::send(const std::string& text)
{
    size_t done = 0;
    while (fd_ >= 0 && done < text.size()) {
        ssize_t n = write(fd_, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else {
            pollfd p{fd_, POLLOUT, 0};
            if (poll(&p, 1, 1000) <= 0) {
                return false;
            }
        }
    }
    return done == text.size();
}

std::string LineClient::waitForLine(const std::string& prefix, double timeoutSeconds)
{
    using Clock = std::chrono::steady_clock;
    auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds));
    for (;;) {
        for (size_t nl; (nl = received_.find('\n', scanned_)) != std::string::npos; scanned_ = nl + 1) {
            std::string line = received_.substr(scanned_, nl - scanned_);
            if (line.compare(0, prefix.size(), prefix) == 0) {
                scanned_ = nl + 1;
                return line;
            }
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || fd_ < 0) {
            return {};
        }
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) > 0) {
            char buf[512];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n > 0) {
                received_.append(buf, static_cast<size_t>(n));
            }
        }
    }
}

std::string LineClient::askUntilAnswered(const std::string& request, const std::string& prefix, int tries,
                                         double timeoutSeconds)
{
    std::string line;
    for (int pass = 0; pass < tries && line.empty(); ++pass) {
        send(request);
        line = waitForLine(prefix, timeoutSeconds);
    }
    return line;
}

bool LineClient::askIdentity(std::string& cid, std::string& version, int tries)
{
    cid.clear();
    version.clear();
    for (int pass = 0; pass < tries && (cid.empty() || version.empty()); ++pass) {
        send("getCID\ngetVersion\n");
        if (cid.empty()) {
            cid = waitForLine("CID:", 1.0);
        }
        if (!cid.empty()) {
            version = waitForLine("VERSION:", 1.0);
        }
    }
    return !cid.empty() && !version.empty();
}

} // namespace quendral::sim
