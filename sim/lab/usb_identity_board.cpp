#include "usb_identity_board.h"

#include "stop_worker.h"

#include <chrono>
#include <sys/ioctl.h>
#include <unistd.h>

namespace quendral::sim {

UsbIdentityBoard::UsbIdentityBoard(UmockdevTestbed& testbed, UsbIdentityBoardOptions options)
    : _testbed(testbed), _options(std::move(options))
{
    // It comes back from its touch on the socket it was plugged into.
    if (_options.info.usbPort == 0) {
        _options.info.usbPort = _testbed.unusedUsbPort();
    }
}

UsbIdentityBoard::~UsbIdentityBoard()
{
    stop();
}

void UsbIdentityBoard::start()
{
    plugIn(_options.info, false);
    _worker = std::thread([this] { watch(); });
}

void UsbIdentityBoard::stop()
{
    stopWorker(_mutex, _changed, _stopping, _worker);
}

void UsbIdentityBoard::setReturnHandler(std::function<void(const std::shared_ptr<UmockdevSerialDevice>&)> handler)
{
    std::lock_guard lock(_mutex);
    _onReturn = std::move(handler);
}

void UsbIdentityBoard::plugIn(const UsbSerialDeviceInfo& info, bool afterTouch)
{
    std::function<void(const std::shared_ptr<UmockdevSerialDevice>&)> onReturn;
    {
        std::lock_guard lock(_mutex);
        onReturn = _onReturn;
    }
    const bool announceNow = !(afterTouch && onReturn);
    auto device = _testbed.addUsbSerialDevice(info, announceNow);
    if (!announceNow) {
        onReturn(device);
        _testbed.uevent(*device, "add");
    }
    if (!afterTouch) {
        // The firmware's USB stack leaves for the boot loader when the host
        // sets the modem lines while the line stands at 1200 baud. Every
        // board counts the touches it sees; only some of them act on one.
        std::weak_ptr<UmockdevSerialDevice> weakDevice = device;
        device->setIoctlHook([this, weakDevice](unsigned long request) {
            const auto self = weakDevice.lock();
            if (!self || request != TIOCMSET) {
                return;
            }
            const unsigned long speed = self->speed();
            std::lock_guard lock(_mutex);
            if (_touch.modemLinesSet(speed) && _touch.touches() == 1 &&
                _options.onTouch != UsbIdentityBoardOptions::OnTouch::Nothing) {
                _touchPending = true;
                _changed.notify_all();
            }
        });
    }
    std::lock_guard lock(_mutex);
    _device = device;
}

void UsbIdentityBoard::watch()
{
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [this] { return _stopping || _touchPending; });
    if (_stopping) {
        return;
    }
    auto old = _device;
    lock.unlock();
    // The host finishes with the old node first; then the USB reset takes it away.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    _testbed.unplug(*old);
    {
        std::lock_guard relock(_mutex);
        _device.reset();
    }
    if (_options.onTouch == UsbIdentityBoardOptions::OnTouch::Vanish) {
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    UsbSerialDeviceInfo info = _options.info;
    info.ttyName = _testbed.unusedTtyName(info.ttyName);
    info.vendorId = _options.vendorIdAfterTouch;
    info.productId = _options.productIdAfterTouch;
    if (!_options.productAfterTouch.empty()) {
        info.product = _options.productAfterTouch;
    }
    plugIn(info, true);
}

std::string UsbIdentityBoard::devnode() const
{
    std::lock_guard lock(_mutex);
    return _device ? _device->devnode() : std::string();
}

int UsbIdentityBoard::deviceEnd() const
{
    std::lock_guard lock(_mutex);
    return _device ? _device->deviceEnd() : -1;
}

int UsbIdentityBoard::touches() const
{
    std::lock_guard lock(_mutex);
    return _touch.touches();
}

} // namespace quendral::sim
