#pragma once
// The device end of a serial line as a simulated board sees it: a pty master,
// or the device end of a umockdev tty. Never blocks: bytes for a peer that
// reads slowly wait in a queue, bytes for a closed line are dropped.
//
// The peer's open and close are seen two ways: inotify on the peer's node when
// its path is known (catches even a quick open-close), otherwise from the
// hang-up state of the device end (polled on every pump).

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace quendral::sim {

class SerialLink {
public:
    // fd stays the caller's; it is switched to non-blocking mode. peerPath may be
    // empty (then hang-up polling only).
    SerialLink(int fd, std::string peerPath);
    ~SerialLink();
    SerialLink(const SerialLink&) = delete;
    SerialLink& operator=(const SerialLink&) = delete;

    // Waits at most timeoutMs for input, writability, a peer change or wake();
    // reads what arrived and writes what is queued.
    void pump(int timeoutMs);
    // Interrupts a pump() in progress (any thread).
    void wake();

    std::deque<uint8_t>& input() { return input_; }
    void send(const uint8_t* data, size_t size);
    void send(const std::string& text) { send(reinterpret_cast<const uint8_t*>(text.data()), text.size()); }
    size_t pendingOutput() const { return output_.size(); }

    bool peerOpen() const { return peerOpen_; }
    // The line speed the peer last set, in baud (0 if unknown).
    unsigned baud() const;

    // Peer opens and closes seen since the last call.
    unsigned takeOpens();
    unsigned takeCloses();

private:
    void pollHangup();
    void readInotify();
    void readInput();
    void flushOutput();

    int fd_;
    std::string peerPath_;
    int inotify_ = -1;
    int wakeFd_ = -1;
    bool peerOpen_ = false;
    unsigned opens_ = 0;
    unsigned closes_ = 0;
    std::deque<uint8_t> input_;
    std::vector<uint8_t> output_;
};

} // namespace quendral::sim
