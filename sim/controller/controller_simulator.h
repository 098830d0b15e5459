#pragma once
// A simulated QUENDRAL Controller on the device end of a pseudo-terminal.
//
// It speaks the Controller's line protocol as controller_protocol.h gives it
// (getCID, getVersion, dumpIP, config, webconfig, the IP settings write);
// the serial monitor's service commands and anything else ("prepareUpload",
// "store", ...) are recorded with no answer.
//
// Every line received is recorded (receivedLines(), waitForLine()).
//
// Note for tests: the application's reply parser looks at a line feed only
// once a further byte has arrived. A Controller that goes quiet right after a
// reply leaves that reply unprocessed; set a trailer (setTrailer("\n")) to
// follow every reply with more bytes, as a chatty firmware would.
//
// Scripting: boot slowly (setBootDelay: no answers until that much time of the
// simulator's clock has passed since start()), stay silent (setSilent), split
// every reply into chunks with pauses (setChunking), or push arbitrary bytes
// (sendRaw: garbage, non-ASCII, over-long lines, unsolicited replies).
//
// The 1200-baud touch (baud_touch.h): a port that was opened, set to 1200 baud
// and closed again is how the application asks a native-USB board to restart
// into its boot loader. The simulator watches the device end: it notes the line speed
// whenever it wakes while the port is open and whenever someone calls
// noteLineSpeed() (the umockdev board calls it from its ioctl handler, which
// sees every modem-line call the application makes, so even an open-and-close
// without pause is seen), and counts a touch when the port closes (hang-up on
// the device end) after 1200 baud was seen in that session. The touch handler
// then runs on the simulator's thread; it must not stop() the simulator from
// there.
//
// Threading: a thread of its own serves the pty between start() and stop();
// every method is thread-safe. The boot delay is measured with the Clock given
// at construction, so a test with a fast-forwarding clock sees a slow boot
// without waiting for it.
#include "baud_touch.h"
#include "controller_protocol.h"
#include "platform/clock.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace quendral::sim {

class ControllerSimulator {
public:
    // Serves an existing device end (e.g. a umockdev tty's); not owned.
    explicit ControllerSimulator(int deviceEnd, Clock& clock = systemClock());
    // Makes a pseudo-terminal of its own; the program under test opens portPath().
    static std::unique_ptr<ControllerSimulator> withPseudoTerminal(Clock& clock = systemClock());
    ~ControllerSimulator();
    ControllerSimulator(const ControllerSimulator&) = delete;
    ControllerSimulator& operator=(const ControllerSimulator&) = delete;

    void start();
    void stop();

    // The port side's path when the simulator made its own pseudo-terminal.
    [[nodiscard]] const std::string& portPath() const { return _portPath; }
    [[nodiscard]] int deviceEnd() const { return _deviceEnd; }

    // --- identity and settings ---------------------------------------------
    static constexpr const char* kDefaultCID = "0123456789ABCDEF0123456789ABCDEF";
    void setCID(std::string cid);
    void setVersion(std::string version);
    // Answer getCID with "CID:MSG:" + message instead of the identifier; none to stop.
    void setMessage(std::optional<std::string> message);
    void setAddress(std::string address);
    // The lines between "start_dump" and "end_dump".
    void setIPDumpLines(std::vector<std::string> lines);
    [[nodiscard]] bool webserverRunning() const;
    [[nodiscard]] bool inConfigurationMode() const;

    // --- behaviour -------------------------------------------------------------
    void setBootDelay(Clock::Seconds delay);
    void setSilent(bool silent);
    // Replies go out in pieces of `chunkSize` bytes with `gap` between them (0: whole).
    void setChunking(std::size_t chunkSize, std::chrono::milliseconds gap);
    // Bytes sent after every reply (e.g. "\n"); empty by default.
    void setTrailer(std::string trailer);
    // Sends bytes as they are, now (if the port is open; dropped otherwise).
    void sendRaw(std::string_view bytes);

    // --- what it heard ---------------------------------------------------------
    [[nodiscard]] std::vector<std::string> receivedLines() const;
    [[nodiscard]] std::size_t countOf(const std::string& line) const;
    // Waits (real time) until the line was received `count` times in all.
    bool waitForLine(const std::string& line, std::chrono::milliseconds timeout, std::size_t count = 1) const;
    void clearReceivedLines();
    // --- the 1200-baud touch ------------------------------------------------------
    void setTouchHandler(std::function<void()> handler);
    // Looks at the line speed now (the speed the application set).
    void noteLineSpeed();
    [[nodiscard]] int touchCount() const;
    // The speed as the device end sees it now.
    [[nodiscard]] unsigned long lineSpeed() const;

    // How often the port side was opened, and whether it is open now.
    [[nodiscard]] int openCount() const;
    [[nodiscard]] bool isPortOpen() const;
    bool waitForPortOpen(bool open, std::chrono::milliseconds timeout) const;

private:
    // Fields the simulator's thread shares with its callers, set and read under the lock.
    template <typename Field, typename Value> void set(Field& field, Value&& value)
    {
        std::lock_guard lock(_mutex);
        field = std::forward<Value>(value);
    }
    template <typename Field> Field get(const Field& field) const
    {
        std::lock_guard lock(_mutex);
        return field;
    }

    void run();
    void portOpened();
    void handleLine(const std::string& line);
    void reply(const std::string& text);
    void writeAll(std::string_view bytes);
    [[nodiscard]] bool hasBooted() const;
    // The port closed: ends the session; true when it was a touch.
    bool endSession();

    int _deviceEnd = -1;
    bool _ownsDeviceEnd = false;
    std::string _portPath;
    Clock& _clock;
    int _cancelFd = -1;
    std::thread _thread;

    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    ControllerProtocol _protocol; // its answers; service commands are recorded silently
    Clock::TimePoint _poweredOn{};
    Clock::Seconds _bootDelay{0};
    bool _silent = false;
    std::size_t _chunkSize = 0;
    std::chrono::milliseconds _chunkGap{0};
    std::string _trailer;
    std::vector<std::string> _received;
    std::string _partialLine;
    bool _portOpen = false;
    int _openCount = 0;
    BaudTouchDetector _touch;
    std::function<void()> _touchHandler;
    std::mutex _writeMutex;
};

} // namespace quendral::sim
