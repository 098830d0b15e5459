#include "due_controller.h"

#include "stop_worker.h"

#include <sys/ioctl.h>

namespace quendral::sim {
namespace {

SamBoardOptions optionsFor(const std::string& initialImage, const DueFaults& faults)
{
    SamBoardOptions options;
    options.stuckFlashByte = faults.stuckFlashByte;
    // A board without firmware: flash that carries no Controller, boot-from-flash off.
    options.initialImage = initialImage.empty() ? QUENDRAL_LAB_IMAGE_DIR "/lab_no_firmware.bin" : initialImage;
    options.bootFromFlash = !initialImage.empty();
    return options;
}

} // namespace

DueController::DueController(UmockdevTestbed& testbed, const std::string& initialImage, DueFaults faults)
    : _testbed(testbed), _board(optionsFor(initialImage, faults)), _hasFirmware(!initialImage.empty()), _faults(faults),
      _usbPort(testbed.unusedUsbPort())
{
}

DueController::~DueController()
{
    stop();
}

bool DueController::start()
{
    // A board with firmware boots into it at power-on; an erased one stays in SAM-BA.
    _currentMode = _hasFirmware ? SamMode::Application : SamMode::BootLoader;
    const auto device = plugIn(_currentMode);
    // Re-enumeration happens off the board's own thread: the board calls the
    // observer from there, and attach() hands it work for that same thread.
    _board.setModeObserver([this](SamMode) {
        std::lock_guard lock(_mutex);
        ++_pendingModeChanges;
        _changed.notify_all();
    });
    // Asked for its identity while armed: no answer, and the cable goes (on
    // the lab's thread: the board is locked while it filters).
    _board.setLineFilter([this](const std::string& line) {
        if (line != "getCID" || !takeMoment(UnplugMoment::WhenAskedForCID)) {
            return true;
        }
        std::lock_guard lock(_mutex);
        _unplugRequested = true;
        _changed.notify_all();
        return false;
    });
    _worker = std::thread([this] { reenumerate(); });
    return _board.start(device->deviceEnd(), "");
}

void DueController::stop()
{
    if (stopWorker(_mutex, _changed, _stopping, _worker)) {
        _board.stop();
    }
}

std::shared_ptr<UmockdevSerialDevice> DueController::plugIn(SamMode mode)
{
    UsbSerialDeviceInfo info;
    // A fresh name each time: the test bed cannot give a used node to another device.
    info.ttyName = _testbed.unusedTtyName("ttyACM" + std::to_string(_nextNumber++));
    // Firmware and boot loader alike sit behind the board's one USB socket.
    info.usbPort = _usbPort;
    if (mode == SamMode::BootLoader) {
        info.vendorId = 0x03EB;
        info.productId = 0x6124;
        info.product = "SAM-BA boot loader";
    } else {
        info.vendorId = 0x2341;
        info.productId = 0x003E;
        info.product = "QUENDRAL KorbatekDue";
    }
    auto device = _testbed.addUsbSerialDevice(info);
    if (mode == SamMode::Application) {
        // The firmware's USB stack resets into SAM-BA when the host sets the
        // modem lines (DTR dropping) while the line stands at 1200 baud: the
        // host's "1200-baud touch" (baud_touch.h). Nothing else ever sets
        // 1200 baud here.
        std::weak_ptr<UmockdevSerialDevice> weakDevice = device;
        device->setIoctlHook([this, weakDevice](unsigned long request) {
            const auto self = weakDevice.lock();
            if (self && request == TIOCNXCL && takeMoment(UnplugMoment::AtNextClose)) {
                unplug(); // the close goes on; the node is gone
                return;
            }
            if (!self || request != TIOCMSET || _board.mode() != SamMode::Application) {
                return;
            }
            const unsigned long speed = self->speed();
            {
                std::lock_guard lock(_mutex);
                if (!_touch.modemLinesSet(speed)) {
                    return;
                }
            }
            if (takeMoment(UnplugMoment::AtTouch)) {
                unplug(); // before the call is answered: it fails as on a vanished device
                return;
            }
            _board.touch1200();
        });
    }
    std::lock_guard lock(_mutex);
    _device = device;
    ++_enumerations;
    return device;
}

bool DueController::takeMoment(UnplugMoment moment)
{
    UnplugMoment armed = moment;
    return _unplugAt.compare_exchange_strong(armed, UnplugMoment::Never);
}

void DueController::unplugAt(UnplugMoment moment)
{
    _unplugAt = moment;
}

void DueController::reenumerate()
{
    std::unique_lock lock(_mutex);
    for (;;) {
        _changed.wait(lock, [this] { return _stopping || _pendingModeChanges > 0 || _unplugRequested; });
        if (_stopping) {
            return;
        }
        if (_unplugRequested) {
            _unplugRequested = false;
            lock.unlock();
            unplug();
            lock.lock();
            continue;
        }
        --_pendingModeChanges;
        const SamMode mode = _board.mode();
        if (_unplugged || mode == _currentMode) {
            continue; // a reset that keeps the USB identity needs no new node
        }
        _currentMode = mode;
        auto old = _device;
        lock.unlock();
        // A USB reset: the old node goes, the new identity arrives a moment later.
        // The host needs a moment to finish with the old node first.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        if (old->isPlugged()) {
            _testbed.unplug(*old);
        }
        if ((_faults.staysAwayAfterTouch && mode == SamMode::BootLoader) || takeMoment(UnplugMoment::DuringReset)) {
            lock.lock();
            _unplugged = true;
            continue;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        lock.lock();
        if (_unplugged || _stopping) {
            continue; // the cable was pulled during the reset: nothing comes back
        }
        lock.unlock();
        const auto device = plugIn(mode);
        _board.attach(device->deviceEnd(), "");
        lock.lock();
        if (_unplugged && device->isPlugged()) {
            // Pulled while the new node was on its way: it goes again.
            lock.unlock();
            _testbed.unplug(*device);
            lock.lock();
        }
    }
}

std::string DueController::devnode() const
{
    std::lock_guard lock(_mutex);
    return _device ? _device->devnode() : std::string();
}

bool DueController::unplugged() const
{
    std::lock_guard lock(_mutex);
    return _unplugged;
}

int DueController::enumerations() const
{
    std::lock_guard lock(_mutex);
    return _enumerations;
}

void DueController::unplug()
{
    std::shared_ptr<UmockdevSerialDevice> device;
    {
        std::lock_guard lock(_mutex);
        _unplugged = true;
        device = _device;
    }
    if (device && device->isPlugged()) {
        _testbed.unplug(*device);
    }
}

} // namespace quendral::sim
