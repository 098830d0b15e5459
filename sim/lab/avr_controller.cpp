#include "avr_controller.h"

#include "line_client.h"
#include "poll_until.h"

#include <chrono>
#include <thread>

namespace quendral::sim {

AvrController::AvrController(UmockdevTestbed& testbed, AvrControllerOptions options)
    : _testbed(testbed), _options(std::move(options))
{
    AvrBoardOptions board;
    board.kind = _options.kind;
    board.programHex = _options.programHex;
    board.resetOnOpen = false; // DTR resets this board, as the auto-reset circuit does
    _board = std::make_unique<AvrBoard>(board);
}

AvrController::~AvrController()
{
    stop();
}

bool AvrController::start()
{
    UsbSerialDeviceInfo info;
    info.ttyName = _options.ttyName;
    info.vendorId = _options.vendorId;
    info.productId = _options.productId;
    info.product = _options.product;
    _device = _testbed.addUsbSerialDevice(info);
    _device->setLineChangeHandler([this](const UmockdevSerialDevice::LineState& lines) {
        // Only the rising edge pulls RESET low through the capacitor.
        if (lines.dtr && !_dtr.exchange(true)) {
            _board->resetNow();
        } else if (!lines.dtr) {
            _dtr = false;
        }
    });
    _started = _board->start(_device->deviceEnd(), "");
    return _started;
}

void AvrController::stop()
{
    if (_device) {
        _device->setLineChangeHandler(nullptr);
    }
    if (_started) {
        _board->stop();
        _started = false;
    }
}

std::optional<std::string> AvrController::askIdentity()
{
    if (!_device || !_started) {
        return std::nullopt;
    }
    _device->setLineChangeHandler(nullptr);
    // The boot loader leaves for the program once its wait is over.
    pollUntil([this] { return _board->runningApplication(); }, std::chrono::seconds(5));
    LineClient client(_device->devnode());
    const std::string cid = client.askUntilAnswered("getCID\n", "CID:", 5, 1.0);
    if (cid.empty()) {
        return std::nullopt;
    }
    client.send("getVersion\n");
    return cid + " " + client.waitForLine("VERSION:", 2.0);
}

std::string AvrController::devnode() const
{
    return _device ? _device->devnode() : std::string();
}

} // namespace quendral::sim
