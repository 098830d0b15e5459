#pragma once
// Pulls a umockdev device's cable at an exact point of what the program under
// test writes to it. The device's ioctl hook sees every ioctl of the program,
// one at a time and in order, on the handler's thread, so it can count:
//
//   the program's `open`-th open of the port (its TIOCEXCL), then `count`
//   ioctls `request` after it (TIOCMSET: the open's own modem-line set, its
//   last call; TIOCOUTQ: the program asking whether a written line has left).
//
// There the output is held (the program's next write blocks, as towards a
// Controller that takes nothing more), and at the program's next ioctl, the
// counted one being answered by then, the cable is pulled: the blocked write
// fails with EIO. So the Controller receives exactly what was written up to
// that point, however fast the program writes. The hang-up drops what the
// device end has not read yet: `beforePull` waits until the simulated
// Controller has taken it, as bytes that left the computer reach a real one.
#include "umockdev_testbed.h"

#include <sys/ioctl.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace quendral::test {

class CablePull {
public:
    CablePull(sim::UmockdevTestbed& testbed, std::shared_ptr<sim::UmockdevSerialDevice> device, int open,
              unsigned long request, int count, std::function<void()> beforePull = {})
        : _testbed(testbed), _device(std::move(device)), _open(open), _request(request), _count(count),
          _beforePull(std::move(beforePull))
    {
        _device->setIoctlHook([this](unsigned long seen) { onIoctl(seen); });
    }
    // Waits for a pull under way: the hook runs on the handler's thread.
    ~CablePull()
    {
        _device->setIoctlHook(nullptr);
        std::unique_lock lock(_mutex);
        _pullDone.wait(lock, [this] { return !_pulling; });
    }
    CablePull(const CablePull&) = delete;
    CablePull& operator=(const CablePull&) = delete;

    // The cable was (or is being) pulled.
    [[nodiscard]] bool pulled() const { return _pulled.load(); }

private:
    enum class Phase { BeforeOpen, Counting, Held, Done };

    void onIoctl(unsigned long request)
    {
        std::unique_lock lock(_mutex);
        switch (_phase) {
        case Phase::BeforeOpen:
            if (request == TIOCEXCL && ++_opens == _open) {
                _phase = Phase::Counting;
            }
            return;
        case Phase::Counting:
            if (request == _request && ++_seen == _count) {
                sim::UmockdevTestbed::holdOutput(*_device);
                _phase = Phase::Held;
            }
            return;
        case Phase::Held:
            _phase = Phase::Done;
            _pulling = true;
            lock.unlock();
            if (_beforePull) {
                _beforePull();
            }
            _pulled = true;
            _testbed.unplug(*_device); // this very call is answered with EIO
            lock.lock();
            _pulling = false;
            _pullDone.notify_all();
            return;
        case Phase::Done:
            return;
        }
    }

    sim::UmockdevTestbed& _testbed;
    std::shared_ptr<sim::UmockdevSerialDevice> _device;
    const int _open;
    const unsigned long _request;
    const int _count;
    const std::function<void()> _beforePull;
    std::mutex _mutex;
    std::condition_variable _pullDone;
    bool _pulling = false;
    Phase _phase = Phase::BeforeOpen;
    int _opens = 0;
    int _seen = 0;
    std::atomic<bool> _pulled{false};
};

} // namespace quendral::test
