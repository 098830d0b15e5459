#pragma once
// A board in a umockdev USB tree that the lab needs for its USB identity
// alone: a vendor:product the updater has to recognise or reject, with no
// processor behind the tty (what is written to it is taken and dropped).
// It can behave as a native-USB board does on the 1200-baud touch: the node
// goes and the board comes back on a new node with another identity (its
// boot loader's), or goes and never comes back.
#include "baud_touch.h"
#include "umockdev_testbed.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace quendral::sim {

struct UsbIdentityBoardOptions {
    UsbSerialDeviceInfo info;
    enum class OnTouch { Nothing, Reenumerate, Vanish } onTouch = OnTouch::Nothing;
    // The identity it comes back with after the touch (OnTouch::Reenumerate).
    std::uint16_t vendorIdAfterTouch = 0;
    std::uint16_t productIdAfterTouch = 0;
    std::string productAfterTouch;
};

class UsbIdentityBoard {
public:
    UsbIdentityBoard(UmockdevTestbed& testbed, UsbIdentityBoardOptions options);
    ~UsbIdentityBoard();
    UsbIdentityBoard(const UsbIdentityBoard&) = delete;
    UsbIdentityBoard& operator=(const UsbIdentityBoard&) = delete;

    void start();
    void stop();

    // The node it has now (empty while it is gone).
    [[nodiscard]] std::string devnode() const;
    [[nodiscard]] int touches() const;
    // The device end of the node it has now (-1 while it is gone).
    [[nodiscard]] int deviceEnd() const;
    // Called on the lab's own thread with the device the board came back as,
    // before the node is announced (e.g. to put a boot loader behind it).
    void setReturnHandler(std::function<void(const std::shared_ptr<UmockdevSerialDevice>&)> handler);

private:
    void watch();
    void plugIn(const UsbSerialDeviceInfo& info, bool afterTouch);

    UmockdevTestbed& _testbed;
    UsbIdentityBoardOptions _options;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::shared_ptr<UmockdevSerialDevice> _device;
    std::function<void(const std::shared_ptr<UmockdevSerialDevice>&)> _onReturn;
    BaudTouchDetector _touch;
    bool _touchPending = false;
    bool _stopping = false;
    std::thread _worker;
};

} // namespace quendral::sim
