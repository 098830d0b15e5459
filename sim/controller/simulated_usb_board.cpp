#include "simulated_usb_board.h"

namespace quendral::sim {

SimulatedUsbBoard::Identities SimulatedUsbBoard::korbatekDue(const std::string& ttyName)
{
    Identities identities;
    identities.application = {ttyName, 0x2341, 0x003E, "QUENDRAL0001", "KorbatekDue", "QUENDRAL"};
    identities.bootloader = {ttyName, 0x03EB, 0x6124, "", "SAM-BA boot loader", "Atmel Corp."};
    return identities;
}

SimulatedUsbBoard::Identities SimulatedUsbBoard::atmega32u4(const std::string& ttyName)
{
    Identities identities;
    identities.application = {ttyName, 0x2341, 0x8037, "QUENDRAL0002", "QUENDRAL Micro", "QUENDRAL"};
    identities.bootloader = {ttyName, 0x2341, 0x0037, "", "Micro boot loader", "Arduino LLC"};
    return identities;
}

SimulatedUsbBoard::SimulatedUsbBoard(UmockdevTestbed& testbed, Identities identities)
    : _testbed(testbed), _identities(std::move(identities)), _usbPort(testbed.unusedUsbPort()),
      _thread([this] { run(); })
{
}

SimulatedUsbBoard::~SimulatedUsbBoard()
{
    {
        std::lock_guard lock(_mutex);
        _requests.push_back(Mode::Unplugged);
        _stopping = true;
        _changed.notify_all();
    }
    _thread.join();
}

void SimulatedUsbBoard::setControllerSetup(ControllerSetup setup)
{
    std::lock_guard lock(_mutex);
    _setup = std::move(setup);
}

void SimulatedUsbBoard::setBootloaderPeerFactory(BootloaderPeerFactory factory)
{
    std::lock_guard lock(_mutex);
    _peerFactory = std::move(factory);
}

void SimulatedUsbBoard::setRebootTime(std::chrono::milliseconds time)
{
    std::lock_guard lock(_mutex);
    _rebootTime = time;
}

void SimulatedUsbBoard::plugIn()
{
    enqueue(Mode::Application);
    waitUntilIdle();
}

void SimulatedUsbBoard::plugInBootloader()
{
    enqueue(Mode::Bootloader);
    waitUntilIdle();
}

void SimulatedUsbBoard::unplug()
{
    enqueue(Mode::Unplugged);
    waitUntilIdle();
}

void SimulatedUsbBoard::rebootIntoBootloader()
{
    enqueue(Mode::Bootloader);
}

void SimulatedUsbBoard::rebootIntoApplication()
{
    enqueue(Mode::Application);
}

SimulatedUsbBoard::Mode SimulatedUsbBoard::mode() const
{
    std::lock_guard lock(_mutex);
    return _mode;
}

bool SimulatedUsbBoard::waitForMode(Mode mode, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] { return _mode == mode && _requests.empty() && !_busy; });
}

std::shared_ptr<UmockdevSerialDevice> SimulatedUsbBoard::device() const
{
    std::lock_guard lock(_mutex);
    return _device;
}

std::shared_ptr<ControllerSimulator> SimulatedUsbBoard::controller() const
{
    std::lock_guard lock(_mutex);
    return _controller;
}

int SimulatedUsbBoard::touchCount() const
{
    std::lock_guard lock(_mutex);
    return _touches + (_controller ? _controller->touchCount() : 0);
}

void SimulatedUsbBoard::enqueue(Mode target)
{
    std::lock_guard lock(_mutex);
    _requests.push_back(target);
    _changed.notify_all();
}

void SimulatedUsbBoard::waitUntilIdle()
{
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [&] { return _requests.empty() && !_busy; });
}

void SimulatedUsbBoard::run()
{
    for (;;) {
        Mode target = Mode::Unplugged;
        {
            std::unique_lock lock(_mutex);
            _changed.wait(lock, [&] { return !_requests.empty(); });
            target = _requests.front();
            _requests.pop_front();
            _busy = true;
        }
        switchTo(target);
        std::lock_guard lock(_mutex);
        _busy = false;
        _changed.notify_all();
        if (_stopping && _requests.empty()) {
            return;
        }
    }
}

void SimulatedUsbBoard::tearDown()
{
    std::shared_ptr<UmockdevSerialDevice> device;
    std::shared_ptr<ControllerSimulator> controller;
    std::unique_ptr<BootloaderPeer> peer;
    {
        std::lock_guard lock(_mutex);
        device = std::move(_device);
        controller = std::move(_controller);
        peer = std::move(_peer);
        _mode = Mode::Unplugged;
    }
    if (device) {
        device->setIoctlHook(nullptr);
    }
    if (controller) {
        controller->stop();
        std::lock_guard lock(_mutex);
        _touches += controller->touchCount();
    }
    peer.reset();
    if (device) {
        _testbed.unplug(*device);
    }
}

void SimulatedUsbBoard::switchTo(Mode target)
{
    std::chrono::milliseconds rebootTime{0};
    bool wasPlugged = false;
    {
        std::lock_guard lock(_mutex);
        if (_mode == target && target != Mode::Unplugged) {
            return; // already there (a second touch while rebooting, say)
        }
        wasPlugged = _mode != Mode::Unplugged;
        rebootTime = _rebootTime;
    }
    tearDown();
    if (target == Mode::Unplugged) {
        return;
    }
    if (wasPlugged && rebootTime.count() > 0) {
        std::this_thread::sleep_for(rebootTime);
    }
    UsbSerialDeviceInfo info = target == Mode::Application ? _identities.application : _identities.bootloader;
    info.ttyName = _testbed.unusedTtyName(info.ttyName);
    info.usbPort = _usbPort;
    std::shared_ptr<UmockdevSerialDevice> device = _testbed.addUsbSerialDevice(info);
    if (!device) {
        return;
    }
    if (target == Mode::Application) {
        ControllerSetup setup;
        {
            std::lock_guard lock(_mutex);
            setup = _setup;
        }
        auto controller = std::make_shared<ControllerSimulator>(device->deviceEnd());
        if (setup) {
            setup(*controller);
        }
        controller->setTouchHandler([this] { rebootIntoBootloader(); });
        // The ioctl handler sees each modem-line call of the application, the
        // one right after the speed was set at open among them.
        std::weak_ptr<ControllerSimulator> weakController = controller;
        device->setIoctlHook([weakController](unsigned long /*request*/) {
            if (auto listener = weakController.lock()) {
                listener->noteLineSpeed();
            }
        });
        controller->start();
        std::lock_guard lock(_mutex);
        _device = device;
        _controller = controller;
        _mode = Mode::Application;
        return;
    }
    BootloaderPeerFactory factory;
    {
        std::lock_guard lock(_mutex);
        factory = _peerFactory;
    }
    std::unique_ptr<BootloaderPeer> peer = factory ? factory(*device, *this) : nullptr;
    std::lock_guard lock(_mutex);
    _device = device;
    _peer = std::move(peer);
    _mode = Mode::Bootloader;
}

} // namespace quendral::sim
